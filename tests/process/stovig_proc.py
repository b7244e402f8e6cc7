"""Helpers for process-level tests: run the real binaries in their own run
directories and wait for what they write."""

import os
import shutil
import signal
import subprocess
import tempfile
import time

BIN_DIR = os.environ.get("STOVIG_BIN_DIR", os.path.join(os.path.dirname(__file__), "..", "..", "build"))
DAEMON = os.path.join(BIN_DIR, "src", "qn-stovig")


def wait_for(predicate, timeout=10.0, interval=0.05):
    """Polls predicate() until it returns a true value or timeout seconds pass."""
    deadline = time.monotonic() + timeout
    while True:
        value = predicate()
        if value:
            return value
        if time.monotonic() > deadline:
            return value
        time.sleep(interval)


def read_bytes(path):
    try:
        with open(path, "rb") as f:
            return f.read()
    except OSError:
        return None


def read_text(path):
    try:
        with open(path, "r", errors="replace") as f:
            return f.read()
    except OSError:
        return ""


class Node:
    """One daemon with its own TMPDIR, optional config file and fixture root."""

    def __init__(self, base, name="node", config=None, root=None, env=None):
        self.dir = os.path.join(base, name)
        os.makedirs(self.dir, exist_ok=True)
        self.tmpdir = os.path.join(self.dir, "tmp")
        os.makedirs(self.tmpdir, exist_ok=True)
        self.run_dir = os.path.join(self.tmpdir, "stovig")
        self.log = os.path.join(self.run_dir, "stovig.log")
        self.events_log = os.path.join(self.run_dir, "stovig-events.log")
        self.syslog = os.path.join(self.dir, "syslog.log")
        self.env = dict(os.environ)
        self.env.pop("NOTIFY_SOCKET", None)
        self.env["TMPDIR"] = self.tmpdir
        self.config_path = None
        if config is not None:
            self.config_path = os.path.join(self.dir, "stovig.ini")
            with open(self.config_path, "w") as f:
                f.write(config.replace("@SYSLOG@", self.syslog))
            self.env["STOVIG_CONFIG"] = self.config_path
        # The daemon probes and writes files on the watched mount points; a
        # test never lets it near the host's own: without a fixture tree it
        # gets an empty one.
        if root is None:
            root = os.path.join(self.dir, "root")
            os.makedirs(root, exist_ok=True)
        self.root = root
        self.env["STOVIG_ROOT"] = root
        if env:
            self.env.update(env)
        self.proc = None

    def start(self):
        self.proc = subprocess.Popen([DAEMON], env=self.env, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                     start_new_session=True)
        return self.proc

    def run_to_exit(self, timeout=20):
        """Starts the daemon and waits for it to exit: (status, stdout, stderr)."""
        p = subprocess.run([DAEMON], env=self.env, capture_output=True, timeout=timeout)
        return p.returncode, p.stdout.decode(errors="replace"), p.stderr.decode(errors="replace")

    def log_text(self):
        return read_text(self.log)

    def event_lines(self):
        """The operator event lines written so far, from the event log and
        from the debug log (lines at level EVENT), each once, in file order."""
        seen, lines = set(), []
        for path in (self.events_log, self.log):
            for line in read_text(path).splitlines():
                if " EVENT " in line and line not in seen:
                    seen.add(line)
                    lines.append(line)
        return lines

    def syslog_text(self):
        return read_text(self.syslog)

    def wait_log(self, text, timeout=10.0):
        return wait_for(lambda: text in self.log_text(), timeout)

    def stop(self):
        if self.proc and self.proc.poll() is None:
            try:
                os.killpg(self.proc.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
            self.proc.wait(timeout=10)
        if self.proc:
            for stream in (self.proc.stdout, self.proc.stderr):
                if stream:
                    stream.close()


class TempDir:
    """A temporary directory removed at the end of the test."""

    def __init__(self, prefix="stovig-test-"):
        self.path = tempfile.mkdtemp(prefix=prefix)

    def cleanup(self):
        shutil.rmtree(self.path, ignore_errors=True)
