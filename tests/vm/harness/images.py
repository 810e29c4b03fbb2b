# SPDX-License-Identifier: GPL-2.0-only
"""What the machine is started with: the root file system, the initial file system with the tests in it, raw disks."""
import hashlib
import os
import shutil
import stat
import subprocess
import tempfile
from pathlib import Path

from .failure import HarnessError
from .old_libc import adapt

# Not needed by any test; leaves the image at a third of its size.
LEFT_OUT = ["usr/share/doc", "usr/share/man", "usr/share/locale", "usr/share/info", "usr/share/perl", "usr/lib/x86_64-linux-gnu/perl",
            "usr/lib/i386-linux-gnu/perl", "usr/share/zoneinfo", "usr/lib/x86_64-linux-gnu/gconv", "usr/lib/i386-linux-gnu/gconv",
            # A compiler that PostgreSQL can make use of.
            "usr/lib/llvm-14", "usr/lib/x86_64-linux-gnu/libLLVM-14.so.1", "usr/lib/i386-linux-gnu/libLLVM-14.so.1",
            "usr/lib/x86_64-linux-gnu/libz3.so.4", "usr/lib/i386-linux-gnu/libz3.so.4", "usr/lib/postgresql/15/lib/bitcode"]
TOOLS_PATH = os.environ.get("PATH", "") + ":/usr/sbin:/sbin"


def tool(arguments, what, **more):
    run = subprocess.run([str(a) for a in arguments], capture_output=True, text=True, env={**os.environ, "PATH": TOOLS_PATH}, **more)
    if run.returncode != 0:
        raise HarnessError(f"{what} failed: {(run.stderr or run.stdout).strip()[-600:]}")
    return run.stdout


def remove(path):
    if path.is_dir() and not path.is_symlink():
        shutil.rmtree(path)
    else:
        path.unlink(missing_ok=True)


def root_image(packages, cache, old_kernel=False):
    """A read-only image with these packages unpacked; made once for each set of packages.

    For an old kernel it is ext2, and what talks to the kernel in it is adapted.
    """
    source = Path(__file__).read_text() + (Path(__file__).with_name("old_libc.py").read_text() if old_kernel else "")
    key = hashlib.sha256(("\n".join(p.name for p in packages) + source).encode()).hexdigest()[:16]
    image = cache / f"root-{key}.img"
    if image.exists():
        return image
    for old in cache.glob("root-*.img"):
        if packages and old.stat().st_mtime < packages[0].stat().st_mtime - 30 * 86400:
            old.unlink()
    with tempfile.TemporaryDirectory(dir=cache) as temporary:
        tree = Path(temporary) / "root"
        tree.mkdir()
        for package in packages:
            tool(["dpkg-deb", "-x", package, tree], f"unpacking {package.name}")
        for name in LEFT_OUT:
            remove(tree / name)
        # No package's installation script runs here: what they would have linked is linked by hand.
        for directory in ("proc", "sys", "dev", "run", "tmp", "mnt", "root", "etc"):
            (tree / directory).mkdir(exist_ok=True)
        for link, target in (("bin/sh", "dash"), ("usr/bin/awk", "mawk"), ("etc/mtab", "/proc/self/mounts")):
            if not os.path.lexists(tree / link):
                (tree / link).symlink_to(target)
        (tree / "etc/passwd").write_text("root:x:0:0:root:/root:/bin/bash\npostgres:x:70:70::/run:/bin/sh\nmysql:x:71:71::/run:/bin/sh\n")
        (tree / "etc/group").write_text("root:x:0:\ndisk:x:6:\npostgres:x:70:\nmysql:x:71:\n")
        (tree / "etc/ld.so.conf").write_text("include /etc/ld.so.conf.d/*.conf\n")
        tool(["ldconfig", "-r", tree], "making the library cache")
        if old_kernel:
            for name in ("lib/i386-linux-gnu/ld-linux.so.2", "lib/i386-linux-gnu/libc.so.6"):
                adapt(tree / name)
        used = sum(f.lstat().st_size for f in tree.rglob("*"))
        partial = Path(temporary) / "image"
        tool(["mke2fs", "-q", "-t", "ext2" if old_kernel else "ext4", "-O", "^has_journal,^metadata_csum", "-m", "0", "-E", "root_owner=0:0", "-d", tree,
              partial, f"{used // 1024 * 13 // 10 + 20000}k"], "making the root image")
        partial.rename(image)
    return image


class Cpio:
    """An initial file system in the kernel's format (newc)."""

    def __init__(self):
        self.parts = []
        self.number = 0
        self.directories = set()

    def _entry(self, name, mode, data, device=(0, 0)):
        self.number += 1
        encoded = name.encode() + b"\0"
        fields = [self.number, mode, 0, 0, 1, 0, len(data), 0, 0, device[0], device[1], len(encoded), 0]
        head = b"070701" + b"".join(b"%08x" % f for f in fields) + encoded
        self.parts += [head, b"\0" * (-len(head) % 4), data, b"\0" * (-len(data) % 4)]

    def directory(self, name):
        parent = os.path.dirname(name)
        if parent and parent not in self.directories:
            self.directory(parent)
        if name not in self.directories:
            self.directories.add(name)
            self._entry(name, stat.S_IFDIR | 0o755, b"")

    def file(self, name, data, mode=0o644):
        self.directory(os.path.dirname(name)) if os.path.dirname(name) else None
        self._entry(name, stat.S_IFREG | mode, data)

    def character_device(self, name, major, minor):
        self.directory(os.path.dirname(name))
        self._entry(name, stat.S_IFCHR | 0o600, b"", (major, minor))

    def bytes(self):
        self._entry("TRAILER!!!", 0, b"")
        return b"".join(self.parts)


def stripped(program, cache):
    """The bytes of a program or module without what only a debugger reads."""
    with tempfile.NamedTemporaryFile(dir=cache) as copy:
        tool(["strip", "--strip-debug", "-o", copy.name, program], f"stripping {program}")
        return Path(copy.name).read_bytes()


def initial_file_system(target, *, busybox, modules, more_modules, kit, settings, cache):
    """Writes the archive: busybox, the modules to load in order, those to load on demand (a mapping of names to the files
    to load for each, in order), and the kit (a mapping of names to paths)."""
    archive = Cpio()
    for name in ("proc", "sys", "dev", "newroot", "kit", "modules"):
        archive.directory(name)
    archive.character_device("dev/console", 5, 1)
    archive.file("bin/busybox", busybox.read_bytes(), 0o755)
    order = []
    for path in modules:
        archive.file(f"modules/{path.name}", path.read_bytes())
        order.append(path.name)
    archive.file("modules/order", ("\n".join(order) + "\n").encode())
    for path in dict.fromkeys(path for chain in more_modules.values() for path in chain if path not in modules):
        archive.file(f"kit/modules/{path.name}", path.read_bytes())
    chains = (" ".join([name, *(p.name for p in chain)]) + "\n" for name, chain in more_modules.items())
    archive.file("kit/modules/chains", "".join(chains).encode())
    for name, path in kit.items():
        with path.open("rb") as start:
            binary = start.read(4) == b"\x7fELF"
        archive.file(f"kit/{name}", stripped(path, cache) if binary else path.read_bytes(), path.stat().st_mode & 0o777)
    archive.file("kit/settings", "".join(f"{k}={v}\n" for k, v in settings.items()).encode())
    archive.file("init", kit["guest/first-init"].read_bytes(), 0o755)
    target.write_bytes(archive.bytes())


def busybox_of(packages, cache, arch, old_kernel=False):
    """The static busybox of the guest's packages, for the initial file system."""
    target = cache / arch / ("busybox-old" if old_kernel else "busybox")
    package = next((p for p in packages if p.name.startswith("busybox-static_")), None)
    if package is None:
        raise HarnessError("the guest's packages have no busybox-static; run tests/vm/fetch --update")
    if not target.exists() or target.stat().st_mtime < package.stat().st_mtime:
        with tempfile.TemporaryDirectory(dir=cache) as temporary:
            tool(["dpkg-deb", "-x", package, temporary], f"unpacking {package.name}")
            program = Path(temporary) / "bin/busybox"
            if old_kernel:
                adapt(program)
            shutil.copyfile(program, target)
    return target


def raw_disk(path, mebibytes):
    """A fresh disk of zeros that takes no space yet."""
    path.unlink(missing_ok=True)
    with path.open("wb") as out:
        out.truncate(mebibytes << 20)
    return path
