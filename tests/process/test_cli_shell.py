"""The command-line service and the operator shell qn-stovig-cli, driven
through a small program on the service (cli_test_server)."""

import os
import pty
import select
import socket
import stat
import subprocess
import time
import unittest

from stovig_proc import BIN_DIR, TempDir, wait_for, read_text
from stovig_tools import SHELL, cli

SERVER = os.path.join(BIN_DIR, "tests", "process", "helpers", "cli_test_server")


class ShellTest(unittest.TestCase):
    def setUp(self):
        self.tmp = TempDir()
        self.env = dict(os.environ, TMPDIR=self.tmp.path)
        self.env.pop("STOVIG_CONFIG", None)
        self.sock = os.path.join(self.tmp.path, "stovig", "cli.sock")
        os.makedirs(os.path.dirname(self.sock), mode=0o700)
        self.server = None
        self.start_server()

    def start_server(self):
        self.server = subprocess.Popen([SERVER], env=self.env, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.assertEqual(self.server.stdout.readline(), b"ready\n")

    def stop_server(self):
        self.server.kill()
        self.server.wait(timeout=10)
        self.server.stdout.close()
        self.server.stderr.close()

    def tearDown(self):
        self.stop_server()
        self.tmp.cleanup()

    def cli(self, *commands, stdin=None):
        return cli(self.env, *commands, stdin=stdin)

    def raw(self):
        s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        s.settimeout(10)
        s.connect(self.sock)
        return s

    def raw_reply(self, s):
        data = b""
        while b"\n" not in data:
            chunk = s.recv(4096)
            if not chunk:
                return None, None, data
            data += chunk
        head, rest = data.split(b"\n", 1)
        status, mode, length = head.decode().split()
        while len(rest) < int(length):
            rest += s.recv(4096)
        return int(status), mode, rest.decode(errors="replace")

    def test_show_command_output_and_status(self):
        status, out, err = self.cli("show sample")
        self.assertEqual(status, 0, err)
        self.assertEqual(out, "Sample interval:    30\nSample debugging:   off\n")

    def test_commands_run_in_order_and_configure_terminal_enters_config_mode(self):
        status, out, err = self.cli("configure terminal", "sample set interval 20", "end", "show sample")
        self.assertEqual(status, 0, err)
        self.assertEqual(out, "Set sample interval 20 seconds.\nSample interval:    20\nSample debugging:   off\n")

    def test_config_command_outside_config_mode_is_refused(self):
        status, _, err = self.cli("sample set interval 20")
        self.assertEqual(status, 1)
        self.assertEqual(err, "sample set interval 20\n^\n% Invalid input detected at '^' marker.\n")

    def test_refusals(self):
        status, _, err = self.cli("configure terminal", "sample set")
        self.assertEqual(status, 1)
        self.assertEqual(err, "% Incomplete command.\n")
        status, _, err = self.cli("configure terminal", "sample set interval 9")
        self.assertEqual(status, 1)
        self.assertEqual(err, "sample set interval 9\n                    ^\n"
                              "% Invalid input detected at '^' marker: number out of range <10-3600>.\n")
        status, _, err = self.cli("show nothing")
        self.assertEqual(status, 1)
        self.assertIn("     ^\n% Invalid input detected at '^' marker.\n", err)

    def test_refused_command_does_not_stop_the_later_ones(self):
        status, out, _ = self.cli("show bogus", "show sample")
        self.assertEqual(status, 1)
        self.assertIn("Sample interval:", out)

    def test_abbreviations(self):
        status, out, err = self.cli("conf t", "sam s int 45", "end", "sh sam")
        self.assertEqual(status, 0, err)
        self.assertIn("Sample interval:    45", out)

    def test_running_config_no_default_and_write_memory_survive_restart(self):
        self.assertEqual(self.cli("configure terminal", "no sample set")[0], 0)
        self.assertEqual(self.cli("show running-config")[1], "!\nno sample set\n!\nend\n")
        self.assertEqual(self.cli("configure terminal", "default sample set")[0], 0)
        self.assertEqual(self.cli("show running-config")[1], "!\n!\nend\n")
        self.assertEqual(self.cli("configure terminal", "sample set interval 120", "end", "write memory"),
                         (0, "Set sample interval 120 seconds.\n[OK]\n", ""))
        startup = os.path.join(self.tmp.path, "stovig", "startup-config")
        self.assertEqual(read_text(startup), "sample set interval 120\n")
        self.stop_server()
        self.start_server()
        self.assertTrue(wait_for(lambda: "Sample interval:    120" in self.cli("show sample")[1], timeout=5))

    def test_undebug_all_calls_the_debug_switch(self):
        self.assertEqual(self.cli("debug sample")[1], "Set sample debug on\n")
        self.assertIn("Sample debugging:   on", self.cli("show sample")[1])
        status, out, _ = self.cli("undebug all")
        self.assertEqual((status, out), (0, "All possible debugging has been turned off\n"))
        self.assertIn("Sample debugging:   off", self.cli("show sample")[1])
        self.assertEqual(self.cli("no debug sample")[1], "Set sample debug off\n")

    def test_commands_from_standard_input(self):
        status, out, _ = self.cli(stdin=b"configure terminal\nsample set interval 50\nend\nshow sample\n")
        self.assertEqual(status, 0)
        self.assertIn("Sample interval:    50", out)

    def test_socket_is_owner_only(self):
        mode = stat.S_IMODE(os.stat(self.sock).st_mode)
        self.assertEqual(mode, 0o600)

    def test_no_daemon_is_exit_status_2(self):
        env = dict(self.env, TMPDIR=os.path.join(self.tmp.path, "elsewhere"))
        p = subprocess.run([SHELL, "-c", "show sample"], env=env, capture_output=True, timeout=10)
        self.assertEqual(p.returncode, 2)
        self.assertIn(b"cannot reach qn-stovig", p.stderr)

    def test_megabyte_line_is_refused_and_service_goes_on(self):
        s = self.raw()
        try:
            s.sendall(b"exec " + b"x" * (1 << 20) + b"\n")
        except (BrokenPipeError, ConnectionResetError):
            pass
        status, _, text = self.raw_reply(s)
        s.close()
        self.assertEqual(status, 1)
        self.assertIn("% Command line too long", text)
        self.assertEqual(self.cli("show sample")[0], 0)
        status, _, err = self.cli(stdin=b"show " + b"y" * (1 << 20) + b"\n")
        self.assertEqual(status, 1)
        self.assertIn("too long", err)

    def test_binary_bytes_are_refused(self):
        s = self.raw()
        s.sendall(b"exec show \x01\x02\xff sample\n")
        status, _, text = self.raw_reply(s)
        self.assertEqual((status, text), (1, "% Invalid characters in command line.\n"))
        s.sendall(b"exec show sample\n")
        self.assertEqual(self.raw_reply(s)[0], 0)
        s.close()
        status, _, err = self.cli("show sample\nshow sample")
        self.assertEqual(status, 1)

    def test_connection_flood_is_refused_then_served(self):
        held = []
        try:
            for _ in range(16):
                held.append(self.raw())
            extra = self.raw()
            status, _, text = self.raw_reply(extra)
            extra.close()
            self.assertEqual((status, text), (2, "% Too many sessions: 16 of 16 open, try again later.\n"))
            p = subprocess.run([SHELL, "-c", "show sample"], env=self.env, capture_output=True, timeout=20)
            self.assertEqual((p.returncode, p.stdout), (2, b""))
            self.assertEqual(p.stderr, b"% Too many sessions: 16 of 16 open, try again later.\n")
        finally:
            for s in held:
                s.close()
        self.assertTrue(wait_for(lambda: self.cli("show sample")[0] == 0, timeout=5))

    def test_interactive_help_and_completion(self):
        pid, fd = pty.fork()
        if pid == 0:
            os.execve(SHELL, [SHELL], self.env)
        screen = b""

        def read_until(text, timeout=10):
            nonlocal screen
            deadline = time.monotonic() + timeout
            while text not in screen and time.monotonic() < deadline:
                r, _, _ = select.select([fd], [], [], 0.2)
                if r:
                    try:
                        screen += os.read(fd, 4096)
                    except OSError:
                        break
            return text in screen

        try:
            self.assertTrue(read_until(b"stovig# "))
            os.write(fd, b"show ?")
            self.assertTrue(read_until(b"Show the sample setting"))
            self.assertIn(b"running-config", screen)
            os.write(fd, b"\x15")  # kill the line
            os.write(fd, b"sh\tsa\t\r")
            self.assertTrue(read_until(b"Sample interval:"))
            os.write(fd, b"configure terminal\r")
            self.assertTrue(read_until(b"stovig(config)# "))
            os.write(fd, b"sample set interval 5\r")
            self.assertTrue(read_until(b"% Invalid input detected"))
            os.write(fd, b"end\rexit\r")
            read_until(b"\0", timeout=3)  # until the shell closes the terminal
            _, status = os.waitpid(pid, 0)
            self.assertEqual(os.waitstatus_to_exitcode(status), 0, screen.decode(errors="replace")[-3000:])
            pid = 0
        finally:
            if pid:
                try:
                    os.kill(pid, 9)
                    os.waitpid(pid, 0)
                except ProcessLookupError:
                    pass
            os.close(fd)


if __name__ == "__main__":
    unittest.main()
