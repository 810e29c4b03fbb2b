# SPDX-License-Identifier: GPL-2.0-only
"""What in a kernel's log means that something is wrong."""
import re

TROUBLE = re.compile(
    r"\bBUG[: ]|WARNING:|\bOops\b|general protection|kernel panic|Call Trace|hung task|blocked for more than|soft lockup|"
    r"rcu.*detected stall|possible (circular|recursive|irq)|inconsistent lock|lock held when returning|held lock freed|"
    r"suspicious RCU|UBSAN|pagealloc:|still has objects|INFO: trying to register|DEBUG_LOCKS_WARN|Slab corruption|Poison overwritten|Redzone|Objects remaining|"
    r"left behind|unable to handle|scheduling while atomic|sleeping function called|segfault|Out of memory|oom-kill|"
    r"refcount_t|list_(add|del) corruption|EXT4-fs (error|warning)|XFS .*(Corruption|error|Metadata)|I/O error|Buffer I/O",
    re.IGNORECASE)

PREFIX = re.compile(r"^(\[\s*[\d.]+\]\s*)?(\[\s*[TC]\d+\]\s*)?")

# Reports of an old kernel's lock checker that come of what is as it should be: how the report begins, what all stands in
# it, and why. Nothing else is overlooked, and after its first report the checker is silent anyway.
EXPECTED_REPORTS = [
    # The fsfreeze program leaves the kernel with a frozen file system's locks held, until it is called again.
    ("lock held when returning to user space", ["fsfreeze", "s_umount"]),
]
REPORT_LINES = 110


def without_expected_reports(lines):
    """The lines without those of the reports above."""
    kept, at = [], 0
    while at < len(lines):
        end = at
        for begin, words in EXPECTED_REPORTS:
            if begin in lines[at]:
                block = lines[at:at + REPORT_LINES]
                if all(any(word in line for line in block) for word in words):
                    end = at + end_of_report(block)
        if end > at:
            at = end
        else:
            kept.append(lines[at])
            at += 1
    return kept


def end_of_report(block):
    """How many lines a report has: to the end of the last stack in it."""
    last = 0
    for number, line in enumerate(block):
        plain = PREFIX.sub("", line).strip()
        if "[<" in line or plain.startswith(("Call Trace", "stack backtrace", "Pid:", "#")) or plain in ("", "other info that might help us debug this:"):
            last = number
        elif number > last + 6:
            break
    return last + 1


def expected_report(text, allowed=()):
    """Whether a kernel log has one of the expected reports, or a line that would be trouble and is allowed."""
    lines = text.splitlines()
    return without_expected_reports(lines) != lines or any(
        TROUBLE.search(line) and any(re.search(p, line) for p in allowed) for line in lines)


def trouble(text, allowed=()):
    """The lines of a kernel log that no test may cause, but for those that match one of the allowed patterns."""
    patterns = [re.compile(p) for p in allowed]
    found = []
    for line in without_expected_reports(text.splitlines()):
        plain = PREFIX.sub("", line)
        if plain.startswith(("vm-test:", "Command line:", "Kernel command line:")):
            continue
        if TROUBLE.search(plain) and not any(p.search(plain) for p in patterns):
            found.append(line.strip())
    return found
