"""Helpers for the operator-shell tests: the small program on the
command-line service (cli_test_server) and qn-stovig-cli driven on a pseudo
terminal."""

import os
import pty
import select
import signal
import subprocess
import time

from stovig_proc import BIN_DIR
from stovig_tools import SHELL, cli

SERVER = os.path.join(BIN_DIR, "tests", "process", "helpers", "cli_test_server")


class SampleServer:
    """cli_test_server with its run directory under `tmpdir`, optionally with
    a config file (INI text) and run through `wrap` (a command prefix such as
    unshare)."""

    def __init__(self, tmpdir, config=None, wrap=None):
        self.tmpdir = tmpdir
        self.run_dir = os.path.join(tmpdir, "stovig")
        os.makedirs(self.run_dir, mode=0o700, exist_ok=True)
        self.sock = os.path.join(self.run_dir, "cli.sock")
        self.env = dict(os.environ, TMPDIR=tmpdir)
        self.env.pop("STOVIG_CONFIG", None)
        if config is not None:
            path = os.path.join(tmpdir, "cli.ini")
            with open(path, "w") as f:
                f.write(config)
            self.env["STOVIG_CONFIG"] = path
        self.wrap = wrap or []
        self.proc = None

    def start(self):
        self.proc = subprocess.Popen(self.wrap + [SERVER], env=self.env, stdout=subprocess.PIPE,
                                     stderr=subprocess.PIPE, start_new_session=True)
        line = self.proc.stdout.readline()
        if line != b"ready\n":
            self.stop()
            raise AssertionError("cli_test_server did not start: %r %r" % (line, self.stderr_text()))
        return self

    def stderr_text(self):
        return self.proc.stderr.read().decode(errors="replace") if self.proc and self.proc.poll() is not None else ""

    def stop(self):
        """Kills the server; what it wrote on standard error."""
        if self.proc is None:
            return ""
        if self.proc.poll() is None:
            try:
                os.killpg(self.proc.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        self.proc.wait(timeout=10)
        err = self.proc.stderr.read().decode(errors="replace")
        self.proc.stdout.close()
        self.proc.stderr.close()
        self.proc = None
        return err

    def cli(self, *commands, stdin=None, env=None):
        return cli(env or self.env, *commands, stdin=stdin, timeout=30, errors="replace")


class PtyShell:
    """qn-stovig-cli at a prompt on a pseudo terminal."""

    def __init__(self, env):
        self.pid, self.fd = pty.fork()
        if self.pid == 0:
            try:
                os.execve(SHELL, [SHELL], env)
            finally:
                os._exit(127)
        self.screen = b""
        self.status = None

    def type(self, data):
        os.write(self.fd, data)

    def read_until(self, text, timeout=10.0, start=0):
        """Reads the terminal until `text` shows after offset `start`."""
        deadline = time.monotonic() + timeout
        while text not in self.screen[start:] and time.monotonic() < deadline:
            r, _, _ = select.select([self.fd], [], [], 0.1)
            if r:
                try:
                    data = os.read(self.fd, 4096)
                except OSError:
                    break
                if not data:
                    break
                self.screen += data
        return text in self.screen[start:]

    def mark(self):
        return len(self.screen)

    def wait(self, timeout=10.0):
        """The exit status, once the shell has ended (None if it does not)."""
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            self.read_until(b"\0", timeout=0.2)
            pid, status = os.waitpid(self.pid, os.WNOHANG)
            if pid:
                self.status = os.waitstatus_to_exitcode(status)
                self.pid = 0
                return self.status
        return None

    def text(self):
        return self.screen.decode(errors="replace")

    def close(self):
        if self.pid:
            try:
                os.kill(self.pid, signal.SIGKILL)
                os.waitpid(self.pid, 0)
            except (ProcessLookupError, ChildProcessError):
                pass
            self.pid = 0
        os.close(self.fd)
