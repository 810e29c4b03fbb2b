# SPDX-License-Identifier: GPL-2.0-only
"""One virtual machine: its QEMU process, the kernel's console, the channel to the tests, and QEMU's own control socket."""
import fcntl
import json
import os
import select
import socket
import subprocess
import time

from .failure import HarnessError

QEMU = "qemu-system-x86_64"


class MachineDied(Exception):
    pass


def wait_for_turn(work):
    """One machine at a time for each checkout: two would take each other's time, and with it their limits."""
    top = next((parent for parent in work.parents if parent.name == "vm"), work)
    turn = open(top / "machine.lock", "w")
    fcntl.flock(turn, fcntl.LOCK_EX)
    return turn


class Machine:
    """Started by the constructor; `stop` ends it whatever it does."""

    def __init__(self, work, *, kernel, initial, memory, processors, disks, arguments, boot_limit, emulator=()):
        self.work = work
        self.turn = wait_for_turn(work)
        self.console_path = work / "console.log"
        self.console_path.write_bytes(b"")
        self.channel_path = work / "channel"
        self.qmp_path = work / "qmp"
        for path in (self.channel_path, self.qmp_path):
            path.unlink(missing_ok=True)
        # With panic=-1 an old kernel never restarts; on a busy host it takes a timer that is late for a broken one.
        append = ("console=ttyS0,115200 loglevel=7 oops=panic panic=1 no_timer_check nokaslr mitigations=off "
                  "net.ifnames=0 rcupdate.rcu_cpu_stall_timeout=120 " + arguments)
        command = [
            # It ends with this program, however that ends.
            "setpriv", "--pdeathsig", "KILL", QEMU, "-accel", "tcg,thread=single", "-nodefaults", "-no-user-config", "-display", "none", "-no-reboot",
            # Without the processor's own random numbers the first programs wait half a minute for the kernel's.
            "-cpu", "qemu64,+rdrand,+rdseed,+ssse3,+sse4.1,+sse4.2,+popcnt", "-smp", str(processors), "-m", str(memory), "-kernel", str(kernel), "-initrd", str(initial), "-append", append,
            "-chardev", f"file,id=console,path={self.console_path}", "-serial", "chardev:console",
            "-chardev", f"socket,id=channel,path={self.channel_path},server=on,wait=off", "-serial", "chardev:channel",
            "-qmp", f"unix:{self.qmp_path},server=on,wait=off", *emulator,
        ]
        for disk in disks:
            command += disk.options()
        self.stderr = open(work / "qemu.log", "wb")
        self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=self.stderr, stderr=self.stderr, cwd=work)
        self.pending = b""
        self.qmp = None
        try:
            self.channel = self._connect(self.channel_path)
            deadline = time.monotonic() + boot_limit
            while True:
                line = self.line(deadline)
                if line is None:
                    raise HarnessError(f"the machine was not ready within {boot_limit} s; see {self.console_path}")
                if line == "ready":
                    break
        except BaseException:
            self.stop()
            raise

    def _connect(self, path):
        deadline = time.monotonic() + 30
        while True:
            connection = socket.socket(socket.AF_UNIX)
            try:
                # A socket's path is short; the machine's directory may not be.
                here = os.getcwd()
                os.chdir(path.parent)
                try:
                    connection.connect(path.name)
                finally:
                    os.chdir(here)
                return connection
            except OSError:
                connection.close()
                if self.process.poll() is not None:
                    raise HarnessError(f"QEMU did not start: {(self.work / 'qemu.log').read_text(errors='replace').strip()[-600:]}")
                if time.monotonic() > deadline:
                    raise HarnessError(f"QEMU did not open {path}")
                time.sleep(0.02)

    def line(self, deadline):
        """The next line from the tests; None when the time is over."""
        while b"\n" not in self.pending:
            left = deadline - time.monotonic()
            if left <= 0:
                return None
            ready, _, _ = select.select([self.channel], [], [], min(left, 1))
            if not ready:
                if self.process.poll() is not None:
                    raise MachineDied()
                continue
            data = self.channel.recv(65536)
            if not data:
                raise MachineDied()
            self.pending += data
        line, self.pending = self.pending.split(b"\n", 1)
        return line.decode(errors="replace").rstrip("\r")

    def say(self, text):
        try:
            self.channel.sendall(text.encode() + b"\n")
        except OSError:
            raise MachineDied() from None

    def command(self, name, **arguments):
        """One command to QEMU itself; returns its answer or raises with QEMU's words."""
        if self.qmp is None:
            self.qmp = self._connect(self.qmp_path).makefile("rw")
            self.qmp.readline()
            self._qmp({"execute": "qmp_capabilities"})
        return self._qmp({"execute": name, "arguments": arguments})

    def _qmp(self, request):
        self.qmp.write(json.dumps(request))
        self.qmp.flush()
        while True:
            answer = json.loads(self.qmp.readline() or '{"error": {"desc": "QEMU is gone"}}')
            if "error" in answer:
                raise HarnessError(f"QEMU refused {request['execute']}: {answer['error'].get('desc')}")
            if "return" in answer:
                return answer["return"]

    def console_bytes(self):
        return self.console_path.stat().st_size

    def console(self, begin=0):
        with self.console_path.open("rb") as log:
            log.seek(begin)
            return log.read().decode(errors="replace").replace("\r", "")

    def wait_for_console(self, text, begin, seconds):
        """Waits until the kernel's log has the text; so all that came before it is there too."""
        deadline = time.monotonic() + seconds
        while text not in self.console(begin):
            if time.monotonic() > deadline or self.process.poll() is not None:
                return False
            time.sleep(0.02)
        return True

    def wait(self, seconds):
        try:
            self.process.wait(seconds)
            return True
        except subprocess.TimeoutExpired:
            return False

    def stop(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()
        self.stderr.close()
        self.turn.close()


class Disk:
    """A raw disk of the machine. With a log, QEMU records every write, discard and flush in the order it got them."""

    def __init__(self, name, path, address, *, interface="virtio", log=None, read_only=False):
        self.name, self.path, self.address = name, path, address
        self.interface, self.log, self.read_only = interface, log, read_only

    def node(self):
        return {"driver": "raw", "node-name": self.name, "read-only": self.read_only, "discard": "unmap",
                "file": {"driver": "file", "filename": str(self.path), "discard": "unmap", "cache": {"direct": False},
                         "locking": "off"}}

    def options(self):
        node = self.node()
        if self.log is not None:
            node["node-name"] = self.name + "-data"
            node = {"driver": "blklogwrites", "node-name": self.name, "file": node, "discard": "unmap",
                    "log": {"driver": "raw", "file": {"driver": "file", "filename": str(self.log), "locking": "off"}}}
        result = ["-blockdev", json.dumps(node)]
        if self.interface == "nvme":
            device = f"nvme,drive={self.name},id={self.name}-device,serial={self.name},addr={self.address:#x}"
        else:
            device = (f"virtio-blk-pci,drive={self.name},id={self.name}-device,serial={self.name},addr={self.address:#x},"
                      f"discard=on,write-zeroes=on")
        return result + ["-device", device]
