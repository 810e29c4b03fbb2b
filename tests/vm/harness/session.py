# SPDX-License-Identifier: GPL-2.0-only
"""Boots machines and runs tests in them, one after another; a machine that dies is replaced and the rest goes on."""
import os
import time
from dataclasses import dataclass

from . import images, kernel_log, write_log
from .failure import HarnessError
from .machine import Disk, Machine, MachineDied
from .served import ServedRoot
from .suite import MACHINES

TESTED_MIB, LOOSE_MIB, NVME_MIB, STORE_MIB, REGION_MIB, REGIONS = 192, 64, 64, 1536, 192, 8
BOOT_LIMIT = 120
GRACE = 60


@dataclass
class Verdict:
    test: str
    verdict: str            # PASS, FAIL or SKIP
    seconds: float
    reason: str = ""
    log: str = ""


class Session:
    """All tests of one kernel."""

    def __init__(self, kernel, *, work, boot_image, root, initial, host_programs, time_factor, tell, verbose, keep=False, arguments=""):
        self.kernel, self.work = kernel, work
        self.boot_image, self.root, self.initial = boot_image, root, initial
        self.host_programs = host_programs
        self.served = None
        self.time_factor, self.tell, self.verbose, self.keep = time_factor * kernel.slowness, tell, verbose, keep
        self.arguments = arguments
        self.machine = None
        self.judges = {}
        self.kind = None
        self.boots = 0
        self.boot_seconds = 0.0

    def boot(self, kind):
        self.stop()
        self.boots += 1
        here = self.work / f"boot-{self.boots}"
        here.mkdir(parents=True, exist_ok=True)
        self.here, self.kind = here, kind
        logs = {name: here / f"{name}.writes" for name in ("tested", "nvme")}
        for log in logs.values():
            write_log.fresh_log(log)
        if MACHINES[kind].served:
            self.served = ServedRoot(self.root, self.host_programs["quendreld"], self.host_programs["qbackup"], here)
        disks = [
            self.served.disk(4) if self.served else Disk("root", self.root, 4, read_only=True),
            Disk("tested", images.raw_disk(here / "tested.img", TESTED_MIB), 5, log=logs["tested"]),
            Disk("spare", images.raw_disk(here / "spare.img", REGIONS * REGION_MIB + 8), 6),
            Disk("store", images.raw_disk(here / "store.img", STORE_MIB), 7),
            Disk("loose", images.raw_disk(here / "loose.img", LOOSE_MIB), 8),
            Disk("nvme", images.raw_disk(here / "nvme.img", NVME_MIB), 9, interface="nvme", log=logs["nvme"]),
        ]
        began = time.monotonic()
        try:
            self.machine = Machine(here, kernel=self.boot_image, initial=self.initial, memory=MACHINES[kind].memory_for(self.kernel), processors=2,
                                   disks=disks, arguments=f"{MACHINES[kind].kernel_arguments(self.kernel)} {self.arguments}",
                                   boot_limit=BOOT_LIMIT * self.time_factor, emulator=self.served.agent_port() if self.served else ())
        except MachineDied:
            self.machine = None
            self._let_go_of_served()
            console = (here / "console.log").read_text(errors="replace")
            raise HarnessError(f"the machine did not come up; {here / 'console.log'} ends with:\n" + tail(console, 30)) from None
        self.boot_seconds = time.monotonic() - began
        self.judges = {"tested": write_log.Judge(logs["tested"], TESTED_MIB << 20), "nvme": write_log.Judge(logs["nvme"], NVME_MIB << 20)}
        self.console_seen = self.machine.console_bytes()
        early = kernel_log.trouble(self.machine.console())
        if early:
            self.tell(f"   the kernel's log of the boot: {early[0]}")

    def stop(self):
        if self.machine is None:
            return
        try:
            self.machine.say("off")
            self.machine.wait(20)
        except MachineDied:
            pass
        self.discard()
        if self.keep:
            return
        for name in ("served.img", "tested.img", "spare.img", "store.img", "loose.img", "nvme.img", "tested.writes", "nvme.writes"):
            (self.here / name).unlink(missing_ok=True)

    def discard(self):
        """Ends the machine at once; its disks stay."""
        self.machine.stop()
        self.machine = None
        self._let_go_of_served()
        for judge in self.judges.values():
            judge.log.close()
        self.judges = {}

    def _let_go_of_served(self):
        if self.served is not None:
            self.served.close()
            self.served = None

    def _shut_down_served(self):
        """Shuts the machine down and looks at its root disk; "" or what is wrong."""
        self.machine.say("off")
        if not self.machine.wait(60 * self.time_factor):
            return "the machine cannot be shut down"
        served, self.served = self.served, None
        return served.complaint()

    def run(self, test):
        lacks = MACHINES[test.machine].lacks(self.kernel)
        if lacks:
            return Verdict(test.name, "SKIP", 0, lacks)
        if self.machine is None or self.kind != test.machine:
            self.boot(test.machine)
        began = time.monotonic()
        try:
            verdict = self._run(test)
            if self.served is not None and verdict.verdict == "PASS":
                verdict.reason = self._shut_down_served()
                verdict.verdict = "FAIL" if verdict.reason else "PASS"
                self.discard()
        except MachineDied:
            verdict = Verdict(test.name, "FAIL", time.monotonic() - began, "the machine died", tail(self._console_of_test(), 40))
            self.discard()
        return verdict

    def _console_of_test(self):
        return self.machine.console(self.console_seen)

    def _run(self, test):
        machine = self.machine
        for judge in self.judges.values():
            judge.keep()
        limit = int(test.limit * self.time_factor)
        began = time.monotonic()
        deadline = began + limit + GRACE * self.time_factor
        self.console_seen = machine.console_bytes()
        printed = []
        unwatched = False
        machine.say(f"run {test.name} {limit}")
        while True:
            line = machine.line(deadline)
            if line is None:
                console = self._console_of_test()
                self.discard()
                return Verdict(test.name, "FAIL", time.monotonic() - began, f"hangs: not over {GRACE} s after its limit of {limit} s",
                               "\n".join(printed[-25:]) + "\n" + tail(console, 60))
            if line.startswith("> "):
                printed.append(line[2:])
                if self.verbose:
                    self.tell(f"      {line[2:]}")
            elif line.startswith("host "):
                ok, text = self._host(line.split()[1:])
                machine.say(f"{'ok' if ok else 'no'} {text}")
            elif line == "unwatched":
                unwatched = True
            elif line.startswith("end "):
                break
        (self.here / f"{test.name}.log").write_text("\n".join(printed) + "\n")
        word, seconds, reason = (line[4:].split(" ", 2) + ["", ""])[:3]
        verdict = Verdict(test.name, word, float(seconds), reason.strip())
        machine.wait_for_console(f"vm-test: end {test.name}", self.console_seen, 10)
        console = self._console_of_test()
        trouble = kernel_log.trouble(console, test.allows)
        if trouble:
            verdict.verdict = "FAIL"
            verdict.reason = "; ".join(filter(None, [verdict.reason, f"the kernel's log: {trouble[0]}"]))
        if unwatched and not trouble and not kernel_log.expected_report(console, test.allows):
            verdict.verdict = "FAIL"
            verdict.reason = "; ".join(filter(None, [verdict.reason, "the kernel's lock checker is off, and its log does not say why"]))
        if verdict.verdict == "FAIL":
            verdict.log = "\n".join(printed[-30:]) + "\n---- kernel\n" + tail(console, 120 if trouble else 20)
        if verdict.verdict == "FAIL" or unwatched:
            # What it left behind must not fail the next one, and a checker that is off for good would see none of that.
            self.discard()
        return verdict

    # ---- what a test may ask for

    def _host(self, words):
        try:
            return getattr(self, "host_" + words[0].replace("-", "_"))(*words[1:])
        except (HarnessError, AttributeError, TypeError, ValueError) as error:
            return False, str(error).replace("\n", " ")

    def host_judge(self, disk, before, after, extents, region_start):
        extents = write_log.parse_extents(extents)
        length = sum(count for _, count in extents) * write_log.SECTOR
        image = write_log.image_part(self.here / "spare.img", int(region_start) * write_log.SECTOR, length)
        return self.judges[disk].find(before, after, extents, image)

    def host_cut(self, disk, seed, marker, counted, extents, region_start):
        """Puts onto the spare disk what the other one holds after a power cut."""
        image, done, text = self.judges[disk].cut(int(seed), marker, counted, write_log.parse_extents(extents))
        with open(self.here / "spare.img", "r+b") as spare:
            spare.seek(int(region_start) * write_log.SECTOR)
            spare.write(image)
            spare.flush()
            os.fsync(spare.fileno())
        return True, f"{done} {text}"

    def host_flushed_between(self, first, second, pairs):
        return self.judges["tested"].flushed_between(int(first), int(second), int(pairs))

    def host_backed_up(self, durable):
        return True, self.served.backed_up(int(durable))

    def host_backed_up_by_its_job(self, durable):
        return True, self.served.backed_up_by_its_job(int(durable))

    def host_kill_daemon(self, seconds):
        self.served.kill()
        time.sleep(float(seconds))
        self.served.start()
        return True, "another daemon serves"

    def host_durable_at_the_end(self, number):
        self.served.durable = int(number)
        return True, number

    def host_unplug(self, disk):
        self.machine.command("device_del", id=f"{disk}-device")
        return True, f"{disk} is being unplugged"


def tail(text, lines):
    return "\n".join(text.splitlines()[-lines:])
