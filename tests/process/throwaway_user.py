"""An unprivileged user made for a test and removed after it, and running
commands as that user."""

import os
import pwd
import shutil
import subprocess


class ThrowawayUser:
    """useradd'ed system user without a home; usable only when running as
    root (reason() says why not otherwise)."""

    def __init__(self, stem="stvatk"):
        self.name = "%s%d" % (stem, os.getpid() % 1000000)
        self.uid = None
        self.gid = None

    @staticmethod
    def reason():
        """Why no user can be made here, or None."""
        if os.geteuid() != 0:
            return "needs root: the test creates an unprivileged user and runs the daemon as root"
        if not shutil.which("useradd") or not shutil.which("userdel"):
            return "useradd/userdel are not installed"
        return None

    def create(self):
        subprocess.run(["useradd", "--system", "--no-create-home", "--user-group", "--shell", "/usr/sbin/nologin",
                        self.name], check=True, capture_output=True, timeout=60)
        pw = pwd.getpwnam(self.name)
        self.uid, self.gid = pw.pw_uid, pw.pw_gid
        return self

    def remove(self):
        if self.uid is not None:
            subprocess.run(["userdel", self.name], capture_output=True, timeout=60)
            self.uid = None

    def run(self, cmd, **kw):
        """Runs cmd (a list) as the user; CompletedProcess, output captured."""
        kw.setdefault("capture_output", True)
        kw.setdefault("timeout", 60)
        return subprocess.run(cmd, user=self.uid, group=self.gid, extra_groups=[], **kw)

    def sh(self, script):
        """Runs a shell script as the user; raises when it fails."""
        p = self.run(["sh", "-ec", script])
        if p.returncode != 0:
            raise AssertionError("as %s: %s failed: %s" % (self.name, script, p.stderr.decode(errors="replace")))
        return p
