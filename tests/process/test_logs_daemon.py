"""Where the real daemon's log lines go: operator event lines in their own
event log (and a copy in the system log), only errors and warnings in the
debug log at the default routing even with 2000 processes and many
short-lived ones, debug lines back with [log] level = debug, and an event log
that keeps its lines while the debug log rotates.

The daemon runs as a box on the fixture tree of box_fixture (filling its
/data tmpfs crosses the capacity threshold).  The fixture's /proc lists the host's real processes, kept in step
by a thread of the test, so that every I/O tick queries them through the real
taskstats interface.  I/O ticks are counted with inotify: each one opens the
fixture's /proc/diskstats once."""

import collections
import ctypes
import os
import shutil
import struct
import subprocess
import threading
import unittest

from box_fixture import box_node, start_box, unavailable
from stovig_proc import TempDir, read_text, wait_for

SLEEPERS = 2000
HIGH = "slot1 High partition flash usage: "
NORMAL = "slot1 Partition flash usage returned to normal: "



def size_between_rotations(path):
    """A log file's size while the daemon keeps rotating it: a name caught
    between the two renames of one rotation holds nothing yet (0)."""
    try:
        return os.path.getsize(path)
    except FileNotFoundError:
        return 0

class Inotify:
    """Counts inotify events per watched path (and name inside a directory)."""
    IN_OPEN = 0x20
    IN_MOVED_TO = 0x80

    def __init__(self):
        self.libc = ctypes.CDLL(None, use_errno=True)
        self.fd = self.libc.inotify_init1(os.O_NONBLOCK | os.O_CLOEXEC)
        if self.fd < 0:
            raise OSError(ctypes.get_errno(), "inotify_init1")
        self.paths = {}
        self.counts = collections.Counter()

    def watch(self, path, mask):
        wd = self.libc.inotify_add_watch(self.fd, path.encode(), mask)
        if wd < 0:
            raise OSError(ctypes.get_errno(), "inotify_add_watch " + path)
        self.paths[wd] = path

    def count(self, path):
        while True:
            try:
                buf = os.read(self.fd, 65536)
            except BlockingIOError:
                break
            off = 0
            while off < len(buf):
                wd, _, _, length = struct.unpack_from("iIII", buf, off)
                name = buf[off + 16:off + 16 + length].rstrip(b"\0").decode()
                where = self.paths.get(wd, "?")
                self.counts[os.path.join(where, name) if name else where] += 1
                off += 16 + length
        return self.counts[path]

    def close(self):
        os.close(self.fd)


class ProcMirror(threading.Thread):
    """Keeps one empty directory in the fixture's /proc per live process of
    the host, so that the daemon's process enumeration sees them all."""

    def __init__(self, proc_dir):
        super().__init__(daemon=True)
        self.proc_dir = proc_dir
        self.stop_ev = threading.Event()
        self.listed = set()
        self.step()

    @staticmethod
    def live():
        return {name for name in os.listdir("/proc") if name.isdigit()}

    def step(self):
        now = self.live()
        for pid in now - self.listed:
            os.makedirs(os.path.join(self.proc_dir, pid), exist_ok=True)
        for pid in self.listed - now:
            shutil.rmtree(os.path.join(self.proc_dir, pid), ignore_errors=True)
        self.listed = now

    def run(self):
        while not self.stop_ev.wait(0.05):
            self.step()

    def stop(self):
        self.stop_ev.set()
        self.join(timeout=10)


def log_bytes(run_dir, stem="stovig"):
    """Bytes in the debug log and its rotated files."""
    total = 0
    for name in os.listdir(run_dir):
        if name.startswith(stem + ".") and name.endswith(".log"):
            total += os.path.getsize(os.path.join(run_dir, name))
    return total


class LogsDaemon(unittest.TestCase):
    def setUp(self):
        why = unavailable()
        if why or shutil.which("nsenter") is None:
            self.skipTest(why or "needs nsenter")
        self.tmp = TempDir(prefix="slogs-")
        self.root = os.path.join(self.tmp.path, "root")
        self.ino = Inotify()
        self.mirror = None
        self.load = []
        self.node = None

    def tearDown(self):
        if not hasattr(self, "tmp"):
            return
        if self.node:
            self.node.stop()
        for p in self.load:
            try:
                os.killpg(p.pid, 9)
            except ProcessLookupError:
                pass
            p.wait(timeout=30)
        if self.mirror:
            self.mirror.stop()
        self.ino.close()
        self.tmp.cleanup()

    # Set-up pieces.
    def start_daemon(self, log_config=""):
        config = "[log]\nsyslog_file = @SYSLOG@\n" + log_config + "[loop]\nsecond_ms = 50\n"
        self.node = box_node(self.tmp.path, config)
        self.ino.watch(self.root + "/proc/diskstats", Inotify.IN_OPEN)
        start_box(self.node, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.assertTrue(wait_for(lambda: self.ticks() >= 2, timeout=30), "no I/O tick came")

    def start_processes(self, sleepers):
        """`sleepers` idle processes, then a loop of short-lived ones, all
        listed in the fixture's /proc."""
        if sleepers:
            p = subprocess.Popen(["sh", "-c", 'i=0; while [ $i -lt %d ]; do sleep 3600 & i=$((i+1)); done; '
                                              'exec sleep 3600' % sleepers],
                                 stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, start_new_session=True)
            self.load.append(p)
            children = "/proc/%d/task/%d/children" % (p.pid, p.pid)
            self.assertTrue(wait_for(lambda: len(read_text(children).split()) >= sleepers, timeout=120),
                            "the sleepers did not start")
        churn = subprocess.Popen(["sh", "-c", "while :; do /bin/true & /bin/true & /bin/true; sleep 0.02; done"],
                                 stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, start_new_session=True)
        self.load.append(churn)
        self.mirror = ProcMirror(self.root + "/proc")
        self.mirror.start()

    def ticks(self):
        return self.ino.count(self.root + "/proc/diskstats")

    def wait_ticks(self, n, timeout=60):
        target = self.ticks() + n
        self.assertTrue(wait_for(lambda: self.ticks() >= target, timeout=timeout), "I/O ticks stopped")

    def ns(self, *cmd):
        p = subprocess.run(["nsenter", "-t", str(self.node.proc.pid), "-m", "--"] + list(cmd), capture_output=True,
                           text=True, timeout=60)
        self.assertEqual(p.returncode, 0, p.stderr)

    def cross_capacity_threshold(self):
        """Fills /data past the 80 % threshold and empties it again; returns
        the event lines of the warning and of the recovery."""
        self.ns("dd", "if=/dev/zero", "of=" + self.root + "/data/fill", "bs=4096", "count=900", "status=none")
        self.assertTrue(wait_for(lambda: any(HIGH in l for l in self.node.event_lines()), timeout=60),
                        self.node.event_lines())
        self.ns("rm", self.root + "/data/fill")
        self.assertTrue(wait_for(lambda: any(NORMAL in l for l in self.node.event_lines()), timeout=60),
                        self.node.event_lines())
        return read_text(self.node.events_log).splitlines()

    def assert_event_lines(self, lines):
        self.assertEqual(len(lines), 2, lines)
        self.assertRegex(lines[0], r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} EVENT mom/res_mom_part\.cpp:\d+ "
                                   r"res_part_vol_warning_task: slot1 High partition flash usage: 8\d\.\d\d%, "
                                   r"the capacity threshold is 80\.00%\.$")
        self.assertRegex(lines[1], r" EVENT mom/res_mom_part\.cpp:\d+ res_part_vol_warning_task: "
                                   r"slot1 Partition flash usage returned to normal: 0\.\d\d%, "
                                   r"the capacity threshold is 80\.00%\.$")
        # The system log has each of them once, at warning priority.
        syslog = self.node.syslog_text()
        self.assertEqual(syslog.count("%STOVIG-4-EVENT: mom/res_mom_part.cpp:"), 2, syslog[-2000:])
        self.assertNotIn(" EVENT ", self.node.log_text())

    # The tests.
    def test_default_routing_keeps_the_debug_log_small_at_2000_processes(self):
        self.start_processes(SLEEPERS)
        self.start_daemon()
        self.wait_ticks(3)
        before, ticks_before = log_bytes(self.node.run_dir), self.ticks()
        self.wait_ticks(10)
        grown, ticks = log_bytes(self.node.run_dir) - before, self.ticks() - ticks_before
        per_tick = grown / ticks
        print("default routing, %d processes listed: debug log grew %d bytes over %d I/O ticks (%.0f bytes a tick)"
              % (len(self.mirror.listed), grown, ticks, per_tick))
        self.assertGreaterEqual(len(self.mirror.listed), SLEEPERS)
        self.assertLessEqual(per_tick, 4096)

        lines = self.cross_capacity_threshold()
        self.assert_event_lines(lines)
        text = self.node.log_text()
        self.assertNotIn(" DEBUG ", text)
        self.assertNotIn("get_xxxid_info", text)
        self.assertNotIn("fatal reply error", text)
        self.assertIsNone(self.node.proc.poll())

    def test_level_debug_brings_the_debug_lines_back(self):
        self.start_processes(0)
        self.start_daemon("level = debug\n")
        self.wait_ticks(3)
        before, ticks_before = log_bytes(self.node.run_dir), self.ticks()
        self.wait_ticks(4)
        # Debug lines are written at least once a second, not line by line.
        self.assertTrue(wait_for(lambda: "res_mon_io_timer_func add timer with ret[0]." in self.node.log_text(),
                                 timeout=10))
        text = self.node.log_text()
        self.assertRegex(text, r" DEBUG mon/res_mon_io_top_info\.cpp:\d+ my_sort_cb: get a\[\d+\] and b\[\d+\] "
                               r"sort result\[-?\d+\]\n")
        self.assertRegex(text, r" DEBUG main\.cpp:\d+ main: process begin\n")
        grown, ticks = log_bytes(self.node.run_dir) - before, self.ticks() - ticks_before
        print("level = debug, %d processes listed: about %.0f bytes a tick" % (len(self.mirror.listed),
                                                                               grown / ticks))
        self.assertNotIn("get_xxxid_info", text)

    def test_event_log_keeps_its_lines_while_the_debug_log_rotates(self):
        self.start_processes(0)
        self.start_daemon("level = debug\nmax_size = 4096\nmax_files = 2\n")
        self.ino.watch(self.node.run_dir, Inotify.IN_MOVED_TO)
        rotated = os.path.join(self.node.run_dir, "stovig.1.log")
        lines = self.cross_capacity_threshold()
        at_events = self.ino.count(rotated)
        self.assertTrue(wait_for(lambda: self.ino.count(rotated) >= at_events + 20, timeout=60),
                        "the debug log rotated only %d times" % self.ino.count(rotated))
        print("the debug log rotated %d times; the event log holds %d lines" % (self.ino.count(rotated),
                                                                               len(lines)))
        # The debug log has rotated its start-up and the crossing away...
        names = ("stovig.log", "stovig.1.log", "stovig.2.log")
        debug = "".join(read_text(os.path.join(self.node.run_dir, n)) for n in names)
        self.assertNotIn("process begin", debug)
        self.assertFalse(os.path.exists(os.path.join(self.node.run_dir, "stovig.3.log")))
        for n in names:
            self.assertLessEqual(size_between_rotations(os.path.join(self.node.run_dir, n)), 4096)
        # ... and the event log still holds both lines.
        self.assertEqual(read_text(self.node.events_log).splitlines(), lines)
        self.assert_event_lines(lines)


if __name__ == "__main__":
    unittest.main()
