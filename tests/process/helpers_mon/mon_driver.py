"""Runs the mon_driver helper and talks to it one command at a time."""

import os
import queue
import subprocess
import threading

BIN_DIR = os.environ.get("STOVIG_BIN_DIR", os.path.join(os.path.dirname(__file__), "..", "..", "..", "build"))
DRIVER = os.path.join(BIN_DIR, "tests", "process", "helpers_mon", "mon_driver")

FLASH_CAPS = ("[cap]\nCAP_FLASH_IDNAME = TESTFLASH\nCAP_FLASH_ERASETIMES = 3000\n"
              "CAP_FLASH_PRODUCTLIFE = 5\nCAP_FLASH_GCLEVEL = 2\nCAP_FLASH_WARNLEVEL = 80\n")


class Driver:
    """One mon_driver process; `prefix` runs it under another command
    (unshare).  Replies are the lines before the "." line."""

    def __init__(self, env, prefix=(), timeout=30.0):
        self.timeout = timeout
        self.proc = subprocess.Popen(list(prefix) + [DRIVER], env=env, stdin=subprocess.PIPE,
                                     stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                                     start_new_session=True)
        self.lines = queue.Queue()
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()
        self.err = []
        self.err_reader = threading.Thread(target=self._read_err, daemon=True)
        self.err_reader.start()
        self.ready = self._reply()

    def _read(self):
        for line in self.proc.stdout:
            self.lines.put(line.rstrip("\n"))
        self.lines.put(None)

    def _read_err(self):
        for line in self.proc.stderr:
            self.err.append(line)

    def _reply(self):
        out = []
        while True:
            try:
                line = self.lines.get(timeout=self.timeout)
            except queue.Empty:
                raise AssertionError("mon_driver did not answer; stderr: " + "".join(self.err))
            if line is None:
                raise AssertionError("mon_driver ended; stderr: " + "".join(self.err))
            if line == ".":
                return out
            out.append(line)

    def cmd(self, text):
        self.proc.stdin.write(text + "\n")
        self.proc.stdin.flush()
        return self._reply()

    def close(self):
        if self.proc.poll() is None:
            try:
                self.proc.stdin.write("quit\n")
                self.proc.stdin.flush()
                self.proc.wait(timeout=10)
            except (OSError, subprocess.TimeoutExpired):
                self.proc.kill()
                self.proc.wait(timeout=10)
        for stream in (self.proc.stdin, self.proc.stdout, self.proc.stderr):
            try:
                stream.close()
            except OSError:
                pass
        return self.proc.returncode


def fields(line):
    """'name a=1 b=x' -> {'a': '1', 'b': 'x'} plus positional words."""
    words = line.split()
    named = {}
    plain = []
    for w in words:
        if "=" in w:
            k, v = w.split("=", 1)
            named[k] = v
        else:
            plain.append(w)
    return plain, named


def devices(driver):
    out = {}
    for line in driver.cmd("dev"):
        plain, named = fields(line)
        out[plain[1]] = named
    return out


def parts(driver):
    out = []
    for line in driver.cmd("part"):
        plain, named = fields(line)
        named["path"] = plain[2]
        named["name"] = plain[3]
        out.append(named)
    return out


def namespaces_available():
    """Whether a private mount namespace can be made here."""
    try:
        p = subprocess.run(["unshare", "-m", "--propagation", "private", "true"], capture_output=True,
                           timeout=20)
        return p.returncode == 0
    except (OSError, subprocess.TimeoutExpired):
        return False
