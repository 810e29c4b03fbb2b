"""What in a kernel's log means that something is wrong."""
import re

TROUBLE = re.compile(
    r"\bBUG[: ]|WARNING:|\bOops\b|general protection|kernel panic|Call Trace|hung task|blocked for more than|soft lockup|"
    r"rcu.*detected stall|possible (circular|recursive)|inconsistent lock|lock held when returning|held lock freed|"
    r"suspicious RCU|INFO: trying to register|DEBUG_LOCKS_WARN|Slab corruption|Poison overwritten|Redzone|Objects remaining|"
    r"left behind|unable to handle|scheduling while atomic|sleeping function called|segfault|Out of memory|oom-kill|"
    r"refcount_t|list_(add|del) corruption|EXT4-fs (error|warning)|XFS .*(Corruption|error|Metadata)|I/O error|Buffer I/O",
    re.IGNORECASE)

PREFIX = re.compile(r"^(\[\s*[\d.]+\]\s*)?(\[\s*[TC]\d+\]\s*)?")


def trouble(text, allowed=()):
    """The lines of a kernel log that no test may cause, but for those that match one of the allowed patterns."""
    patterns = [re.compile(p) for p in allowed]
    found = []
    for line in text.splitlines():
        plain = PREFIX.sub("", line)
        if plain.startswith(("vm-test:", "Command line:", "Kernel command line:")):
            continue
        if TROUBLE.search(plain) and not any(p.search(plain) for p in patterns):
            found.append(line.strip())
    return found
