#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0-only
"""What the judge of kernel logs sees and overlooks, and what a power cut leaves of a disk."""
import struct
import tempfile
import unittest

from harness import write_log
from harness.kernel_log import expected_report, trouble

# How the reports of each checker begin.
REPORTS = """\
BUG: KASAN: use-after-free in worker+0x1f/0x90 [quendrel]
BUG: KASAN: slab-out-of-bounds in qdrAM+0x5/0x10 [quendrel]
WARNING: possible circular locking dependency detected
WARNING: possible recursive locking detected
WARNING: possible irq lock inversion dependency detected
WARNING: SOFTIRQ-safe -> SOFTIRQ-unsafe lock order detected
WARNING: inconsistent lock state
WARNING: bad unlock balance detected!
WARNING: held lock freed!
WARNING: lock held when returning to user space!
WARNING: suspicious RCU usage
BUG: sleeping function called from invalid context at mm/page_alloc.c:5526
BUG: scheduling while atomic: qbackup/381/0x00000002
[ BUG: Invalid wait context ]
BUG: MAX_LOCKDEP_ENTRIES too low!
BUG: using smp_processor_id() in preemptible [00000000] code: fio/700
BUG: workqueue lockup - pool cpus=1 node=0 flags=0x0 nice=0 stuck for 35s!
BUG: soft lockup - CPU#0 stuck for 67s! [insmod:210]
INFO: task qbackup:411 blocked for more than 40 seconds.
rcu: INFO: rcu_preempt detected stalls on CPUs/tasks:
BUG qdrHTfe01 (Tainted: G           O      ): Poison overwritten
BUG kmalloc-64 (Not tainted): Right Redzone overwritten
BUG qdrDCfe01 (Tainted: G           O      ): Objects remaining in qdrDCfe01 on __kmem_cache_shutdown()
kmem_cache_destroy qdrDCfe01: Slab cache still has objects when called from unload+0x5/0x10 [quendrel]
pagealloc: memory corruption
BUG: Bad page state in process fio  pfn:01234
WARNING: CPU: 0 PID: 1 at lib/debugobjects.c:505 debug_print_object+0x6e/0x90
list_add corruption. prev->next should be next (ffff), but was 0000.
refcount_t: underflow; use-after-free.
"""


class KernelLog(unittest.TestCase):
    def test_the_report_of_each_checker_is_trouble(self):
        for report in REPORTS.splitlines():
            for prefix in ("", "[   12.345678] ", "[   12.345678][ T411] "):
                with self.subTest(prefix + report):
                    self.assertEqual(trouble(f"quiet\n{prefix}{report}\nquiet\n"), [f"{prefix}{report}".strip()])

    def test_what_a_kernel_says_in_use_is_no_trouble(self):
        self.assertEqual(trouble("[ 1.0] Linux version 6.1 (BUGs)\n[ 2.0] EXT4-fs (vdb1): mounted filesystem\n"
                                 "[ 3.0] Command line: oops=panic\n[ 4.0] vm-test: begin WARNING: no\n"
                                 "[ 5.0] kasan: KernelAddressSanitizer initialized.\n"), [])

    def test_what_a_test_allows_is_no_trouble_and_the_rest_is(self):
        log = "FAULT_INJECTION: forcing a failure.\nCall Trace:\nBUG: KASAN: wild-memory-access in x\n"
        self.assertEqual(trouble(log, ["Call Trace"]), ["BUG: KASAN: wild-memory-access in x"])

    def test_a_silent_lock_checker_is_explained_by_an_expected_report_alone(self):
        expected = ("[ 1.0] WARNING: lock held when returning to user space!\n[ 1.0] fsfreeze/80 is leaving the kernel with locks still held!\n"
                    "[ 1.0]  #0:  (&type->s_umount_key){--..}, at: [<c04a>] freeze\n")
        self.assertTrue(expected_report(expected))
        self.assertFalse(expected_report(expected.replace("fsfreeze", "qbackup")))
        self.assertFalse(expected_report("all is well\n"))
        self.assertTrue(expected_report("BUG: MAX_LOCKDEP_ENTRIES too low!\n", ["MAX_LOCKDEP_ENTRIES too low"]))
        self.assertFalse(expected_report("BUG: MAX_LOCKDEP_ENTRIES too low!\n"))


class PowerCut(unittest.TestCase):
    """A disk of 8 sectors: sector 0 gets its letters in turn, with a flush behind b."""

    def cuts(self, flags_of_last=0):
        entries = [(1, write_log.MARKER + b"begun\n", 0), (0, b"a", 0), (0, b"b", 0), (0, None, write_log.FLUSH), (2, b"x", 0), (0, b"c", 0),
                   (1, write_log.MARKER + b"done-1\n", 0), (3, b"y", flags_of_last)]
        with tempfile.NamedTemporaryFile() as log:
            log.write(struct.pack("<QQQI", write_log.MAGIC, 1, len(entries), 512).ljust(512, b"\0"))
            for sector, data, flags in entries:
                log.write(struct.pack("<QQQQ", sector, 0 if data is None else 1, flags, 0).ljust(512, b"\0"))
                log.write(b"" if data is None else data.ljust(512, b"\0"))
            log.flush()
            judge = write_log.Judge(log.name, 8 * 512)
            for seed in range(400):
                image, done, text = judge.cut(seed, "begun", "done-", [(0, 4)])
                yield {"first": image[0:1], "x": image[1024:1025] == b"x", "y": image[1536:1537] == b"y", "done": done,
                       "at": int(text.split()[3])}

    def test_what_was_flushed_stays_and_the_rest_may(self):
        found = list(self.cuts())
        behind = [cut for cut in found if cut["at"] >= 4]
        self.assertTrue(all(cut["first"] in (b"b", b"c") for cut in behind))
        self.assertEqual({(cut["first"], cut["x"]) for cut in behind if cut["at"] >= 6},
                         {(b"b", False), (b"b", True), (b"c", False), (b"c", True)})
        self.assertEqual({cut["first"] for cut in found if cut["at"] == 3}, {b"\0", b"a", b"b"})

    def test_nothing_is_there_that_was_written_later(self):
        for cut in self.cuts():
            self.assertFalse(cut["x"] and cut["at"] < 5, cut)
            self.assertEqual(cut["done"], 1 if cut["at"] >= 7 else 0)

    def test_what_was_written_past_the_cache_stays(self):
        self.assertTrue(all(cut["y"] for cut in self.cuts(write_log.FUA) if cut["at"] == 8))
        self.assertFalse(all(cut["y"] for cut in self.cuts() if cut["at"] == 8))


if __name__ == "__main__":
    unittest.main()
