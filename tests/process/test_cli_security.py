"""The command line on a shared host: only root and the daemon's user are
served, the shell never talks to a socket another user could have planted,
a startup configuration someone else could have written is not replayed, and
write memory on a full file system keeps the saved configuration."""

import os
import pwd
import shutil
import socket
import stat
import subprocess
import unittest

from cli_helpers import SampleServer
from cli_session import RawSession
from stovig_proc import TempDir, read_text, wait_for
from stovig_tools import SHELL

MOUNT = shutil.which("mount", path="/usr/bin:/bin:/usr/sbin:/sbin")
# The other user runs the system's interpreter: the one running the tests
# may live where only root can read.
SYSTEM_PYTHON = shutil.which("python3", path="/usr/bin:/bin")

# A client of the command socket run as another user: prints what it got.
PEER_CLIENT = r"""
import socket, sys
s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
s.settimeout(10)
s.connect(sys.argv[1])
try:
    s.sendall(b"exec show sample\n")
except OSError:
    pass
data = b""
try:
    while True:
        chunk = s.recv(4096)
        if not chunk:
            break
        data += chunk
except OSError:
    pass
sys.stdout.write(data.decode())
"""

# A fake command socket served by another user: reports whether anybody
# connected and what they sent, once its standard input closes.
FAKE_SERVER = r"""
import os, select, socket, sys
os.makedirs(os.path.dirname(sys.argv[1]), mode=0o755, exist_ok=True)
s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
os.umask(0o077)
s.bind(sys.argv[1])
s.listen(4)
print("ready", flush=True)
got = []
while True:
    r, _, _ = select.select([s, sys.stdin], [], [], 30)
    if not r or sys.stdin in r:
        break
    c, _ = s.accept()
    c.settimeout(2)
    try:
        got.append(c.recv(4096))
        c.sendall(b"0 exec 12\nforged text\n")
    except OSError:
        pass
print("connections=%d %r" % (len(got), got), flush=True)
"""


def as_user(uid, gid):
    def drop():
        os.setgroups([])
        os.setgid(gid)
        os.setuid(uid)
    return drop


class ThrowawayUser(unittest.TestCase):
    """Tests that run a process as a user created for them (and removed)."""

    @classmethod
    def setUpClass(cls):
        cls.user = None
        if os.geteuid() != 0:
            raise unittest.SkipTest("needs root: creates a throwaway user with useradd to act as another local user")
        if shutil.which("useradd") is None or shutil.which("userdel") is None:
            raise unittest.SkipTest("needs useradd and userdel to create a throwaway user")
        if SYSTEM_PYTHON is None:
            raise unittest.SkipTest("needs /usr/bin/python3 for the other user's programs")
        name = "stovigt%d" % (os.getpid() % 1000000)
        p = subprocess.run(["useradd", "--system", "--no-create-home", "--shell", "/usr/sbin/nologin", name],
                           capture_output=True)
        if p.returncode != 0:
            raise unittest.SkipTest("useradd failed: %s" % p.stderr.decode().strip())
        cls.user = name
        entry = pwd.getpwnam(name)
        cls.uid, cls.gid = entry.pw_uid, entry.pw_gid

    @classmethod
    def tearDownClass(cls):
        if cls.user:
            subprocess.run(["userdel", cls.user], capture_output=True)

    def setUp(self):
        self.tmp = TempDir(prefix="scli-sec-")
        os.chmod(self.tmp.path, 0o755)  # the other user may walk to the socket

    def tearDown(self):
        self.tmp.cleanup()

    def test_peer_of_another_uid_is_refused(self):
        server = SampleServer(self.tmp.path).start()
        try:
            # Only the kernel's word on the peer stops it once the modes allow it in.
            os.chmod(server.run_dir, 0o755)
            os.chmod(server.sock, 0o666)
            p = subprocess.run([SYSTEM_PYTHON, "-c", PEER_CLIENT, server.sock], capture_output=True, timeout=30,
                               preexec_fn=as_user(self.uid, self.gid), cwd="/")
            text = "%% Permission denied: uid %d may not use this command line.\n" % self.uid
            self.assertEqual(p.stdout.decode(), "2 exec %d\n%s" % (len(text), text), p.stderr.decode())
            self.assertTrue(wait_for(lambda: "cli session of uid %d refused" % self.uid
                                     in read_text(os.path.join(server.run_dir, "sample.log"))))
            # Root is still served.
            os.chmod(server.sock, 0o600)
            self.assertEqual(server.cli("show sample")[0], 0)
        finally:
            server.stop()

    def test_user_refused_the_root_daemons_directory_is_told_about_sudo(self):
        server = SampleServer(self.tmp.path).start()
        try:
            p = subprocess.run([SHELL, "-c", "show sample"], env=server.env, capture_output=True, timeout=30,
                               preexec_fn=as_user(self.uid, self.gid), cwd="/")
            self.assertEqual((p.returncode, p.stdout), (2, b""))
            self.assertEqual(p.stderr.decode(),
                             "%% cannot reach qn-stovig at %s: Permission denied; the daemon runs as root: run the "
                             "shell as root, e.g. sudo env TMPDIR=%s qn-stovig-cli\n" % (server.sock, self.tmp.path))
        finally:
            server.stop()

    def test_socket_planted_by_another_user_is_not_used(self):
        # The user made the run directory before the daemon ever started, in a
        # directory everybody may write (as /tmp), and serves a fake socket.
        public = os.path.join(self.tmp.path, "public")
        os.makedirs(public)
        os.chmod(public, 0o1777)
        fake_sock = os.path.join(public, "stovig", "cli.sock")
        fake = subprocess.Popen([SYSTEM_PYTHON, "-c", FAKE_SERVER, fake_sock], stdin=subprocess.PIPE,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                preexec_fn=as_user(self.uid, self.gid), cwd="/")
        try:
            self.assertEqual(fake.stdout.readline(), b"ready\n", fake.stderr.read() if fake.poll() else b"")
            env = dict(os.environ, TMPDIR=public)
            env.pop("STOVIG_CONFIG", None)
            p = subprocess.run([SHELL, "-c", "configure terminal", "-c", "storage io set interval 20"], env=env,
                               capture_output=True, timeout=30)
            self.assertEqual(p.returncode, 2)
            self.assertEqual(p.stdout, b"")
            self.assertEqual(p.stderr.decode(),
                             "%% refusing %s: its directory belongs to uid %d; it must belong to root or to uid 0 "
                             "and be writable by nobody else\n" % (fake_sock, self.uid))
            out, _ = fake.communicate(b"", timeout=30)
            self.assertEqual(out, b"connections=0 []\n")
        finally:
            if fake.poll() is None:
                fake.kill()
                fake.wait()


class SocketOwnership(unittest.TestCase):
    """The shell's checks on the socket, without another user: ownership is
    changed with chown (root only), modes with chmod."""

    def setUp(self):
        self.tmp = TempDir(prefix="scli-own-")
        self.server = SampleServer(self.tmp.path).start()

    def tearDown(self):
        self.server.stop()
        self.tmp.cleanup()

    def refused(self, reason):
        status, out, err = self.server.cli("show sample")
        self.assertEqual((status, out), (2, ""))
        self.assertIn("refusing %s: %s" % (self.server.sock, reason), err)

    def test_socket_owned_by_another_uid(self):
        if os.geteuid() != 0:
            self.skipTest("needs root to give the socket to another uid")
        os.chown(self.server.sock, 12345, -1)
        self.refused("the socket belongs to uid 12345")
        os.chown(self.server.sock, 0, -1)
        os.chown(self.server.run_dir, 12345, -1)
        self.refused("its directory belongs to uid 12345")
        os.chown(self.server.run_dir, 0, -1)
        self.assertEqual(self.server.cli("show sample")[0], 0)

    def test_socket_or_directory_writable_by_others(self):
        os.chmod(self.server.run_dir, 0o777)
        self.refused("its directory is writable by others")
        os.chmod(self.server.run_dir, 0o700)
        os.chmod(self.server.sock, 0o666)
        self.refused("the socket is writable by others")
        os.chmod(self.server.sock, 0o600)
        self.assertEqual(self.server.cli("show sample")[0], 0)

    def test_directory_that_is_a_symbolic_link(self):
        elsewhere = os.path.join(self.tmp.path, "elsewhere")
        os.makedirs(elsewhere, mode=0o700)
        os.symlink(self.server.run_dir, os.path.join(elsewhere, "stovig"))
        env = dict(self.server.env, TMPDIR=elsewhere)
        status, _, err = self.server.cli("show sample", env=env)
        self.assertEqual(status, 2)
        self.assertIn("its directory is not a directory (a symbolic link?)", err)


class StartupConfiguration(unittest.TestCase):
    def setUp(self):
        self.tmp = TempDir(prefix="scli-start-")
        self.server = None

    def tearDown(self):
        if self.server:
            self.server.stop()
        self.tmp.cleanup()

    def test_startup_configuration_others_could_write_is_not_replayed(self):
        run_dir = os.path.join(self.tmp.path, "stovig")
        os.makedirs(run_dir, mode=0o700)
        startup = os.path.join(run_dir, "startup-config")
        with open(startup, "w") as f:
            f.write("sample set interval 99\n")
        os.chmod(startup, 0o666)
        self.server = SampleServer(self.tmp.path).start()
        self.assertIn("Sample interval:    30", self.server.cli("show sample")[1])
        self.assertIn("startup configuration not replayed: %s: writable by its group or by others" % startup,
                      self.server.stop())

    def test_startup_configuration_of_ours_is_replayed_skipping_comments(self):
        run_dir = os.path.join(self.tmp.path, "stovig")
        os.makedirs(run_dir, mode=0o700)
        with open(os.path.join(run_dir, "startup-config"), "w") as f:
            f.write("!\nsample set interval 99\n!\nend\n")
        self.server = SampleServer(self.tmp.path).start()
        self.assertTrue(wait_for(lambda: "Sample interval:    99" in self.server.cli("show sample")[1], timeout=5))


class WriteMemoryOnAFullDisk(unittest.TestCase):
    def setUp(self):
        if os.geteuid() != 0 or shutil.which("unshare") is None or MOUNT is None:
            self.skipTest("needs root, unshare and mount for a tiny tmpfs in a private mount namespace")
        probe = subprocess.run(["unshare", "-m", "true"], capture_output=True)
        if probe.returncode != 0:
            self.skipTest("mount namespaces unavailable: %s" % probe.stderr.decode().strip())
        self.tmp = TempDir(prefix="scli-full-")
        self.disk = os.path.join(self.tmp.path, "disk")
        os.makedirs(self.disk)
        self.startup = os.path.join(self.disk, "startup-config")
        script = '%s -t tmpfs -o size=16k,mode=0700 tmpfs "%s" && exec "$0"' % (MOUNT, self.disk)
        self.server = SampleServer(self.tmp.path, config="[cli]\nstartup_file = %s\n" % self.startup,
                                   wrap=["unshare", "-m", "--propagation", "private", "sh", "-c", script])
        self.server.start()

    def tearDown(self):
        if hasattr(self, "server"):
            self.server.stop()
            self.tmp.cleanup()

    def seen(self, name):
        """A file on the tmpfs, as the server sees it (its mount namespace)."""
        return "/proc/%d/root%s/%s" % (self.server.proc.pid, self.disk, name)

    def save(self, interval):
        return self.server.cli("configure terminal", "sample set interval %d" % interval, "end", "write memory")

    def test_refused_and_the_saved_configuration_stays(self):
        self.assertEqual(self.save(40), (0, "Set sample interval 40 seconds.\n[OK]\n", ""))
        self.assertEqual(self.save(50), (0, "Set sample interval 50 seconds.\n[OK]\n", ""))
        self.assertEqual(read_text(self.seen("startup-config")), "sample set interval 50\n")
        self.assertEqual(read_text(self.seen("startup-config.sav")), "sample set interval 40\n")
        self.assertEqual(stat.S_IMODE(os.stat(self.seen("startup-config")).st_mode), 0o600)

        with open(self.seen("filler"), "wb", buffering=0) as f:
            try:
                while True:
                    f.write(b"x" * 4096)
            except OSError:
                pass
        self.assertEqual(self.save(60), (1, "Set sample interval 60 seconds.\n",
                                         "%% Cannot write %s: No space left on device.\n" % self.startup))
        self.assertEqual(read_text(self.seen("startup-config")), "sample set interval 50\n")
        self.assertEqual(read_text(self.seen("startup-config.sav")), "sample set interval 40\n")
        self.assertFalse(os.path.exists(self.seen("startup-config.new")))

        os.unlink(self.seen("filler"))
        self.assertEqual(self.server.cli("write memory"), (0, "[OK]\n", ""))
        self.assertEqual(read_text(self.seen("startup-config")), "sample set interval 60\n")
        self.assertEqual(read_text(self.seen("startup-config.sav")), "sample set interval 50\n")


if __name__ == "__main__":
    unittest.main()
