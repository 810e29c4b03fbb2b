# SPDX-License-Identifier: GPL-2.0-only
"""A machine's root disk that the daemon of this host serves by NBD: it is backed up, and the daemon is killed, meanwhile.

On the disk is a partition with the root file system, with a journal: what a backup has of it is what a guest would find
after a power cut. The guest appends numbered lines to a file, /records; it tells which of them it knows to be durable.
"""
import json
import shutil
import struct
import subprocess
import time
from pathlib import Path

from . import images
from .failure import HarnessError
from .machine import Disk

START = 1 << 20     # of the partition, bytes
ROOM = 64 << 20     # beyond what the root image has
# All paths are as seen from the machine's directory: a socket's has to be short.
IMAGE, RUN, BACKUPS, GUESTS, AGENT = "served.img", "daemon", "backups", "guests", "agent.sock"
PAGE = Path(__file__).resolve().parents[3] / "docs/qbackup.toml.5"


def agent_program():
    """The manual's program that speaks to a guest's agent, with this machine's socket."""
    text = PAGE.read_text()
    begin = text.index("#!/bin/sh")
    program = text[begin:text.index(".Ed", begin)].replace(r"\e", "\\")
    theirs = "/run/guest/qga.sock"
    if program.count(theirs) != 1:
        raise HarnessError(f"the program in {PAGE} does not name {theirs} once")
    return program.replace(theirs, AGENT)


def one_partition(first, sectors):
    """The first sector of a disk with a DOS table."""
    entry = struct.pack("<B3xB3xII", 0, 0x83, first, sectors)
    return bytes(446) + entry + bytes(48) + b"\x55\xaa"


class NbdDisk(Disk):
    """Of the daemon; when it is gone, what is asked of the disk waits for another one."""

    def node(self):
        return {"driver": "raw", "node-name": self.name, "discard": "unmap",
                "file": {"driver": "nbd", "server": {"type": "unix", "path": f"{RUN}/nbd.sock"}, "export": "sda", "reconnect-delay": 60}}


class ServedRoot:
    def __init__(self, root, daemon, qbackup, work):
        self.daemon, self.qbackup, self.work = daemon, qbackup, work
        self.process = None
        self.durable = 0
        partition = work / "partition.img"
        shutil.copyfile(root, partition)
        with partition.open("r+b") as file:
            file.truncate(partition.stat().st_size + ROOM)
        images.tool(["e2fsck", "-fp", partition], "checking the root image")
        images.tool(["resize2fs", partition], "enlarging the root image")
        images.tool(["tune2fs", "-O", "has_journal", partition], "giving the root image a journal")
        images.tool(["dd", f"if={partition}", f"of={work / IMAGE}", "bs=1M", f"seek={START >> 20}", "conv=sparse", "status=none"], "making the disk")
        with (work / IMAGE).open("r+b") as file:
            file.write(one_partition(START >> 9, partition.stat().st_size >> 9))
        partition.unlink()
        (work / BACKUPS).mkdir(exist_ok=True)
        self.start()

    def disk(self, address):
        return NbdDisk("root", None, address)

    def start(self):
        with (self.work / "daemon.log").open("ab") as log:
            # It ends with this program, however that ends.
            self.process = subprocess.Popen(["setpriv", "--pdeathsig", "KILL", self.daemon, IMAGE, "--run-dir", RUN, "--no-fuse", "--foreground"],
                                            cwd=self.work, stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        deadline = time.monotonic() + 30
        # It cleans up after one that was killed, so the socket may be that one's.
        while self._run("nbdinfo", f"nbd+unix:///sda?socket={RUN}/nbd.sock", check=False).returncode != 0:
            if self.process.poll() is not None or time.monotonic() > deadline:
                raise HarnessError(f"the daemon does not start; see {self.work / 'daemon.log'}")
            time.sleep(0.1)

    def kill(self):
        self.process.kill()
        self.process.wait()

    def close(self):
        """Ends the daemon in order; says whether that was possible."""
        self.process.terminate()
        try:
            return self.process.wait(30) == 0
        except subprocess.TimeoutExpired:
            self.kill()
            return False

    def agent_port(self):
        """QEMU's options for a port on which the guest's agent listens."""
        return ["-device", "virtio-serial-pci,addr=0xa", "-chardev", f"socket,id=agent,path={AGENT},server=on,wait=off",
                "-device", "virtserialport,chardev=agent,name=org.qemu.guest_agent.0"]

    def backed_up(self, at_least):
        """Takes a backup and restores it; returns its mode, how many records are in it, and what its journal is."""
        return self._as_restored(json.loads(self._run(self.qbackup, "--control", f"{RUN}/control.sock", "--json", "backup", "--device", "sda1",
                                                      "--to", BACKUPS).stdout), at_least)

    def backed_up_by_its_job(self, at_least):
        """The same by a job whose commands have the guest's agent freeze and thaw its file systems, as the manual has it."""
        job = self.work / "job.toml"
        if not job.exists():
            program = self.work / "guest-agent"
            program.write_text(agent_program())
            program.chmod(0o700)
            job.write_text(f"""[job.guest]
devices = ["sda1"]
target = "{self.work / GUESTS}"
host = "guest"
control = "{self.work / RUN}/control.sock"
before = ["{program}", "guest-fsfreeze-freeze"]
after = ["{program}", "guest-fsfreeze-thaw"]
timeout = 30
""")
            job.chmod(0o600)
            self._run(self.qbackup, "init", GUESTS)
        return self._as_restored(json.loads(self._run(self.qbackup, "--json", "run", "guest", "--config", job).stdout), at_least)

    def _as_restored(self, made, at_least):
        restored = "restored.img"
        self._run(self.qbackup, "--quiet", "restore", "--from", made["path"], "--to", restored)
        journal = "to be replayed" if "needs_recovery" in self._run("dumpe2fs", "-h", restored).stdout else "clean"
        # The journal is replayed, as at the next start; nothing else may be wrong.
        if self._run("e2fsck", "-fp", restored, check=False).returncode > 1:
            raise HarnessError("the restored file system is damaged: " + self._run("e2fsck", "-fn", restored, check=False).stdout[-400:])
        self._run("e2fsck", "-fn", restored)
        count = self._records(restored, at_least)
        (self.work / restored).unlink()
        return f"{made['mode']} {count} {journal}"

    def complaint(self):
        """What is wrong with the disk after the machine was shut down; the daemon is stopped."""
        if not self.close():
            return "the daemon did not end in order"
        try:
            place = f"{IMAGE}?offset={START}"
            self._run("e2fsck", "-fn", place)
            self._records(place, self.durable)
        except HarnessError as error:
            return f"after the machine was shut down: {error}"
        return ""

    def _records(self, place, at_least):
        lines = self._run("debugfs", "-R", "cat /records", place).stdout.splitlines()
        for number, line in enumerate(lines, 1):
            if line != f"{number:08}":
                raise HarnessError(f"record {number} of {len(lines)} is '{line}'")
        if len(lines) < at_least:
            raise HarnessError(f"{len(lines)} records are there, and {at_least} were durable before")
        return len(lines)

    def _run(self, *words, check=True):
        try:
            run = subprocess.run([str(w) for w in words], cwd=self.work, capture_output=True, text=True, errors="replace", timeout=120,
                                 env={"PATH": images.TOOLS_PATH})
        except subprocess.TimeoutExpired:
            raise HarnessError(f"{words[0]} is not over after 120 s") from None
        if check and run.returncode != 0:
            raise HarnessError(f"{words[0]} ended with {run.returncode}: {(run.stderr or run.stdout).strip()[-400:]}")
        return run
