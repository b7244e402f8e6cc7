"""Records end to end on Redis: a line card with real ext4 file systems on
/data and /mnt/usb0 publishes its partition and I/O records, and the master
writes each warning and recovery line once; an upgrade in progress holds the
disk I/O warning back until the upgrade status returns to 0."""

import os
import re
import shutil
import struct
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "helpers_mon"))
from mon_driver import namespaces_available  # noqa: E402
from records_helpers import CAP_PASS, IO_SENT, RO_PASS, DiskFeed, Pair, sanitizer_report  # noqa: E402


def f32(x):
    return struct.unpack("f", struct.pack("f", x))[0]


@unittest.skipUnless(shutil.which("redis-server") and shutil.which("mkfs.ext4"), "redis-server or mkfs.ext4 missing")
class RecordsEndToEnd(unittest.TestCase):
    def setUp(self):
        if not namespaces_available():
            self.skipTest("mount namespaces are not available here")
        self.work = tempfile.mkdtemp(prefix="stovig-rec-")
        for name in ("data", "usb0"):
            img = os.path.join(self.work, name + ".img")
            with open(img, "wb") as f:
                f.truncate(8 * 1024 * 1024)
            subprocess.run(["mkfs.ext4", "-q", "-F", img], check=True, capture_output=True, timeout=60)
        self.pair = Pair(self.work)
        self.feed = DiskFeed(self.pair.lc.root)
        self.feed.start()
        m, lc = self.pair.master, self.pair.lc
        self.assertTrue(m.wait_log("handle master process.", 30), m.log_text()[-3000:])
        self.assertTrue(lc.wait_log("all local information is ready.", 30), lc.log_text()[-3000:])
        self.pair.ns("mount", "-o", "loop", os.path.join(self.work, "data.img"), lc.root + "/data")
        self.pair.ns("mount", "-o", "loop", os.path.join(self.work, "usb0.img"), lc.root + "/mnt/usb0")
        self.pair.publish_mounts()

    def tearDown(self):
        self.feed.stop()
        self.pair.close()
        errs = self.pair.master.stderr_text() + self.pair.lc.stderr_text()
        shutil.rmtree(self.work, ignore_errors=True)
        self.assertIsNone(sanitizer_report(errs), errs)

    def passes(self, text, more):
        """Waits for `more` further lines of `text` in the line card's log."""
        lc = self.pair.lc
        self.assertTrue(lc.wait_count(text, lc.count(text) + more, 60), text)

    def test_partition_lines_once_each(self):
        m, lc = self.pair.master, self.pair.lc
        self.passes(CAP_PASS, 2)
        self.assertEqual(m.events("res_part_vol_warning_task"), [])

        total, used = self.pair.stat_f("/data")
        need = int(0.87 * total - used) * 1000
        self.pair.ns("dd", "if=/dev/zero", "of=" + lc.root + "/data/fill", "bs=4096",
                     "count=%d" % (need // 4096 + 1), "conv=fsync", "status=none")
        total, used = self.pair.stat_f("/data")
        self.assertGreaterEqual(used / total, 0.8)
        want = "slot3 High partition flash usage: %.2f%%, the capacity threshold is 80.00%%." % (
            f32(f32(f32(used) / f32(total)) * 100))
        self.assertTrue(m.wait_event(want, 30), m.log_text()[-3000:])
        self.passes(CAP_PASS, 3)
        self.assertEqual(m.events("res_part_vol_warning_task"), [want])
        print("master: %s" % want)

        self.pair.ns("rm", lc.root + "/data/fill")
        self.pair.ns("sync")
        self.assertTrue(m.wait_event("slot3 Partition flash usage returned to normal: ", 30), m.log_text()[-3000:])
        self.passes(CAP_PASS, 3)
        lines = m.events("res_part_vol_warning_task")
        self.assertEqual(len(lines), 2, lines)
        self.assertRegex(lines[1], r"^slot3 Partition flash usage returned to normal: \d+\.\d\d%, "
                                   r"the capacity threshold is 80\.00%\.$")

        self.pair.ns("mount", "-o", "remount,ro", lc.root + "/mnt/usb0")
        self.pair.publish_mounts()
        self.assertTrue(m.wait_event("slot3 Partition usb0 is readonly.", 30), m.log_text()[-3000:])
        self.passes(RO_PASS, 3)
        self.assertEqual(m.events("res_part_ro_warning_task"), ["slot3 Partition usb0 is readonly."])
        self.pair.ns("mount", "-o", "remount,rw", lc.root + "/mnt/usb0")
        self.pair.publish_mounts()
        self.assertTrue(m.wait_event("slot3 Partition usb0 read and write returned to normal.", 30))
        self.passes(RO_PASS, 2)
        self.assertEqual(len(m.events("res_part_ro_warning_task")), 2)

    def test_upgrade_holds_the_disk_io_warning(self):
        m, lc = self.pair.master, self.pair.lc
        self.passes(IO_SENT, 2)
        self.pair.bus("upgrade", 3)
        self.assertTrue(m.wait_log("it is upgrading now", 30), m.log_text()[-3000:])
        self.feed.busy = True
        self.assertTrue(lc.wait_log("io warning reach three times!", 30), lc.log_text()[-3000:])
        self.passes(IO_SENT, 4)
        self.assertEqual(m.events("res_disk_io_warning_save_task"), [])

        self.pair.bus("upgrade", 0)
        self.assertTrue(m.wait_event("slot3 High disk sda I/O read: ", 30), m.log_text()[-3000:])
        self.passes(IO_SENT, 4)
        lines = m.events("res_disk_io_warning_save_task")
        self.assertEqual(len(lines), 1, lines)
        m_usage = re.match(r"^slot3 High disk sda I/O read: \d+\.\d\d KBps I/O write: \d+\.\d\d KBps "
                           r"I/O usage: (\d+\.\d\d)%\.$", lines[0])
        self.assertIsNotNone(m_usage, lines[0])
        # The feed writes uptime and disk statistics one after the other, so
        # a sample may pair them a step apart: the usage is the busy disk's,
        # over the default threshold of 50, not an exact figure.
        self.assertGreaterEqual(float(m_usage.group(1)), 50.0, lines[0])
        print("master: %s" % lines[0])

        self.pair.bus("upgrade", 3)  # recoveries go through the gate
        self.assertTrue(m.wait_count("it is upgrading now", 2, 30))
        self.feed.busy = False
        self.assertTrue(m.wait_event("I/O returned to normal: ", 30), m.log_text()[-3000:])
        self.passes(IO_SENT, 3)
        lines = m.events("res_disk_io_warning_save_task")
        self.assertEqual(len(lines), 2, lines)
        self.assertRegex(lines[1], r"^slot3 High disk sda I/O read: .* I/O returned to normal: \d+\.\d\d%\.$")


if __name__ == "__main__":
    unittest.main()
