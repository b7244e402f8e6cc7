"""The storage commands of the real daemon, driven through qn-stovig-cli:
parser refusals, the open/close/default messages, the setting displays, the
saved configuration and its survival across a restart."""

import os
import subprocess
import unittest

from stovig_proc import Node, TempDir, wait_for, read_text
from stovig_tools import SHELL, cli


class DaemonCliTest(unittest.TestCase):
    def setUp(self):
        self.tmp = TempDir()
        root = os.path.join(self.tmp.path, "root")
        os.makedirs(os.path.join(root, "proc"))
        with open(os.path.join(root, "proc", "mounts"), "w") as f:
            f.write("/dev/sda1 /mnt/nowhere ext4 rw,relatime 0 0\n")  # an SSD box, nothing watched mounted
        self.node = Node(self.tmp.path, "box", config="[log]\nlevel = debug\n", root=root)
        self.start()

    def start(self):
        self.node.start()
        sock = os.path.join(self.node.run_dir, "cli.sock")
        self.assertTrue(wait_for(lambda: os.path.exists(sock) and self.cli("show storage io set")[0] == 0),
                        "the daemon's command line never answered")

    def tearDown(self):
        self.node.stop()
        self.tmp.cleanup()

    def cli(self, *commands):
        return cli(self.node.env, *commands)

    def config(self, *commands):
        return self.cli("configure terminal", *commands)

    def test_parser_refusals(self):
        self.assertEqual(self.config("storage io set"), (1, "", "% Incomplete command.\n"))
        status, _, err = self.config("storage io set interval 9")
        self.assertEqual(status, 1)
        self.assertEqual(err, "storage io set interval 9\n" + " " * 24 + "^\n"
                              "% Invalid input detected at '^' marker: number out of range <10-3600>.\n")
        status, _, err = self.config("storage io set threshold 49")
        self.assertEqual(status, 1)
        self.assertIn("<50-99>", err)
        self.assertEqual(self.config("storage ro set")[0], 1)
        self.assertEqual(self.config("storage ro set threshold 50")[0], 1)
        self.assertEqual(self.config("storage capacity set threshold 9")[0], 1)
        self.assertEqual(self.config("storage lifetime set threshold 61")[0], 1)
        self.assertEqual(self.config("no storage io set interval 20")[0], 1)
        self.assertEqual(self.cli("debug stovig 6")[0], 1)

    def test_io_open_close_default_messages(self):
        self.assertEqual(self.config("no storage io set"), (0, "Close storage io monitor.\n\n", ""))
        self.assertEqual(self.cli("show storage io set")[1], "Storage IO Monitor:     Closed\n\n")
        self.assertEqual(self.config("storage io set threshold 60"),
                         (0, "Open storage io monitor.\nSet storage io interval 10 seconds, threshold 60%.\n\n", ""))
        self.assertEqual(self.cli("show storage io set")[1],
                         "Storage IO Monitor:     Opened\nStorage IO Interval:    10 Seconds\n"
                         "Storage IO Threshold:   60%\n\n")
        self.assertEqual(self.config("storage io set interval 20")[1], "Set storage io interval 20 seconds.\n\n")
        self.config("no storage io set")
        self.assertEqual(self.config("storage io set interval 20")[1],
                         "Open storage io monitor.\nSet storage io interval 20 seconds, threshold 50%.\n\n")
        self.assertEqual(self.config("storage io set interval 30 threshold 70")[1],
                         "Set storage io interval 30 seconds, threshold 70%.\n\n")
        self.assertEqual(self.config("storage io set threshold 80")[1], "Set storage io threshold 80%.\n\n")
        self.assertEqual(self.config("default storage io set")[1],
                         "Reset default storage io monitor.\nSet storage io interval 10 seconds, threshold 50%.\n\n")

    def test_read_only_and_capacity_messages(self):
        self.assertEqual(self.config("no storage ro set")[1], "Close storage read-only monitor.\n\n")
        self.assertEqual(self.cli("show storage ro set")[1], "Storage Read-only Monitor:     Closed\n\n")
        self.assertEqual(self.config("storage ro set interval 45")[1],
                         "Open storage read-only monitor.\nSet storage read-only interval 45 seconds.\n\n")
        self.assertEqual(self.cli("show storage ro set")[1],
                         "Storage Read-only Monitor:     Opened\nStorage Read-only Interval:    45 Seconds\n\n")
        self.assertEqual(self.config("default storage ro set")[1],
                         "Reset default storage read-only monitor.\nSet storage read-only interval 30 seconds.\n\n")
        self.assertEqual(self.config("storage capacity set interval 60 threshold 90")[1],
                         "Set storage capacity interval 60 seconds, threshold 90%.\n\n")
        self.assertEqual(self.cli("show storage capacity set")[1],
                         "Storage Capacity Monitor:     Opened\nStorage Capacity Interval:    60 Seconds\n"
                         "Storage Capacity Threshold:   90%\n\n")
        self.assertEqual(self.config("no storage capacity set")[1], "Close storage capacity monitor.\n\n")
        self.assertEqual(self.cli("show storage capacity set")[1], "Storage Capacity Monitor:     Closed\n\n")

    def test_lifetime_singular_and_plural(self):
        self.assertEqual(self.config("storage lifetime set threshold 1")[1], "Set storage lifetime threshold 1 month.\n\n")
        self.assertEqual(self.cli("show storage lifetime set")[1],
                         "Storage Lifetime Monitor:     Opened\nStorage Lifetime Interval:    60 Seconds\n"
                         "Storage Lifetime Threshold:   1 month\n\n")
        self.assertEqual(self.config("storage lifetime set threshold 2")[1],
                         "Set storage lifetime threshold 2 months.\n\n")
        self.assertEqual(self.config("storage lifetime set interval 120 threshold 1")[1],
                         "Set storage lifetime interval 120 seconds, threshold 1 month.\n\n")
        self.assertEqual(self.config("default storage lifetime set")[1],
                         "Reset default storage lifetime monitor.\n"
                         "Set storage lifetime interval 60 seconds, threshold 12 months.\n\n")
        self.assertEqual(self.cli("show storage lifetime set")[1],
                         "Storage Lifetime Monitor:     Opened\nStorage Lifetime Interval:    60 Seconds\n"
                         "Storage Lifetime Threshold:   12 months\n\n")

    def test_saved_configuration_lines(self):
        def framed(lines):
            return "!\n" + lines + "!\nend\n"
        self.assertEqual(self.cli("show running-config")[1], framed(""))
        self.config("no storage ro set")
        self.assertEqual(self.cli("show running-config")[1], framed("no storage ro set\n"))
        self.config("default storage ro set")
        self.assertEqual(self.cli("show running-config")[1], framed(""))
        self.config("storage io set threshold 60", "storage capacity set interval 90",
                    "storage lifetime set interval 120 threshold 6", "storage ro set interval 40")
        self.assertEqual(self.cli("show running-config")[1],
                         framed("storage io set threshold 60\nstorage ro set interval 40\n"
                                "storage capacity set interval 90\nstorage lifetime set interval 120 threshold 6\n"))

    def test_pasted_configuration_block_with_comment_lines_applies(self):
        block = (b"configure terminal\n"
                 b"!\n"
                 b"! storage, as saved on the spare box\n"
                 b"storage io set threshold 60\n"
                 b"no storage ro set\n"
                 b"!\n"
                 b"storage capacity set interval 90\n"
                 b"!\n"
                 b"end\n")
        p = subprocess.run([SHELL], env=self.node.env, capture_output=True, timeout=20, input=block)
        self.assertEqual((p.returncode, p.stderr), (0, b""))
        self.assertEqual(self.cli("show running-config")[1],
                         "!\nstorage io set threshold 60\nno storage ro set\nstorage capacity set interval 90\n!\nend\n")
        # What show running-config prints pastes back as it is.
        running = self.cli("show running-config")[1]
        self.config("default storage io set", "default storage ro set", "default storage capacity set")
        self.assertEqual(self.cli("show running-config")[1], "!\n!\nend\n")
        p = subprocess.run([SHELL], env=self.node.env, capture_output=True, timeout=20,
                           input=b"configure terminal\n" + running.encode())
        self.assertEqual((p.returncode, p.stderr), (0, b""))
        self.assertEqual(self.cli("show running-config")[1], running)

    def test_written_configuration_survives_a_restart(self):
        self.config("storage capacity set interval 90 threshold 85", "no storage io set", "end", "write memory")
        self.node.stop()
        self.start()
        self.assertTrue(wait_for(lambda: "Storage IO Monitor:     Closed" in self.cli("show storage io set")[1]))
        self.assertEqual(self.cli("show storage capacity set")[1],
                         "Storage Capacity Monitor:     Opened\nStorage Capacity Interval:    90 Seconds\n"
                         "Storage Capacity Threshold:   85%\n\n")

    def test_debug_command_publishes_a_change_once(self):
        self.assertEqual(self.cli("debug stovig"), (0, "Set stovig debug to 3\n", ""))
        self.assertEqual(self.cli("debug stovig"), (0, "Set stovig debug to 3\n", ""))
        self.assertTrue(self.node.wait_log("SEND debug from mom with ret[0]"))
        self.assertEqual(self.node.log_text().count("SEND debug from mom with ret[0]"), 1)
        self.assertIn(" res_mom_dbg_handler: SEND debug from mom with ret[0]", self.node.log_text())
        self.assertEqual(self.cli("debug stovig 5")[1], "Set stovig debug to 5\n")
        self.assertEqual(self.cli("no debug stovig")[1], "Set stovig debug to 0\n")

    def test_oversized_and_binary_input_is_refused_and_the_daemon_serves_on(self):
        p = subprocess.run([SHELL], env=self.node.env, capture_output=True, timeout=20,
                           input=b"show storage " + b"x" * (1 << 20) + b"\nshow storage \x01\xfe io set\n")
        self.assertEqual(p.returncode, 1)
        self.assertIn(b"% Command line too long", p.stderr)
        self.assertIn(b"% Invalid characters in command line.", p.stderr)
        self.assertEqual(self.cli("show storage io set")[0], 0)
        self.assertIsNone(self.node.proc.poll())

    def test_show_storage_on_a_box_without_samples(self):
        # the identity is learnt within a devinfo period (5 s)
        self.assertTrue(wait_for(lambda: "[slot1 : box]" in self.cli("show storage io")[1], timeout=15))
        status, out, _ = self.cli("show storage io")
        self.assertEqual(status, 0)
        self.assertEqual(out, "===============================================\n[slot1 : box]\n\n"
                              "---------------------------------------------------------------\n"
                              " Storage  I/O is not ready, please wait and try again.\n\n\n")


if __name__ == "__main__":
    unittest.main()
