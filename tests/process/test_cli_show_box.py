"""show storage all-info on a box: the real daemon on a fixture tree (an eMMC
disk in diskstats, its EXT_CSD dump and power-on time) with /data a 4 MiB
tmpfs in a private mount namespace, so that every figure is known; its
records travel over the embedded bus into its own node store."""

import os
import struct
import unittest

from box_fixture import box_node, start_box, unavailable
from stovig_proc import TempDir, wait_for
from stovig_tools import cli

CONFIG = "[loop]\nsecond_ms = 50\n"
PROCESS_TABLE = object()  # where the process table stands in the output


def f32(x):
    return struct.unpack("f", struct.pack("f", x))[0]


class ShowBox(unittest.TestCase):
    def setUp(self):
        why = unavailable()
        if why:
            self.skipTest(why)
        self.tmp = TempDir(prefix="scli-box-")
        # This test is the one process of the fixture's /proc.
        self.node = box_node(self.tmp.path, CONFIG, {
            "/proc/%d/status" % os.getpid(): "Name:\tshowbox-test\nState:\tS (sleeping)\n",
            "/proc/%d/cmdline" % os.getpid(): "showbox-test\0--flag\0",
        })

    def tearDown(self):
        if hasattr(self, "node"):
            self.node.stop()
            self.tmp.cleanup()

    def start_in_namespace(self):
        start_box(self.node)

    def cli(self, *commands):
        return cli(self.node.env, *commands)

    def test_all_info_line_by_line(self):
        self.start_in_namespace()
        # Ready once the lifetime pass has been saved and a later I/O tick
        # compared two equal samples.
        ok = wait_for(lambda: "Storage Name:               emmc" in self.cli("show storage all-info")[1]
                      and " 0.00%" in self.cli("show storage io")[1], timeout=30)
        out = self.cli("show storage all-info")[1]
        self.assertTrue(ok, out + self.node.log_text()[-3000:])
        total_kb = 1024 * 4096 // 1000           # 4 MiB of 4 KiB blocks, in units of 1000 bytes
        used_kb = 4096 // 1000                   # the one block of .uptime
        rate = f32(f32(used_kb) / f32(total_kb)) * 100.0
        want = [
            "===============================================",
            "[slot1 : box]",
            "",
            "Storage I/O information:",
            "---------------------------------------------------------------",
            " Device      Read(KB/S)      Write(KB/S)      Util      Status",
            " mmcblk0          0.00             0.00      0.00%      Normal",
            "",
            PROCESS_TABLE,
            "",
            "Storage read-only information:",
            "----------------------",
            " Name          Status",
            " flash            R/W",
            "",
            "Storage cpacity information:",
            "--------------------------------------------------------------",
            " Name       Total(KB)       Used(KB)    Used Rate      Status",
            " %-8s%11d    %11d       %6.2f%%  %10s" % ("flash", total_kb, used_kb, rate, "Normal"),
            "",
            "Storage lifetime information:",
            "Storage Name:               emmc",
            "Storage Lifetime Left:      190 months",
            "Storage Lifetime Threshold: 12 months",
            "Storage Status:             Normal",
            "",
            "",
        ]
        got = out.split("\n")
        self.assertEqual(got[-1], "")
        # With no config file the box is whole, so per-process accounting runs
        # and lists the one process of the fixture's /proc (this test, queried
        # through the real taskstats; its rates depend on what it wrote).
        at = want.index(PROCESS_TABLE)
        self.assertEqual(got[at], " PID      Read(B/S)      Write(B/S)             Process", out)
        self.assertRegex(got[at + 1], r"^ %-5d [0-9 ]{7}\d\.\d\d  [0-9 ]{10}\d\.\d\d         showbox-test$"
                         % os.getpid(), out)
        got = got[:at] + got[at + 2:]
        want = want[:at] + want[at + 1:]
        for number, (g, w) in enumerate(zip(got[:-1], want), 1):
            self.assertEqual(g, w, "line %d differs:\n%s" % (number, out))
        self.assertEqual(len(got) - 1, len(want), out)


if __name__ == "__main__":
    unittest.main()
