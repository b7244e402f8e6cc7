"""Per-process write rates of the I/O monitor against iotop-c on a real
writer: dd writing what a paced producer feeds it (256 KiB every 100 ms,
about 2560 KiB/s) with direct I/O.  Both sample the same process over the
same seconds through taskstats; their mean rates must agree, and agree
with the pace."""

import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "helpers_mon"))
from mon_driver import Driver, FLASH_CAPS, fields  # noqa: E402

PRODUCER = r"""
import sys, time
block = b"\0" * (256 * 1024)
start = time.monotonic()
i = 0
while True:
    sys.stdout.buffer.write(block)
    sys.stdout.flush()
    i += 1
    delay = start + i * 0.1 - time.monotonic()
    if delay > 0:
        time.sleep(delay)
"""
PACE_KIB = 2560.0
INTERVAL = 2
TICKS = 4


@unittest.skipUnless(shutil.which("iotop-c"), "iotop-c is not installed")
class IotopComparison(unittest.TestCase):
    def setUp(self):
        self.work = tempfile.mkdtemp(prefix="smon-iotop-")
        cfg = os.path.join(self.work, "cfg.ini")
        with open(cfg, "w") as f:
            f.write(FLASH_CAPS)
        self.env = dict(os.environ, STOVIG_CONFIG=cfg, TMPDIR=self.work)
        self.env.pop("STOVIG_ROOT", None)
        self.procs = []
        self.driver = None

    def tearDown(self):
        rc = self.driver.close() if self.driver else 0
        for p in self.procs:
            if p.poll() is None:
                try:
                    os.killpg(p.pid, signal.SIGKILL)
                except ProcessLookupError:
                    pass
            p.wait(timeout=10)
            for stream in (p.stdin, p.stdout, p.stderr):
                if stream:
                    stream.close()
        shutil.rmtree(self.work, ignore_errors=True)
        self.assertEqual(rc, 0, "".join(self.driver.err) if self.driver else "")

    def start_writer(self):
        producer = subprocess.Popen([sys.executable, "-c", PRODUCER], stdout=subprocess.PIPE,
                                    start_new_session=True)
        self.procs.append(producer)
        dd = subprocess.Popen(["dd", "of=" + os.path.join(self.work, "out"), "bs=64K", "iflag=fullblock",
                               "oflag=direct", "status=none"], stdin=producer.stdout, start_new_session=True)
        self.procs.append(dd)
        return dd

    def test_writer_rate_matches_iotop(self):
        dd = self.start_writer()
        self.driver = Driver(self.env)
        self.assertEqual(self.driver.ready, ["ready nl=0"], "taskstats set-up failed")
        time.sleep(0.5)
        iotop = subprocess.Popen(["iotop-c", "-b", "-k", "-d", str(INTERVAL), "-n", str(TICKS), "-p", str(dd.pid)],
                                 stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                                 start_new_session=True)
        self.procs.append(iotop)
        ours = []
        start = time.monotonic()
        for i in range(TICKS):
            delay = start + i * INTERVAL - time.monotonic()
            if delay > 0:
                time.sleep(delay)
            self.assertEqual(self.driver.cmd("io"), ["io 0"])
            reply = self.driver.cmd("pid %d" % dd.pid)
            self.assertEqual(len(reply), 1, "dd not in the sample: %r" % reply)
            plain, named = fields(reply[0])
            self.assertEqual(named["cmd"], "dd")
            self.assertEqual(named["name"], "dd")
            ours.append(float(named["write"]) / 1024.0)
        out, err = iotop.communicate(timeout=30)
        theirs = []
        for line in out.splitlines():
            words = line.split()
            if words and words[0] == str(dd.pid):
                # TID PRIO USER DISK-READ unit DISK-WRITE unit ...
                theirs.append(float(words[5]))
        self.assertEqual(len(theirs), TICKS, "iotop-c printed:\n" + out + err)
        # The first sample of both has nothing to compare with.
        self.assertEqual(ours[0], 0.0)
        mine = sum(ours[1:]) / len(ours[1:])
        other = sum(theirs[1:]) / len(theirs[1:])
        print("dd write rate: monitor %s KiB/s (mean %.1f), iotop-c %s KiB/s (mean %.1f), pace %.0f KiB/s"
              % (["%.1f" % v for v in ours], mine, ["%.1f" % v for v in theirs], other, PACE_KIB))
        self.assertAlmostEqual(mine, other, delta=0.15 * other)
        self.assertAlmostEqual(mine, PACE_KIB, delta=0.15 * PACE_KIB)
        self.assertAlmostEqual(other, PACE_KIB, delta=0.15 * PACE_KIB)

    def test_kernel_thread_and_own_names(self):
        self.driver = Driver(self.env)
        self.assertEqual(self.driver.cmd("io"), ["io 0"])
        reply = self.driver.cmd("pid 2")
        self.assertEqual(len(reply), 1)
        _, named = fields(reply[0])
        self.assertEqual(named["cmd"], "[kthreadd]")
        self.assertEqual(named["name"], "kthreadd")
        reply = self.driver.cmd("pid %d" % self.driver.proc.pid)
        _, named = fields(reply[0])
        self.assertTrue(named["cmd"].endswith("mon_driver"), named["cmd"])
        # The top five are listed in order of total bytes since start.
        top = self.driver.cmd("top 5")
        self.assertEqual(len(top), 5)
        totals = []
        for line in top:
            _, named = fields(line)
            totals.append(int(named["rbytes"]) + int(named["wbytes"]))
        if max(totals) < 2 ** 31:
            self.assertEqual(totals, sorted(totals, reverse=True))
        else:
            # The comparison keeps 32 bits of the difference, so totals of
            # 2 GiB or more may order differently; each neighbour pair
            # still compares as not smaller under that rule.
            for a, b in zip(totals, totals[1:]):
                diff = (b - a) & 0xFFFFFFFF
                self.assertTrue(diff == 0 or diff >= 2 ** 31, (a, b))


if __name__ == "__main__":
    unittest.main()
