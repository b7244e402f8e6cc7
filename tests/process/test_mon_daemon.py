"""The monitors inside the real daemon: storage type detection at start-up,
the settings' start values, the sampling timers firing on short timer
seconds, the eMMC debugfs remount and lifetime pass, and an unknown storage
type refusing only the lifetime monitor.  Every host path comes from a
fixture tree (STOVIG_ROOT); mount and umount are recording fakes."""

import os
import stat
import unittest

from stovig_proc import Node, TempDir, wait_for

CONFIG = "[log]\nsyslog_file = @SYSLOG@\nlevel = debug\n[loop]\nsecond_ms = 20\n"


class MonitorDaemon(unittest.TestCase):
    def setUp(self):
        self.tmp = TempDir(prefix="smon-d-")
        self.nodes = []

    def tearDown(self):
        for n in self.nodes:
            n.stop()
        self.tmp.cleanup()

    def tree(self, files):
        """A fixture root at debug level 5 with the given files."""
        root = os.path.join(self.tmp.path, "r")
        files = dict(files)
        files["/tmp/qn-stovig/debug_level"] = "5\n"
        for rel, text in files.items():
            path = root + rel
            os.makedirs(os.path.dirname(path), exist_ok=True)
            with open(path, "w") as f:
                f.write(text)
        return root

    def fake_bin(self):
        """mount and umount that only record their arguments."""
        bindir = os.path.join(self.tmp.path, "bin")
        os.makedirs(bindir, exist_ok=True)
        calls = os.path.join(self.tmp.path, "calls.log")
        for tool in ("mount", "umount"):
            path = os.path.join(bindir, tool)
            with open(path, "w") as f:
                f.write('#!/bin/sh\necho "%s $*" >> %s\n' % (tool, calls))
            os.chmod(path, stat.S_IRWXU)
        return bindir, calls

    def start(self, root, env=None):
        n = Node(self.tmp.path, "node", config=CONFIG, root=root, env=env)
        self.nodes.append(n)
        n.start()
        return n

    def test_ssd_node_starts_three_monitors_and_they_re_arm(self):
        root = self.tree({
            "/proc/mounts": "/dev/vda1 / ext4 rw,relatime 0 0\n",
            "/proc/uptime": "1000.00 10.00\n",
            "/proc/diskstats": "   8       0 sda 1 0 8 1 1 0 8 1 0 1 2\n",
        })
        n = self.start(root)
        self.assertTrue(wait_for(lambda: "res_mom_part_ro_timer_func add timer with ret[0]." in n.syslog_text()),
                        n.syslog_text())
        text = n.syslog_text()
        for line in ("find SSD disk type", "reset io interval from 0 to 10.", "reset ro interval from 0 to 30.",
                     "reset cap interval from 0 to 30.", "reset lifetime interval from 0 to 60.",
                     "res_mon_io_timer_func add timer with ret[0].",
                     "res_mon_part_cap_timer_func add timer with ret[0]."):
            self.assertIn(line, text)
        # Detection comes after "process begin", logged as the main module.
        self.assertLess(text.index("process begin"), text.index("find SSD disk type"))
        self.assertRegex(n.log_text(), r"main\.cpp:\d+ res_get_disk_type: find SSD disk type")
        # The read-only pass created its probe on the root entry.
        self.assertTrue(os.path.exists(root + "//.test-readonly"))
        # The I/O timer keeps firing.
        self.assertTrue(wait_for(lambda: n.syslog_text().count("res_mon_io_timer_func add timer") >= 3))
        self.assertNotIn("RES_DISK_TIMER", n.log_text())
        self.assertIsNone(n.proc.poll())

    def test_emmc_node_remounts_debugfs_and_runs_the_lifetime_pass(self):
        csd = ["0"] * 1024
        csd[537] = "1"  # DEVICE_LIFE_TIME_EST_TYP_A = 0x01
        root = self.tree({
            "/proc/mounts": "/dev/mmcblk0p2 / ext4 rw 0 0\n",
            "/proc/uptime": "1000.00 10.00\n",
            "/etc/mtab": "none /sys/kernel/debug debugfs rw 0 0\nnone /sys/kernel/debug debugfs rw 0 0\n",
            "/sys/kernel/debug/mmc0/mmc0:0001/ext_csd": "".join(csd) + "\n",
            "/data/.uptime": "25920000\n",
        })
        bindir, calls = self.fake_bin()
        n = self.start(root, env={"PATH": bindir + ":" + os.environ["PATH"]})
        self.assertTrue(wait_for(lambda: "emmc left life time: 190" in n.syslog_text(), timeout=20),
                        n.syslog_text())
        debugfs = root + "/sys/kernel/debug"
        with open(calls) as f:
            self.assertEqual(f.read(), "umount %s\numount %s\nmount -t debugfs none %s\n"
                             % (debugfs, debugfs, debugfs))
        text = n.syslog_text()
        self.assertIn("find emmc disk type", text)
        self.assertIn("abrasion:5 persent, used_life_time:10 month", text)
        self.assertIn("res_mon_emmc_disk_timer_func add timer with ret[0].", text)

    def test_unreadable_mount_table_refuses_only_the_lifetime_monitor(self):
        root = self.tree({"/proc/uptime": "1000.00 10.00\n"})
        n = self.start(root)
        self.assertTrue(wait_for(lambda: "res_mon_io_timer_func add timer with ret[0]." in n.syslog_text()),
                        n.syslog_text())
        text = n.syslog_text()
        self.assertIn("fopen /proc/mounts error, reason: No such file or directory", text)
        self.assertIn("param is err", text)
        self.assertRegex(text, r"\[<res_mon_reset_disk_intr>:<\d+>\] param is err")
        self.assertNotIn("Init monitor parameter failed.", n.log_text())
        self.assertIsNone(n.proc.poll())


if __name__ == "__main__":
    unittest.main()
