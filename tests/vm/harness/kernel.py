# SPDX-License-Identifier: GPL-2.0-only
"""The kernel under test: its image in a form that QEMU starts quickly, its modules, its build tree."""
import bz2
import dataclasses
import hashlib
import lzma
import re
import shutil
import struct
import subprocess
import zlib
from dataclasses import dataclass
from pathlib import Path

from .failure import HarnessError

# Loaded at boot, in this order, with all that they depend on. What the kernel has built in, or has not got, is left out.
BOOT_MODULES = [
    "virtio_pci", "virtio_blk", "ext4", "ext3", "xfs", "btrfs", "dm_mod", "nvme", "crc32c_generic", "crc32c_intel",
    "crc32_generic", "libcrc32c", "virtio_balloon", "overlay",
]
# Loaded by tests that need them.
MORE_MODULES = [
    "brd", "loop", "dm_flakey", "scsi_debug", "dm_snapshot", "null_blk", "fuse", "dm_thin_pool", "dm_crypt", "xts", "ecb", "aes_generic",
    "dm_multipath", "dm_round_robin", "md_mod", "linear", "raid0", "raid1", "raid10", "zram", "sd_mod", "sr_mod", "sg", "nd_e820", "nd_pmem", "vfat",
    "nls_cp437", "nls_ascii", "virtio_console",
]

KMOD_PATH = "/usr/sbin:/sbin:/usr/bin:/bin"


@dataclass
class Kernel:
    arch: str               # amd64 or i386
    release: str            # as uname -r says
    image: Path             # bzImage or vmlinux
    kdir: Path              # build tree
    modules: Path | None    # directory that holds lib/modules/RELEASE; None: all that is needed is built in
    of_distribution: bool = False   # or built from its sources: what its packages are for

    @property
    def make_arch(self):
        return {"amd64": "x86_64", "i386": "i386"}[self.arch]

    @property
    def version(self):
        match = re.match(r"(\d+)\.(\d+)(?:\.(\d+))?", self.release)
        return tuple(int(n or 0) for n in match.groups()) if match else (0, 0, 0)

    @property
    def checks_memory(self):
        """Whether it notices each wrong access to memory: then it takes more of that, and more time."""
        config = self.kdir / ".config"
        return config.exists() and "\nCONFIG_KASAN=y\n" in config.read_text()

    @property
    def slowness(self):
        return 5 if self.checks_memory else 1

    @property
    def old(self):
        """Whether Debian 12's programs must be adapted to it."""
        return self.version < (2, 6, 39)


def from_cache(cache, arch):
    """The kernel that `fetch` has put into its cache."""
    release = (cache / arch / "release").read_text().strip()
    base = cache / arch / "kernel"
    return Kernel(arch, release, base / "boot" / f"vmlinuz-{release}", Path((cache / arch / "kdir").read_text().strip()), base, True)


def other_from_cache(cache, arch, release):
    """Another one that `fetch` has put there."""
    base = cache / arch / "others" / release
    return Kernel(arch, release, base / "boot" / f"vmlinuz-{release}", base / "usr/src" / f"linux-headers-{release}", base)


def with_checkers(cache):
    """The one that `debug-kernel` has built into its cache."""
    place = cache / "debug-kernel"
    return dataclasses.replace(from_build(place / "tree/vmlinux", place / "tree", "amd64", place / "modules"), of_distribution=True)


def from_build(image, kdir, arch, modules):
    """A kernel built elsewhere."""
    for path, what in ((image, "kernel image"), (kdir, "build tree")):
        if not path.exists():
            raise HarnessError(f"the {what} {path} does not exist")
    release_file = kdir / "include/config/kernel.release"
    if not release_file.exists():
        raise HarnessError(f"{kdir} is no built kernel tree: it has no include/config/kernel.release; build the kernel there first")
    release = release_file.read_text().strip()
    if modules is not None and not (modules / "lib/modules" / release).is_dir():
        raise HarnessError(f"{modules} has no lib/modules/{release}; give the directory named as INSTALL_MOD_PATH to modules_install")
    return Kernel(arch, release, image, kdir, modules)


def has_pvh_note(elf):
    """Whether QEMU can start this ELF image directly: it then carries Xen's note 18, the 32-bit entry point."""
    return re.search(struct.pack("<II", 4, 4) + struct.pack("<I", 18) + rb"Xen\0", elf, re.DOTALL) is not None or \
        re.search(struct.pack("<II", 4, 8) + struct.pack("<I", 18) + rb"Xen\0", elf, re.DOTALL) is not None


def decompressors():
    yield b"\x1f\x8b\x08", lambda data: zlib.decompressobj(31).decompress(data)
    yield b"\xfd7zXZ\0", lambda data: lzma.LZMADecompressor().decompress(data)
    yield b"BZh", lambda data: bz2.BZ2Decompressor().decompress(data)
    yield b"]\0\0\0", lambda data: lzma.LZMADecompressor(lzma.FORMAT_ALONE).decompress(data)
    if shutil.which("zstd"):
        yield b"(\xb5/\xfd", lambda data: subprocess.run(["zstd", "-dc"], input=data, capture_output=True).stdout


def bootable(kernel, cache):
    """The file to give to QEMU: the image's own kernel, unpacked, where QEMU can start that; else the image.

    Unpacking takes the guest several seconds on an emulated processor.
    """
    data = kernel.image.read_bytes()
    if data[:4] == b"\x7fELF":
        return kernel.image
    target = cache / f"vmlinux-{hashlib.sha256(data).hexdigest()[:16]}"
    if target.exists():
        return target if target.stat().st_size else kernel.image
    unpacked = b""
    for magic, unpack in decompressors():
        at = data.find(magic)
        while at >= 0:
            try:
                candidate = unpack(data[at:])
            except (zlib.error, lzma.LZMAError, OSError, EOFError, ValueError):
                candidate = b""
            if candidate[:4] == b"\x7fELF":
                unpacked = candidate
                break
            at = data.find(magic, at + 1)
        if unpacked:
            break
    if not (unpacked and has_pvh_note(unpacked)):
        unpacked = b""
    partial = target.with_suffix(".partial")
    partial.write_bytes(unpacked)
    partial.rename(target)
    return target if unpacked else kernel.image


def module_chain(kernel, name):
    """The files to load, in order, for the module of this name; none when the kernel lacks it."""
    if kernel.modules is None:
        return []
    shown = subprocess.run(["modprobe", "-d", str(kernel.modules), "-S", kernel.release, "-D", name],
                           capture_output=True, text=True, env={"PATH": KMOD_PATH})
    return [Path(words[1]) for words in map(str.split, shown.stdout.splitlines()) if words[:1] == ["insmod"]]


def module_files(kernel, names):
    """The same of several modules, each file once."""
    return list(dict.fromkeys(file for name in names for file in module_chain(kernel, name)))


def build_module(kernel, source, build, jobs):
    """Builds the driver for this kernel and returns the path of quendrel.ko."""
    build.mkdir(parents=True, exist_ok=True)
    log = build / "build.log"
    command = ["make", "-C", str(source), f"-j{jobs}", f"KDIR={kernel.kdir}", f"ARCH={kernel.make_arch}", f"BUILD={build}", "WERROR=1"]
    with log.open("wb") as out:
        status = subprocess.run(command, stdout=out, stderr=subprocess.STDOUT).returncode
    module = build / "quendrel.ko"
    if status != 0 or not module.exists():
        tail = "\n".join(log.read_text(errors="replace").splitlines()[-25:])
        raise HarnessError(f"building the module for {kernel.release} failed; {log} ends with:\n{tail}")
    return module
