"""Start-up of the real daemon: single instance, run directory, pid file,
watchdog notices, debug level, bad configuration."""

import os
import socket
import unittest

from stovig_proc import Node, TempDir, wait_for, read_bytes


class StartupTest(unittest.TestCase):
    def setUp(self):
        self.tmp = TempDir()
        self.nodes = []

    def tearDown(self):
        for n in self.nodes:
            n.stop()
        self.tmp.cleanup()

    def node(self, name="node", **kw):
        n = Node(self.tmp.path, name, **kw)
        self.nodes.append(n)
        return n

    def pid_file(self, n):
        return os.path.join(n.run_dir, ".stovig.pid")

    def wait_pid_file(self, n):
        path = self.pid_file(n)
        want = ("%d" % n.proc.pid).encode() + b"\0"
        got = wait_for(lambda: read_bytes(path) == want, timeout=10)
        self.assertTrue(got, "pid file %s never held %r" % (path, want))

    def test_pid_file_holds_decimal_pid_and_one_zero_byte(self):
        n = self.node()
        os.makedirs(n.run_dir)
        with open(self.pid_file(n), "wb") as f:
            f.write(b"99999999999 stale content that is longer")
        n.start()
        self.wait_pid_file(n)
        self.assertEqual(read_bytes(self.pid_file(n)), ("%d" % n.proc.pid).encode() + b"\0")

    def test_second_instance_refuses_and_leaves_the_pid_file(self):
        first = self.node()
        first.start()
        self.wait_pid_file(first)
        before = read_bytes(self.pid_file(first))
        second = Node(self.tmp.path, "node")  # same TMPDIR
        status, out, _ = second.run_to_exit()
        self.assertEqual(status, 255)
        self.assertEqual(out, "Has duplicate instance running.\n")
        self.assertEqual(read_bytes(self.pid_file(first)), before)
        self.assertIsNone(first.proc.poll(), "first instance must keep running")

    def test_tmpdir_parents_are_created(self):
        n = self.node()
        deep = os.path.join(self.tmp.path, "x", "y")
        n.env["TMPDIR"] = deep
        n.run_dir = os.path.join(deep, "stovig")
        n.start()
        self.wait_pid_file(n)
        self.assertTrue(os.path.isdir(os.path.join(deep, "stovig")))

    def test_default_tmpdir_is_tmp(self):
        path = "/tmp/stovig/.stovig.pid"
        n = self.node()
        del n.env["TMPDIR"]
        n.start()
        want = ("%d" % n.proc.pid).encode() + b"\0"
        ok = wait_for(lambda: read_bytes(path) == want, timeout=10)
        if not ok and n.proc.poll() == 255:
            self.skipTest("another qn-stovig holds /tmp/stovig/.stovig.pid on this machine")
        self.assertTrue(ok)

    def test_watchdog_and_ready_notices(self):
        sock_path = os.path.join(self.tmp.path, "notify.sock")
        sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        sock.bind(sock_path)
        sock.settimeout(10)
        try:
            n = self.node(config="[loop]\nsecond_ms = 20\n", env={"NOTIFY_SOCKET": sock_path})
            n.start()
            got = []
            while len([m for m in got if m == "WATCHDOG=1"]) < 3:
                got.append(sock.recv(4096).decode())
            self.assertIn("READY=1", got)
            first_feed = got.index("WATCHDOG=1")
            self.assertLess(first_feed, got.index("READY=1"), "the first feed comes during start-up")
            self.assertTrue(any(m.startswith("STATUS=watching thread") for m in got[:first_feed]))
        finally:
            sock.close()

    def test_unreachable_notify_socket_fails_start_up(self):
        n = self.node(env={"NOTIFY_SOCKET": os.path.join(self.tmp.path, "nobody-listens")})
        status, out, _ = n.run_to_exit()
        self.assertEqual(out, "Module stovig registers to HAM restart failed.")
        self.assertNotEqual(status, 0)

    def test_debug_level_file_shows_process_begin_in_syslog(self):
        root = os.path.join(self.tmp.path, "root")
        os.makedirs(os.path.join(root, "tmp", "qn-stovig"))
        with open(os.path.join(root, "tmp", "qn-stovig", "debug_level"), "w") as f:
            f.write("3\n")
        n = self.node(config="[log]\nsyslog_file = @SYSLOG@\nlevel = debug\n", root=root)
        n.start()
        self.assertTrue(wait_for(lambda: "process begin" in n.syslog_text()))
        self.assertRegex(n.syslog_text(), r"%STOVIG-7-DEBUG: \[<main>:<\d+>\] process begin")
        self.assertRegex(n.log_text(), r"DEBUG main\.cpp:\d+ main: process begin")

    def test_without_level_file_syslog_stays_silent_and_log_is_written(self):
        n = self.node(config="[log]\nsyslog_file = @SYSLOG@\nlevel = debug\n")
        n.start()
        self.assertTrue(n.wait_log("process begin"))
        self.assertIsNone(n.proc.poll())
        self.assertNotIn("process begin", n.syslog_text())

    def test_bad_config_value_is_reported_with_path_line_and_key(self):
        sock_path = os.path.join(self.tmp.path, "notify.sock")
        sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        sock.bind(sock_path)
        try:
            n = self.node(config="[log]\nmax_files = 3\n\n[loop]\nsecond_ms = soon\n",
                          env={"NOTIFY_SOCKET": sock_path})
            status, out, err = n.run_to_exit()
            notices = []
            sock.setblocking(False)
            while True:
                try:
                    notices.append(sock.recv(4096).decode())
                except BlockingIOError:
                    break
        finally:
            sock.close()
        # The reason is the last thing said; the status tells a service
        # manager not to restart (EX_CONFIG).
        self.assertEqual(err.strip().splitlines()[-1],
                         "%s:5: [loop] second_ms: not a number in range ('soon')" % n.config_path)
        self.assertEqual(out, "")
        self.assertEqual(status, 78)
        # Registered with HAM before the configuration was read, so withdrawn
        # before the exit: the stop is on purpose.
        self.assertTrue(any(m.startswith("STATUS=") for m in notices), notices)
        self.assertEqual(notices[-1], "STOPPING=1", notices)

    def test_unknown_key_and_malformed_line_are_reported(self):
        n = self.node(config="[node]\nslot = 3\n")
        _, out, err = n.run_to_exit()
        self.assertIn("%s:2: [node] slot: unknown key" % n.config_path, err)
        n2 = self.node("other", config="[log]\nthis line has no equals sign\n")
        status, _, err = n2.run_to_exit()
        self.assertIn("%s:2: malformed line" % n2.config_path, err)
        self.assertNotEqual(status, 0)

    def test_missing_config_file_is_reported(self):
        n = self.node()
        n.env["STOVIG_CONFIG"] = os.path.join(self.tmp.path, "absent.ini")
        status, out, err = n.run_to_exit()
        self.assertIn("absent.ini: cannot read config file", err)
        self.assertNotEqual(status, 0)

    def test_unwritable_log_destination_ends_start_up(self):
        n = self.node(config="[log]\nfile = %s/no/such/dir/\n" % self.tmp.path)
        status, out, err = n.run_to_exit()
        self.assertEqual(status, 256 - 70)
        self.assertIn("zlog category stovig", err)


if __name__ == "__main__":
    unittest.main()
