# SPDX-License-Identifier: GPL-2.0-only
"""Lets Debian 12's i386 programs run on kernels before 2.6.39, whose fstat() their C library no longer knows.

The library (2.36) asks fstatat64(fd, "", AT_EMPTY_PATH) where there is no statx; older kernels refuse that flag. The code
that converts statx's answer is never reached there, so a few of its bytes become the choice between fstatat64 and fstat64,
and the one place that loads the number of fstatat64 calls them. A file changed like this must not meet a newer kernel.
"""
import re

from .failure import HarnessError

# The call of statx with the jump to where it goes on when there is none, and the call of fstatat64 there.
STATX = re.compile(rb"\xb8\x7f\x01\x00\x00.{0,96}?(?:\x65\xff\x15\x10\x00\x00\x00|\xcd\x80)\x85\xc0\x0f\x85(?P<far>....)", re.S)
FSTATAT = re.compile(rb"\xb8\x2c\x01\x00\x00(?P<later>\x89\xfa)?(?:\x65\xff\x15\x10\x00\x00\x00|\xcd\x80)\x89\xc2\x89\xc6\x85\xc0", re.S)


def chooser(buffer_to_ecx):
    return (b"\xb8\x2c\x01\x00\x00"             # mov  $300,%eax        fstatat64
            b"\xf7\xc6\x00\x10\x00\x00"         # test $0x1000,%esi     AT_EMPTY_PATH?
            b"\x74\x0c"                         # jz   1f
            b"\x80\x39\x00"                     # cmpb $0,(%ecx)        of an empty path?
            b"\x75\x07"                         # jne  1f
            b"\xb8\xc5\x00\x00\x00"             # mov  $197,%eax        fstat64
            + buffer_to_ecx +                   # mov  buffer,%ecx
            b"\x81\xe6\x00\x01\x00\x00"         # 1: and $0x100,%esi    AT_SYMLINK_NOFOLLOW is all it knows
            b"\xc3")                            # ret


def adapt(path):
    """Changes a C library, dynamic loader or static program in place."""
    data = bytearray(path.read_bytes())
    found = []
    for statx in STATX.finditer(data):
        missing = statx.end() + int.from_bytes(statx["far"], "little", signed=True)
        fstatat = FSTATAT.search(data, missing, missing + 64)
        if fstatat:
            found.append((statx.end(), missing, fstatat))
    if len(found) != 1:
        raise HarnessError(f"{path.name} cannot be adapted to a kernel before 2.6.39: {len(found)} places look like its fstat, not 1")
    unused, end, call = found[0]
    code = chooser(b"\x89\xf9" if call["later"] else b"\x89\xd1")
    if unused + len(code) > end:
        raise HarnessError(f"{path.name} cannot be adapted to a kernel before 2.6.39: there is no room")
    start = call.start()
    data[unused:unused + len(code)] = code
    data[start:start + 5] = b"\xe8" + (unused - start - 5).to_bytes(4, "little", signed=True)
    path.write_bytes(data)
