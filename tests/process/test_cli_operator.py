"""qn-stovig-cli as operators use it, against the small program on the
command-line service: scripts with comments and exit, Ctrl-C at the prompt,
a daemon that restarts or drops the session, idle sessions."""

import os
import socket
import subprocess
import threading
import time
import unittest

from cli_helpers import PtyShell, SampleServer
from cli_session import RawSession
from stovig_proc import TempDir, wait_for
from stovig_tools import SHELL

LOST = "% Connection to qn-stovig lost.\n"


class Scripts(unittest.TestCase):
    def setUp(self):
        self.tmp = TempDir(prefix="scli-op-")
        self.server = SampleServer(self.tmp.path).start()

    def tearDown(self):
        self.server.stop()
        self.tmp.cleanup()

    def test_exit_and_quit_end_a_script_in_every_form(self):
        self.assertEqual(self.server.cli("show sample", "exit", "show sample"),
                         (0, "Sample interval:    30\nSample debugging:   off\n", ""))
        status, out, _ = self.server.cli("show bogus", "quit", "show sample")
        self.assertEqual((status, out), (1, ""))
        self.assertEqual(self.server.cli("ex"), (0, "", ""))
        status, out, err = self.server.cli(stdin=b"show sample\nexit\nshow sample\n")
        self.assertEqual((status, out.count("Sample interval"), err), (0, 1, ""))
        # In configuration mode exit and quit go back to exec mode.
        status, out, err = self.server.cli("configure terminal", "exit", "show sample", "configure terminal",
                                           "quit", "show sample")
        self.assertEqual((status, out.count("Sample interval"), err), (0, 2, ""))

    def test_pasted_block_with_comment_lines_applies(self):
        block = (b"configure terminal\n"
                 b"!\n"
                 b"! storage settings of rack 4\n"
                 b"sample set interval 70\n"
                 b"   ! indented comment\n"
                 b"!\n"
                 b"end\n")
        self.assertEqual(self.server.cli(stdin=block), (0, "Set sample interval 70 seconds.\n", ""))
        self.assertIn("Sample interval:    70", self.server.cli("show sample")[1])
        self.assertEqual(self.server.cli("! a comment on its own"), (0, "", ""))

    def test_running_config_pastes_back(self):
        self.server.cli("configure terminal", "sample set interval 80")
        running = self.server.cli("show running-config")[1]
        self.assertEqual(running, "!\nsample set interval 80\n!\nend\n")
        self.server.cli("configure terminal", "default sample set")
        status, _, err = self.server.cli(stdin=b"configure terminal\n" + running.encode() + b"show sample\n")
        self.assertEqual((status, err), (0, ""))
        self.assertIn("Sample interval:    80", self.server.cli("show sample")[1])

    def test_do_runs_exec_commands_in_configuration_mode(self):
        status, out, err = self.server.cli("configure terminal", "sample set interval 45", "do show sample",
                                           "do sh run")
        self.assertEqual((status, err), (0, ""))
        self.assertEqual(out, "Set sample interval 45 seconds.\nSample interval:    45\nSample debugging:   off\n"
                              "!\nsample set interval 45\n!\nend\n")
        status, _, err = self.server.cli("configure terminal", "do")
        self.assertEqual((status, err), (1, "% Incomplete command.\n"))

    def test_help_and_completion_know_the_prefix_words_and_do(self):
        s = RawSession(self.server.sock)
        try:
            self.assertEqual(s.run("configure terminal")[1], "config")
            s.send("d", verb="complete")
            self.assertEqual(s.reply(), (0, "config", "do\ndefault\n"))
            s.send("de", verb="complete")
            self.assertEqual(s.reply(), (0, "config", "default\n"))
            s.send("do ", verb="help")
            words = [l.split()[0] for l in s.reply()[2].splitlines()]
            self.assertEqual(words, ["show", "debug", "undebug", "write"])
            s.send("do sh", verb="complete")
            self.assertEqual(s.reply(), (0, "config", "show\n"))
            s.send("def sample ", verb="help")
            self.assertEqual([l.split()[0] for l in s.reply()[2].splitlines()], ["set"])
        finally:
            s.close()

    def test_default_abbreviated_and_long_numbers(self):
        self.server.cli("configure terminal", "sample set interval 45")
        self.assertEqual(self.server.cli("configure terminal", "def sample set")[0], 0)
        self.assertIn("Sample interval:    30", self.server.cli("show sample")[1])
        status, _, err = self.server.cli("configure terminal", "sample set interval 99999999999999999999")
        self.assertEqual(status, 1)
        self.assertEqual(err, "sample set interval 99999999999999999999\n" + " " * 20 + "^\n"
                              "% Invalid input detected at '^' marker: number out of range <10-3600>.\n")


class LostConnection(unittest.TestCase):
    """Every way the connection can end gives status 2 and a message, never a
    death by SIGPIPE."""

    def setUp(self):
        self.tmp = TempDir(prefix="scli-lost-")

    def tearDown(self):
        self.tmp.cleanup()

    def test_a_peer_that_stops_reading_200_of_200(self):
        # The peer shuts its reading side after accepting: the shell's write
        # then fails with EPIPE, every time (the SIGPIPE case).
        path = os.path.join(self.tmp.path, "fake.sock")
        listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        listener.bind(path)
        listener.listen(4)
        listener.settimeout(20)
        config = os.path.join(self.tmp.path, "cli.ini")
        with open(config, "w") as f:
            f.write("[cli]\nsocket = %s\n" % path)
        env = dict(os.environ, STOVIG_CONFIG=config)
        outcomes = {}
        try:
            for _ in range(200):
                shell = subprocess.Popen([SHELL], env=env, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                         stderr=subprocess.PIPE)
                conn, _ = listener.accept()
                conn.shutdown(socket.SHUT_RD)
                out, err = shell.communicate(b"show storage io\n", timeout=20)
                conn.close()
                key = (shell.returncode, err.decode(errors="replace"))
                outcomes[key] = outcomes.get(key, 0) + 1
        finally:
            listener.close()
        self.assertEqual(outcomes, {(2, LOST): 200})

    def test_all_sessions_taken_200_of_200(self):
        server = SampleServer(self.tmp.path).start()
        held = []
        try:
            for _ in range(16):
                held.append(RawSession(server.sock))
                self.assertEqual(held[-1].run("show sample")[0], 0)
            outcomes = {}
            for _ in range(200):
                key = server.cli("show sample")
                outcomes[key] = outcomes.get(key, 0) + 1
            self.assertEqual(outcomes, {(2, "", "% Too many sessions: 16 of 16 open, try again later.\n"): 200})
        finally:
            for s in held:
                s.close()
            server.stop()

    def test_daemon_gone_while_reading_standard_input(self):
        server = SampleServer(self.tmp.path).start()
        shell = subprocess.Popen([SHELL], env=server.env, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                 stderr=subprocess.PIPE)
        try:
            shell.stdin.write(b"show sample\n")
            shell.stdin.flush()
            self.assertEqual(shell.stdout.readline(), b"Sample interval:    30\n")
            server.stop()
            out, err = shell.communicate(b"show sample\nshow sample\n", timeout=20)
        finally:
            if shell.poll() is None:
                shell.kill()
                shell.wait()
        self.assertEqual((shell.returncode, err), (2, LOST.encode()))

    def test_daemon_gone_in_interactive_shell_without_restart(self):
        server = SampleServer(self.tmp.path).start()
        shell = PtyShell(server.env)
        try:
            self.assertTrue(shell.read_until(b"stovig# "))
            server.stop()
            shell.type(b"show sample\r")
            self.assertEqual(shell.wait(), 2, shell.text())
            self.assertIn(LOST.strip(), shell.text())
            self.assertIn("cannot reach qn-stovig", shell.text())
        finally:
            shell.close()
            server.stop()


class Interactive(unittest.TestCase):
    def setUp(self):
        self.tmp = TempDir(prefix="scli-pty-")
        self.server = SampleServer(self.tmp.path).start()
        self.shell = PtyShell(self.server.env)
        self.assertTrue(self.shell.read_until(b"stovig# "), self.shell.text())

    def tearDown(self):
        self.shell.close()
        self.server.stop()
        self.tmp.cleanup()

    def test_ctrl_c_clears_the_line(self):
        sh = self.shell
        sh.type(b"configure terminal\r")
        self.assertTrue(sh.read_until(b"stovig(config)# "))
        mark = sh.mark()
        sh.type(b"sample set interval 99\x03")
        self.assertTrue(sh.read_until(b"^C\r\nstovig(config)# ", start=mark), sh.text())
        self.assertIn(b"sample set interval 99", sh.screen[mark:])
        # Also with the cursor inside the line.
        mark = sh.mark()
        sh.type(b"sample set interval 98\x01\x03")
        self.assertTrue(sh.read_until(b"^C\r\nstovig(config)# ", start=mark), sh.text())
        mark = sh.mark()
        sh.type(b"do show sample\r")
        self.assertTrue(sh.read_until(b"Sample interval:    30", start=mark), sh.text())
        sh.type(b"end\rexit\r")
        self.assertEqual(sh.wait(), 0, sh.text())
        self.assertNotIn("Set sample interval", sh.text())

    def test_reconnects_once_after_a_daemon_restart(self):
        sh = self.shell
        sh.type(b"configure terminal\r")
        self.assertTrue(sh.read_until(b"stovig(config)# "))
        self.server.stop()
        self.server.start()
        mark = sh.mark()
        sh.type(b"sample set interval 55\r")
        self.assertTrue(sh.read_until(b"Set sample interval 55 seconds.", start=mark), sh.text())
        screen = sh.screen[mark:].decode(errors="replace")
        self.assertIn(LOST.strip(), screen)
        self.assertIn("% Reconnected to qn-stovig.", screen)
        self.assertTrue(sh.read_until(b"stovig(config)# ", start=mark))
        mark = sh.mark()
        sh.type(b"end\rshow sample\r")
        self.assertTrue(sh.read_until(b"Sample interval:    55", start=mark), sh.text())
        sh.type(b"exit\r")
        self.assertEqual(sh.wait(), 0, sh.text())


class ScriptedService:
    """A command socket served by the test itself, speaking the wire protocol:
    it records every request per connection and answers from `answers`
    (request line -> (status, mode, text)); a request it has no answer for is
    left waiting, as a daemon busy with a long command would."""

    def __init__(self, tmpdir, answers):
        self.run_dir = os.path.join(tmpdir, "stovig")
        os.makedirs(self.run_dir, mode=0o700, exist_ok=True)
        self.env = dict(os.environ, TMPDIR=tmpdir)
        self.env.pop("STOVIG_CONFIG", None)
        self.answers = answers
        self.connections = []  # the request lines of each connection, in order
        self.lock = threading.Lock()
        self.listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.listener.bind(os.path.join(self.run_dir, "cli.sock"))
        self.listener.listen(4)
        self.listener.settimeout(0.2)
        self.stopping = False
        self.thread = threading.Thread(target=self._serve, daemon=True)
        self.thread.start()

    def _serve(self):
        while not self.stopping:
            try:
                conn, _ = self.listener.accept()
            except socket.timeout:
                continue
            threading.Thread(target=self._session, args=(conn,), daemon=True).start()

    def _session(self, conn):
        with self.lock:
            requests = []
            self.connections.append(requests)
        buf = b""
        conn.settimeout(30)
        try:
            while True:
                chunk = conn.recv(4096)
                if not chunk:
                    break
                buf += chunk
                while b"\n" in buf:
                    line, buf = buf.split(b"\n", 1)
                    text = line.decode()
                    with self.lock:
                        requests.append(text)
                    if text in self.answers:
                        status, mode, reply = self.answers[text]
                        body = reply.encode()
                        conn.sendall(b"%d %s %d\n" % (status, mode.encode(), len(body)) + body)
        except OSError:
            pass
        finally:
            conn.close()

    def requests(self):
        with self.lock:
            return [list(r) for r in self.connections]

    def stop(self):
        self.stopping = True
        self.thread.join(timeout=5)
        self.listener.close()


class InterruptedReply(unittest.TestCase):
    """Ctrl-C while a reply is awaited gives up the session; the next line
    comes back through a new one, in the mode the operator was in."""

    def setUp(self):
        self.tmp = TempDir(prefix="scli-int-")
        self.service = ScriptedService(self.tmp.path, {
            "exec configure terminal": (0, "config", ""),
            "exec sample set interval 40": (0, "config", "Set sample interval 40 seconds.\n"),
            "exec end": (0, "exec", ""),
            "exec exit": (0, "closed", ""),
        })
        self.shell = PtyShell(self.service.env)

    def tearDown(self):
        self.shell.close()
        self.service.stop()
        self.tmp.cleanup()

    def test_ctrl_c_during_a_reply_then_the_next_line_runs_in_configuration_mode(self):
        sh = self.shell
        self.assertTrue(sh.read_until(b"stovig# "), sh.text())
        sh.type(b"configure terminal\r")
        self.assertTrue(sh.read_until(b"stovig(config)# "), sh.text())
        sh.type(b"do show slowly\r")
        # Sent: the shell now waits for the reply, its terminal back in the
        # mode where Ctrl-C is a signal.
        self.assertTrue(wait_for(lambda: self.service.requests()[-1][-1:] == ["exec do show slowly"]),
                        self.service.requests())
        mark = sh.mark()
        sh.type(b"\x03")
        self.assertTrue(sh.read_until(b"% Interrupted.", start=mark), sh.text())
        self.assertTrue(sh.read_until(b"stovig(config)# ", start=mark), sh.text())
        mark = sh.mark()
        sh.type(b"sample set interval 40\r")
        self.assertTrue(sh.read_until(b"Set sample interval 40 seconds.", start=mark), sh.text())
        self.assertTrue(sh.read_until(b"stovig(config)# ", start=mark), sh.text())
        self.assertEqual(self.service.requests(), [
            ["exec configure terminal", "exec do show slowly"],
            ["exec configure terminal", "exec sample set interval 40"],
        ])
        self.assertIn("% Reconnected to qn-stovig.", sh.screen[mark:].decode(errors="replace"))
        sh.type(b"end\rexit\r")
        self.assertEqual(sh.wait(), 0, sh.text())

    def test_ctrl_c_during_a_reply_in_exec_mode_stays_in_exec_mode(self):
        sh = self.shell
        self.assertTrue(sh.read_until(b"stovig# "), sh.text())
        sh.type(b"show slowly\r")
        self.assertTrue(wait_for(lambda: self.service.requests()[-1:] == [["exec show slowly"]]),
                        self.service.requests())
        mark = sh.mark()
        sh.type(b"\x03")
        self.assertTrue(sh.read_until(b"% Interrupted.", start=mark), sh.text())
        mark = sh.mark()
        sh.type(b"exit\r")
        self.assertEqual(sh.wait(), 0, sh.text())
        self.assertIn("% Reconnected to qn-stovig.", sh.screen[mark:].decode(errors="replace"))
        self.assertEqual(self.service.requests(), [["exec show slowly"], ["exec exit"]])


# A session idle this long is closed; the busy session sends a command every
# BUSY_EVERY seconds, far inside it even on a loaded machine, and the idle one
# is looked at once IDLE_WAIT has passed.
IDLE_TIMEOUT = 3
BUSY_EVERY = 0.3
IDLE_WAIT = IDLE_TIMEOUT + 1.5
IDLE_CLOSED = "% Session closed: no command for 3 seconds.\n"


class IdleSessions(unittest.TestCase):
    def setUp(self):
        self.tmp = TempDir(prefix="scli-idle-")
        self.server = SampleServer(self.tmp.path, config="[cli]\nidle_timeout = %d\n" % IDLE_TIMEOUT).start()

    def tearDown(self):
        self.server.stop()
        self.tmp.cleanup()

    def test_idle_session_is_closed_and_a_busy_one_is_not(self):
        idle = RawSession(self.server.sock, timeout=10)
        busy = RawSession(self.server.sock, timeout=10)
        self.assertEqual(idle.run("show sample")[0], 0)
        t0 = time.monotonic()
        longest = 0.0
        while time.monotonic() - t0 < IDLE_WAIT:
            sent = time.monotonic()
            self.assertEqual(busy.run("show sample")[0], 0)
            time.sleep(BUSY_EVERY)
            longest = max(longest, time.monotonic() - sent)
        print("\nbusy session: longest time between commands %.0f ms (idle timeout %d s)"
              % (longest * 1000, IDLE_TIMEOUT))
        self.assertEqual(idle.reply(), (2, "exec", IDLE_CLOSED))
        self.assertTrue(idle.at_end())
        self.assertEqual(busy.run("show sample")[0], 0)
        idle.close()
        busy.close()

    def test_interactive_shell_says_so_and_reconnects(self):
        shell = PtyShell(self.server.env)
        try:
            self.assertTrue(shell.read_until(b"stovig# "))
            time.sleep(IDLE_WAIT)
            mark = shell.mark()
            shell.type(b"show sample\r")
            self.assertTrue(shell.read_until(b"Sample interval:    30", start=mark), shell.text())
            screen = shell.screen[mark:].decode(errors="replace")
            self.assertIn(IDLE_CLOSED.strip(), screen)
            self.assertIn("% Reconnected to qn-stovig.", screen)
        finally:
            shell.close()

    def test_script_after_the_session_was_closed_exits_2(self):
        shell = subprocess.Popen([SHELL], env=self.server.env, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                 stderr=subprocess.PIPE)
        time.sleep(IDLE_WAIT)
        out, err = shell.communicate(b"show sample\n", timeout=20)
        self.assertEqual((shell.returncode, out, err), (2, b"", IDLE_CLOSED.encode()))


if __name__ == "__main__":
    unittest.main()
