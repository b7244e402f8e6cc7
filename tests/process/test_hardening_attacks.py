"""A local unprivileged user (made for the test) tries to turn the root
daemon against the host: links, FIFOs and files planted in the run
directory before the daemon's first start, a run directory or parent of its
own, links planted as the probe file on a watched mount point, planted
debug-level files.  Every attempt is refused and no file outside the run
directory changes.  A node on the bus sends a disk name with a newline and
an escape sequence: the master's event line stays one line, escaped."""

import hashlib
import os
import shutil
import stat
import subprocess
import sys
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "helpers_mon"))
from stovig_proc import BIN_DIR, DAEMON, Node, TempDir, read_bytes, wait_for  # noqa: E402
from stovig_tools import SHELL  # noqa: E402
from throwaway_user import ThrowawayUser  # noqa: E402

RO_PASS = "res_mom_part_ro_timer_func add timer with ret[0]."
NOT_PROBED = "probe file %s/.test-readonly is a symbolic link or not a regular file, not probed."


def snapshot(top, skip=()):
    """Every entry under top (but the subtrees in skip): kind, mode, owner
    and, for files, a hash of the content, for links the target."""
    out = {}
    for dirpath, dirnames, filenames in os.walk(top):
        dirnames[:] = [d for d in dirnames if os.path.join(dirpath, d) not in skip]
        for name in dirnames + filenames:
            path = os.path.join(dirpath, name)
            if path in skip:
                continue
            st = os.lstat(path)
            entry = (stat.S_IFMT(st.st_mode), stat.S_IMODE(st.st_mode), st.st_uid)
            if stat.S_ISREG(st.st_mode):
                with open(path, "rb") as f:
                    entry += (hashlib.sha256(f.read()).hexdigest(),)
            elif stat.S_ISLNK(st.st_mode):
                entry += (os.readlink(path),)
            out[path] = entry
    return out


class Attacks(unittest.TestCase):
    """The daemon runs as root; the attacker is a throwaway user."""

    @classmethod
    def setUpClass(cls):
        why = ThrowawayUser.reason()
        if why:
            raise unittest.SkipTest(why)
        cls.user = ThrowawayUser().create()

    @classmethod
    def tearDownClass(cls):
        cls.user.remove()

    def setUp(self):
        self.tmp = TempDir(prefix="stovig-atk-")
        os.chmod(self.tmp.path, 0o755)
        self.nodes = []
        # Files of root's that the attacker would like to see changed.
        self.victims = os.path.join(self.tmp.path, "victims")
        os.makedirs(self.victims)
        for name, text in (("passwd", "root:x:0:0:root:/root:/bin/sh\n"), ("shadow", "root:*:19000:0:::::\n"),
                           ("emmc-target", "precious\n")):
            with open(os.path.join(self.victims, name), "w") as f:
                f.write(text)
        self.root = self.fixture_root()

    def tearDown(self):
        for n in self.nodes:
            n.stop()
        self.tmp.cleanup()

    def fixture_root(self):
        """A host tree for STOVIG_ROOT: /tmp and /mnt/usb0 writable by anyone
        (sticky), both listed as mounted."""
        root = os.path.join(self.tmp.path, "root")
        for d in ("proc", "sys/block", "data", "mnt/usb0", "tmp"):
            os.makedirs(os.path.join(root, d), exist_ok=True)
        for d in ("mnt/usb0", "tmp"):
            os.chmod(os.path.join(root, d), 0o1777)
        for rel, text in (("proc/uptime", "1000.00 10.00\n"), ("proc/diskstats", ""),
                          ("proc/mounts", "/dev/sdb1 /mnt/usb0 vfat rw 0 0\ntmpfs /tmp tmpfs rw 0 0\n")):
            with open(os.path.join(root, rel), "w") as f:
                f.write(text)
        return root

    def node(self, name="node", config="[log]\nsyslog_file = @SYSLOG@\nlevel = debug\n[loop]\nsecond_ms = 50\n"):
        n = Node(self.tmp.path, name, config=config, root=self.root)
        # TMPDIR is a directory like /tmp: anyone may create entries in it.
        os.chmod(n.tmpdir, 0o1777)
        self.nodes.append(n)
        return n

    def refused_start(self, n, reason):
        """Starts the daemon, which must refuse with its one line."""
        status, out, err = n.run_to_exit()
        self.assertEqual(status, 78, err)
        self.assertEqual(out, "")
        self.assertEqual(err, "qn-stovig: run directory %s/stovig/ %s; start-up refused.\n" % (n.tmpdir, reason))

    # The run directory (planted before the daemon's first start).

    def plant_run_dir(self, n):
        """Everything the attacker would like root to use in the run dir."""
        v = self.victims
        self.user.sh("cd '%s' && ln -s '%s/passwd' .stovig.pid && ln -s '%s/shadow' stovig.log && "
                     "mkfifo stovig-events.log && ln -s '%s/emmc-target' .emmc_csd && "
                     "ln -s '%s/created-by-root' .disk_lifetime && "
                     "printf 'no storage io set\\nno storage ro set\\n' > startup-config" % (n.run_dir, v, v, v, v))

    def test_run_dir_of_another_user_is_refused_with_one_line(self):
        n = self.node()
        self.user.sh("mkdir -m 0755 '%s'" % n.run_dir)
        self.plant_run_dir(n)
        before = snapshot(self.tmp.path, skip=(n.syslog,))
        self.refused_start(n, "is owned by uid %d, not by uid 0" % self.user.uid)
        self.assertEqual(snapshot(self.tmp.path, skip=(n.syslog,)), before)

    def test_world_writable_run_dir_is_refused(self):
        n = self.node()
        os.makedirs(n.run_dir)
        os.chmod(n.run_dir, 0o777)  # root's own, left open by an unlucky umask
        self.plant_run_dir(n)
        before = snapshot(self.tmp.path, skip=(n.syslog,))
        self.refused_start(n, "is writable by group or others (mode 0777)")
        self.assertEqual(snapshot(self.tmp.path, skip=(n.syslog,)), before)

    def test_run_dir_that_is_a_link_is_refused(self):
        n = self.node()
        self.user.sh("ln -s '%s' '%s'" % (self.victims, n.run_dir))
        before = snapshot(self.tmp.path, skip=(n.syslog,))
        self.refused_start(n, "is a symbolic link")
        self.assertEqual(snapshot(self.tmp.path, skip=(n.syslog,)), before)
        self.assertEqual(sorted(os.listdir(self.victims)), ["emmc-target", "passwd", "shadow"])

    def test_parent_of_another_user_is_refused_and_nothing_made_in_it(self):
        n = self.node()
        theirs = os.path.join(self.tmp.path, "theirs")
        os.makedirs(theirs)
        os.chown(theirs, self.user.uid, self.user.gid)
        n.env["TMPDIR"] = theirs
        before = snapshot(self.tmp.path, skip=(n.syslog,))
        status, out, err = n.run_to_exit()
        self.assertEqual(status, 78)
        self.assertEqual(out, "")
        self.assertEqual(err, "qn-stovig: run directory %s/stovig/ is not safe: parent %s is owned by uid %d; "
                              "start-up refused.\n" % (theirs, theirs, self.user.uid))
        self.assertEqual(snapshot(self.tmp.path, skip=(n.syslog,)), before)

    def test_clean_start_makes_a_run_dir_nobody_else_can_enter(self):
        n = self.node()
        before = snapshot(self.tmp.path, skip=(n.run_dir, n.syslog))
        n.start()
        pid_file = os.path.join(n.run_dir, ".stovig.pid")
        want = ("%d" % n.proc.pid).encode() + b"\0"
        self.assertTrue(wait_for(lambda: read_bytes(pid_file) == want, timeout=10), n.log_text())
        st = os.lstat(n.run_dir)
        self.assertTrue(stat.S_ISDIR(st.st_mode))
        self.assertEqual((st.st_uid, stat.S_IMODE(st.st_mode)), (0, 0o700))
        self.assertEqual(stat.S_IMODE(os.lstat(pid_file).st_mode), 0o700)
        self.assertNotEqual(self.user.run(["ls", n.run_dir]).returncode, 0)
        self.assertTrue(n.wait_log(RO_PASS, 15), n.log_text()[-2000:])
        self.assertIsNone(n.proc.poll())
        self.assertEqual(snapshot(self.tmp.path, skip=(n.run_dir, n.syslog)), self.without_probes(before))

    def without_probes(self, before):
        """The snapshot plus the probe files that the read-only pass makes."""
        after = dict(before)
        for rel in ("mnt/usb0", "tmp"):
            path = os.path.join(self.root, rel, ".test-readonly")
            st = os.lstat(path)
            after[path] = (stat.S_IFMT(st.st_mode), stat.S_IMODE(st.st_mode), 0,
                           hashlib.sha256(b"").hexdigest())
        return after

    def test_daemon_run_by_the_user_refuses_roots_run_dir_and_makes_its_own(self):
        n = self.node()
        os.makedirs(n.run_dir, mode=0o700)
        p = self.user.run([DAEMON], env=n.env, timeout=20)
        self.assertEqual(p.returncode, 78, p.stderr)
        self.assertEqual(p.stderr.decode(), "qn-stovig: run directory %s/stovig/ is owned by uid 0, not by uid %d; "
                                            "start-up refused.\n" % (n.tmpdir, self.user.uid))
        # A TMPDIR of its own: the run directory is the user's, private.
        mine = os.path.join(self.tmp.path, "user-tmp")
        os.makedirs(mine)
        os.chown(mine, self.user.uid, self.user.gid)
        env = dict(n.env, TMPDIR=mine)
        env.pop("STOVIG_CONFIG")
        proc = subprocess.Popen([DAEMON], env=env, user=self.user.uid, group=self.user.gid, extra_groups=[],
                                stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, start_new_session=True)
        try:
            pid_file = os.path.join(mine, "stovig", ".stovig.pid")
            want = ("%d" % proc.pid).encode() + b"\0"
            self.assertTrue(wait_for(lambda: read_bytes(pid_file) == want, timeout=10))
            st = os.lstat(os.path.join(mine, "stovig"))
            self.assertEqual((st.st_uid, stat.S_IMODE(st.st_mode)), (self.user.uid, 0o700))
        finally:
            os.killpg(proc.pid, 9)
            proc.wait(timeout=10)
            proc.stderr.close()

    # Watched mount points and debug-level files.

    def test_probe_file_link_on_a_watched_mount_is_not_followed(self):
        usb0 = os.path.join(self.root, "mnt", "usb0")
        tmp = os.path.join(self.root, "tmp")
        self.user.sh("ln -s '%s/created-by-root' '%s/.test-readonly' && ln -s '%s/passwd' '%s/.test-readonly'"
                     % (self.victims, usb0, self.victims, tmp))
        n = self.node()
        before = snapshot(self.tmp.path, skip=(n.run_dir, n.syslog))
        n.start()
        self.assertTrue(wait_for(lambda: n.log_text().count(RO_PASS) >= 3, timeout=30), n.log_text()[-3000:])
        self.assertIsNone(n.proc.poll())
        self.assertFalse(os.path.lexists(os.path.join(self.victims, "created-by-root")))
        self.assertEqual(snapshot(self.tmp.path, skip=(n.run_dir, n.syslog)), before)
        log = n.log_text()
        # Logged once each, not at every pass.
        self.assertEqual(log.count(NOT_PROBED % "/mnt/usb0"), 1, log[-3000:])
        self.assertEqual(log.count(NOT_PROBED % "/tmp"), 1)

    def start_with_level_file(self, plant):
        """Starts a daemon after `plant` made the level file; its syslog
        capture and debug log once start-up is over."""
        plant(os.path.join(self.root, "tmp", "qn-stovig"))
        n = self.node(config="[log]\nsyslog_file = @SYSLOG@\nlevel = debug\n")
        before = snapshot(self.tmp.path, skip=(n.run_dir, n.syslog))
        n.start()
        self.assertTrue(n.wait_log("process begin"), n.log_text()[-2000:])
        self.assertEqual(snapshot(self.tmp.path, skip=(n.run_dir, n.syslog)), before)
        return n

    def test_debug_level_file_of_another_user_is_ignored(self):
        n = self.start_with_level_file(
            lambda d: self.user.sh("mkdir -p '%s' && echo 5 > '%s/debug_level'" % (d, d)))
        self.assertNotIn("process begin", n.syslog_text())
        self.assertIn("ignore debug level file /tmp/qn-stovig/debug_level: not owned by root.", n.log_text())

    def test_world_writable_debug_level_file_is_ignored(self):
        def plant(d):
            os.makedirs(d)
            path = os.path.join(d, "debug_level")
            with open(path, "w") as f:
                f.write("5\n")
            os.chmod(path, 0o666)
        n = self.start_with_level_file(plant)
        self.assertNotIn("process begin", n.syslog_text())
        self.assertIn("ignore debug level file /tmp/qn-stovig/debug_level: writable by group or others.",
                      n.log_text())

    def test_debug_level_link_to_a_root_file_is_ignored(self):
        with open(os.path.join(self.victims, "level"), "w") as f:
            f.write("5\n")
        n = self.start_with_level_file(
            lambda d: self.user.sh("mkdir -p '%s' && ln -s '%s/level' '%s/debug_level'" % (d, self.victims, d)))
        self.assertNotIn("process begin", n.syslog_text())
        self.assertIn("ignore debug level file /tmp/qn-stovig/debug_level: it is a symbolic link.", n.log_text())

    def test_roots_own_debug_level_file_is_read(self):
        def plant(d):
            os.makedirs(d)
            with open(os.path.join(d, "debug_level"), "w") as f:
                f.write("3\n")
        n = self.start_with_level_file(plant)
        self.assertTrue(wait_for(lambda: "process begin" in n.syslog_text()), n.syslog_text())


IO_WRITER = os.path.join(BIN_DIR, "tests", "process", "helpers_hardening", "io_record_writer")


@unittest.skipUnless(shutil.which("redis-server"), "redis-server is not installed")
class HostileDiskName(unittest.TestCase):
    """A node's I/O record names its disk with a newline and escape
    sequences; the master's event line and show output carry them escaped."""

    def setUp(self):
        from bus_helpers import BusNode, QnBus, RedisServer, node_config, write_inventory
        self.tmp = TempDir(prefix="stovig-esc-")
        self.redis = RedisServer(self.tmp.path)
        self.redis.start()
        self.bus = QnBus(self.tmp.path, self.redis)
        self.master = BusNode(self.tmp.path, "cm", node_config(self.redis, 0, 1, 1, 2, 0, "CM"))
        self.master.start()
        self.assertTrue(self.master.wait_log("reconnect to MOM(12)"), self.master.log_text())
        self.bus.ok("inventory", write_inventory(self.tmp.path))
        self.assertTrue(self.master.wait_log("[0,5,0 uslot 3]"), self.master.log_text()[-3000:])
        self.assertTrue(self.master.wait_log("subscribe io success"), self.master.log_text()[-3000:])

    def tearDown(self):
        self.master.stop()
        self.redis.stop()
        self.tmp.cleanup()

    def test_event_line_is_one_line_with_visible_escapes(self):
        name = "sd\nslot9 High disk forged\x1b[2J"
        env = dict(os.environ, STOVIG_CONFIG=self.bus.config)
        p = subprocess.run([IO_WRITER, "0", "5", "0", name, "2"], env=env, capture_output=True, timeout=30)
        self.assertEqual(p.returncode, 0, p.stderr)
        want = ("slot3 High disk sd\\x0aslot9 High disk forged\\x1b[2J I/O read: 1.50 KBps I/O write: 2.25 KBps "
                "I/O usage: 97.00%.")
        m = self.master
        self.assertTrue(wait_for(lambda: any(want in line for line in m.event_lines()), timeout=20),
                        "\n".join(m.event_lines()) + m.log_text()[-2000:])
        lines = m.event_lines()
        self.assertEqual(len(lines), 1, lines)
        self.assertTrue(lines[0].endswith(" res_disk_io_warning_save_task: " + want), lines)
        for path in (m.log, m.events_log):
            raw = read_bytes(path) or b""
            self.assertNotIn(b"\x1b", raw)
            self.assertNotIn(b"\nslot9", raw)
        # The operator's terminal gets the name escaped too.
        out = subprocess.run([SHELL, "-c", "show storage io"], env=m.env, capture_output=True, timeout=20)
        self.assertEqual(out.returncode, 0, out.stderr)
        self.assertIn(b" sd\\x0aslot9 High disk forged\\x1b[2J", out.stdout)
        self.assertNotIn(b"\x1b", out.stdout)


if __name__ == "__main__":
    unittest.main()
