# SPDX-License-Identifier: GPL-2.0-only
"""What the benchmarks of whole programs share: commands with a limit, children that end, and a daemon under a watchdog."""
import contextlib
import os
import shutil
import signal
import statistics
import subprocess
import sys
import time

TOP = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
MIB = 1 << 20
LIMIT = 120  # seconds that any one command may take


def die(text):
    sys.exit("%s: %s" % (os.path.basename(sys.argv[0]), text))


def command(*words, **more):
    more.setdefault("timeout", LIMIT)
    done = subprocess.run([str(word) for word in words], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, **more)
    if done.returncode != 0:
        raise RuntimeError("%s ended with %d: %s%s" % (" ".join(map(str, words)), done.returncode, done.stdout, done.stderr))
    return done.stdout


def wait_for(what, condition):
    until = time.monotonic() + 20
    while not condition():
        if time.monotonic() > until:
            raise RuntimeError("%s does not come" % what)
        time.sleep(0.01)


@contextlib.contextmanager
def child(*words, **more):
    process = subprocess.Popen([str(word) for word in words], **more)
    try:
        yield process
    finally:
        if process.poll() is None:
            process.send_signal(signal.SIGTERM)
        try:
            process.wait(20)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()


@contextlib.contextmanager
def guarded(run, seconds=600):
    """A run directory, whose disks, loop devices and mounts do not outlive this, nor this program."""
    os.makedirs(os.path.join(run, "disks"))
    watchdog = subprocess.Popen([os.path.join(TOP, "tests/e2e/watchdog"), run, str(seconds)], stdin=subprocess.PIPE,
                                start_new_session=True)
    try:
        yield run
    finally:
        watchdog.stdin.close()
        watchdog.wait()
        shutil.rmtree(run, ignore_errors=True)


def expect_disk(directory):
    """The kind of file system there, which has to be one on a disk."""
    kind = command("findmnt", "-n", "-o", "FSTYPE", "-T", directory).strip()
    if kind in ("tmpfs", "ramfs"):
        die("%s is on %s: name a directory on a disk with --work" % (directory, kind))
    return kind


def expect_space(directory, nbytes):
    free = os.statvfs(directory)
    if free.f_bavail * free.f_frsize < nbytes:
        die("%s has no room for %d MiB" % (directory, nbytes // MIB))


def spread(values, digits):
    return "%.*f (%.*f-%.*f)" % (digits, statistics.median(values), digits, min(values), digits, max(values))
