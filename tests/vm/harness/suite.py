# SPDX-License-Identifier: GPL-2.0-only
"""The tests: bash scripts in guest/tests whose first lines say what they show and what they need.

    # One sentence: the behaviour.
    # needs: WORD...      what the kernel and the machine must have, else the test is skipped (see guest/lib-needs.sh)
    # limit: SECONDS      of its own
    # machine: NAME       one of MACHINES; default standard
    # allows: REGEX       lines of the kernel's log that are no failure here
"""
import fnmatch
from dataclasses import dataclass, field
from pathlib import Path

from .failure import HarnessError


@dataclass(frozen=True)
class MachineKind:
    memory: int           # MiB
    arguments: str = ""
    init: str = "guest"   # the first program of the root file system: guest/init, or systemd with that as a service
    served: bool = False  # the root file system can be written to, on a disk that the daemon of this host serves
    high: int = 0         # of the memory, MiB that a 32-bit kernel is told to reach by temporary mappings only

    def kernel_arguments(self, kernel):
        words = [self.arguments]
        if kernel.arch == "amd64" and self is MACHINES["standard"]:
            # Some of the memory is a disk to who asks for one.
            words.append("memmap=32M!416M")
        if self.init == "systemd":
            # No more than the test's own service, and what that asks for.
            words.append("vm_test_init=systemd systemd.unit=vm-test.service systemd.show_status=no")
        if self.served:
            words.append("vm_test_root=partition")
        if kernel.arch == "i386":
            words.append(f"highmem={self.high}M")
        if kernel.old:
            # When a busy host lets it wait, such a kernel would make all its timers slow for good.
            words.append("highres=off")
        if kernel.checks_memory:
            # Every report and not only the first; free pages have a pattern in them, and so have the free objects of the
            # driver's own caches: all others are the memory checker's alone, which also remembers where each comes from.
            words.append("kasan_multi_shot page_poison=1 slub_debug=FZP,qdr*")
            # The disks need no interrupt that ACPI has to find: each took half a minute, until the interpreter gave up.
            # A look at the clock goes to no device.
            words.append("tsc=reliable")
        return " ".join(words)

    def memory_for(self, kernel):
        """MiB; a kernel that checks memory keeps an eighth of it for that, and holds back what was freed."""
        return self.memory * 3 // 2 + 64 if kernel.checks_memory else self.memory

    @property
    def daemon(self):
        """Whether the daemon's package takes part."""
        return self.init == "systemd" or self.served

    def lacks(self, kernel):
        """Why there is no such machine with this kernel; empty: there is."""
        if self.daemon and (kernel.arch != "amd64" or kernel.old):
            return "the daemon's package is for amd64"
        return ""


MACHINES = {
    # The kernel does not clear memory on its own account, so that what others have left in it can be seen.
    "standard": MachineKind(memory=512, arguments="log_buf_len=8M init_on_alloc=0", high=256),
    "small": MachineKind(memory=256, high=96),
    "systemd": MachineKind(memory=512, arguments="log_buf_len=8M", init="systemd"),
    "served": MachineKind(memory=256, served=True, high=96),
}


@dataclass
class Test:
    name: str
    path: Path
    says: str
    needs: list = field(default_factory=list)
    limit: int = 60
    machine: str = "standard"
    allows: list = field(default_factory=list)
    order: int = 50


def read(path):
    test = None
    for line in path.read_text().splitlines():
        if not line.startswith("# "):
            break
        if line.startswith("# SPDX-"):
            continue
        if test is None:
            test = Test(path.name, path, line[2:])
            continue
        word, colon, value = line[2:].partition(":")
        value = value.strip()
        if not colon:
            continue
        if word == "needs":
            test.needs += value.split()
        elif word == "limit":
            test.limit = int(value)
        elif word == "order":
            test.order = int(value)
        elif word == "machine":
            test.machine = value
        elif word == "allows":
            test.allows.append(value)
    if test is None:
        raise HarnessError(f"{path} does not begin with a line that says what it shows")
    if test.machine not in MACHINES:
        raise HarnessError(f"{path} wants the machine '{test.machine}'; there are: {', '.join(MACHINES)}")
    return test


def load(directory, pattern):
    tests = [read(path) for path in sorted(directory.iterdir()) if path.is_file() and not path.name.startswith(".")]
    chosen = [t for t in tests if any(fnmatch.fnmatch(t.name, p) for p in pattern.split(","))]
    if not chosen:
        raise HarnessError(f"no test's name matches '{pattern}'; --list shows them")
    return sorted(chosen, key=lambda t: (list(MACHINES).index(t.machine), t.order, t.name))
