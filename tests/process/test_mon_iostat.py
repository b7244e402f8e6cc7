"""Disk I/O figures of the I/O monitor against iostat -x (sysstat) on the
same pairs of samples.

The monitor reads the samples from a fixture tree (STOVIG_ROOT).  iostat
reads the same counters from an alternative statistics directory (-f, the
sysfs "stat" format: the diskstats line without major, minor and name) and
the uptime from /proc/uptime, over which a FIFO is bind-mounted inside a
private mount namespace; a writer thread hands out the first sample on
iostat's first read and the second one after, so that its second report
covers exactly the pair.  iostat prints sizes in kB: the monitor's request
sizes and rates are in 512-byte sectors, so they are halved to compare."""

import ctypes
import os
import shutil
import subprocess
import sys
import tempfile
import threading
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "helpers_mon"))
from mon_driver import Driver, FLASH_CAPS, devices, namespaces_available  # noqa: E402

# (uptime seconds, 17 counters in diskstats order after the name)
PAIRS = [
    (("12345.67", "1000 100 80000 5000 2000 300 160000 9000 0 7000 14000 50 5 4096 200 30 60"),
     ("12347.67", "1600 250 131200 6800 2450 300 190000 13500 2 7850 16000 70 9 6144 260 45 90")),
    (("500.00", "10 0 80 40 5000 4000 720000 52000 1 1500 60000 0 0 0 0 100 300"),
     ("505.50", "12 0 96 40 9100 7900 1410000 99000 0 5500 90000 0 0 0 0 140 420")),
    (("86400.31", "123456 7890 9876543 456789 65432 1234 7654321 345678 3 234567 987654 11 1 88 7 999 1234"),
     ("86401.07", "123999 7999 9900001 456999 65999 1300 7700000 349999 5 234999 990000 12 1 96 8 1010 1250")),
]

DEV = "sdq"

# iostat column -> (monitor field, factor applied to the monitor's value)
COLUMNS = {
    "%util": ("util", 1.0),
    "r_await": ("r_await", 1.0),
    "w_await": ("w_await", 1.0),
    "d_await": ("d_await", 1.0),
    "f_await": ("f_await", 1.0),
    "rareq-sz": ("rareq", 0.5),
    "wareq-sz": ("wareq", 0.5),
    "dareq-sz": ("dareq", 0.5),
    "%rrqm": ("rrqm", 1.0),
    "%wrqm": ("wrqm", 1.0),
    "%drqm": ("drqm", 1.0),
    "rkB/s": ("rsec", 0.5),
    "wkB/s": ("wsec", 0.5),
    "dkB/s": ("dsec", 0.5),
}


IN_CLOSE_NOWRITE = 0x10


class CloseWatch:
    """Calls `action` once, when a reader first closes `path` (inotify)."""

    def __init__(self, path, action):
        self.libc = ctypes.CDLL(None, use_errno=True)
        self.fd = self.libc.inotify_init1(os.O_CLOEXEC)
        if self.fd < 0:
            raise OSError(ctypes.get_errno(), "inotify_init1")
        if self.libc.inotify_add_watch(self.fd, path.encode(), IN_CLOSE_NOWRITE) < 0:
            raise OSError(ctypes.get_errno(), "inotify_add_watch " + path)
        self.action = action
        self.fired = threading.Event()
        self.thread = threading.Thread(target=self._run, daemon=True)
        self.thread.start()

    def _run(self):
        try:
            os.read(self.fd, 4096)
        except OSError:
            return
        self.action()
        self.fired.set()

    def close(self):
        os.close(self.fd)


def rewrite(path, text):
    """Replaces a file's content in place (same inode, so a bind mount of it
    shows the new content)."""
    with open(path, "r+") as f:
        f.truncate(0)
        f.write(text)


def iostat_reports(first, second, work):
    """Runs iostat -x over the pair; returns its reports for DEV as dicts.

    iostat reads the uptime and then the device's stat file once in its
    first interval; when it closes the stat file, both files get the second
    sample, which it reads one second later."""
    alt = os.path.join(work, "alt")
    os.makedirs(os.path.join(alt, "block", DEV))
    stat = os.path.join(alt, "block", DEV, "stat")
    uptime = os.path.join(work, "uptime")
    with open(stat, "w") as f:
        f.write(first[1] + "\n")
    with open(uptime, "w") as f:
        f.write(first[0] + " 1.00\n")

    def second_sample():
        rewrite(uptime, second[0] + " 1.00\n")
        rewrite(stat, second[1] + "\n")

    watch = CloseWatch(stat, second_sample)
    try:
        p = subprocess.run(["unshare", "-m", "--propagation", "private", "sh", "-c",
                            'mount --bind "$1" /proc/uptime && exec iostat -x -d -f "$2" 1 2',
                            "sh", uptime, alt],
                           capture_output=True, text=True, timeout=60, env=dict(os.environ, LC_ALL="C"))
    finally:
        watch.close()
    if p.returncode != 0:
        raise AssertionError("iostat failed: " + p.stderr)
    if not watch.fired.is_set():
        raise AssertionError("iostat never read the stat file")
    reports = []
    header = None
    for line in p.stdout.splitlines():
        words = line.split()
        if not words:
            continue
        if words[0].startswith("Device"):
            header = words
        elif words[0] == DEV and header:
            reports.append(dict(zip(header[1:], (float(w) for w in words[1:]))))
    return reports


@unittest.skipUnless(shutil.which("iostat"), "iostat (sysstat) is not installed")
class IostatComparison(unittest.TestCase):
    def setUp(self):
        if not namespaces_available():
            self.skipTest("mount namespaces are not available here (unshare -m failed)")
        self.work = tempfile.mkdtemp(prefix="smon-iostat-")
        self.root = os.path.join(self.work, "root")
        os.makedirs(os.path.join(self.root, "proc"))
        os.makedirs(os.path.join(self.root, "sys", "block", DEV))
        cfg = os.path.join(self.work, "cfg.ini")
        with open(cfg, "w") as f:
            f.write(FLASH_CAPS)
        self.env = dict(os.environ, STOVIG_ROOT=self.root, STOVIG_CONFIG=cfg, TMPDIR=self.work)
        self.driver = None

    def tearDown(self):
        if self.driver:
            self.driver.close()
        shutil.rmtree(self.work, ignore_errors=True)

    def put_sample(self, sample):
        up, counters = sample
        with open(os.path.join(self.root, "proc", "uptime"), "w") as f:
            f.write(up + " 1.00\n")
        with open(os.path.join(self.root, "proc", "diskstats"), "w") as f:
            f.write("   8       0 %s %s\n" % (DEV, counters))

    def monitor_figures(self, first, second):
        self.driver = Driver(self.env)
        self.put_sample(first)
        self.assertEqual(self.driver.cmd("io"), ["io 0"])
        since_boot = devices(self.driver)[DEV]
        self.put_sample(second)
        self.assertEqual(self.driver.cmd("io"), ["io 0"])
        pair = devices(self.driver)[DEV]
        self.assertEqual(self.driver.close(), 0, "".join(self.driver.err))
        self.driver = None
        return since_boot, pair

    def compare(self, ours, theirs, label):
        for column, (field, factor) in COLUMNS.items():
            self.assertIn(column, theirs, "iostat has no %s column" % column)
            mine = float(ours[field]) * factor
            # iostat rounds to two decimals
            self.assertAlmostEqual(mine, theirs[column], delta=0.0051,
                                   msg="%s %s: monitor %.6f, iostat %.2f" % (label, column, mine, theirs[column]))

    def test_pairs_match_iostat(self):
        for i, (first, second) in enumerate(PAIRS):
            with self.subTest(pair=i):
                since_boot, pair = self.monitor_figures(first, second)
                reports = iostat_reports(first, second, os.path.join(self.work, "io%d" % i))
                self.assertEqual(len(reports), 2, "iostat printed %r" % reports)
                # First report: averages since boot, like the monitor's first scan.
                self.compare(since_boot, reports[0], "pair %d since boot" % i)
                self.compare(pair, reports[1], "pair %d interval" % i)
                print("pair %d: util %.2f/%.2f r_await %.2f/%.2f w_await %.2f/%.2f rareq-sz %.2f/%.2f "
                      "wareq-sz %.2f/%.2f %%rrqm %.2f/%.2f %%wrqm %.2f/%.2f (monitor/iostat)"
                      % (i, float(pair["util"]), reports[1]["%util"], float(pair["r_await"]), reports[1]["r_await"],
                         float(pair["w_await"]), reports[1]["w_await"], float(pair["rareq"]) / 2,
                         reports[1]["rareq-sz"], float(pair["wareq"]) / 2, reports[1]["wareq-sz"],
                         float(pair["rrqm"]), reports[1]["%rrqm"], float(pair["wrqm"]), reports[1]["%wrqm"]))


if __name__ == "__main__":
    unittest.main()
