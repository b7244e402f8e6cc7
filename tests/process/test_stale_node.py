"""A line card whose daemon stops reporting, on a real redis-server: the
master writes one line three I/O intervals after the card's last I/O record
and one line when the card reports again; a card set offline and a closed
I/O monitor write none.  Timer seconds last 100 ms here."""

import os
import shutil
import signal
import sys
import tempfile
import time
import unittest
from datetime import datetime

sys.path.insert(0, os.path.dirname(__file__))
from records_helpers import IO_SENT, DiskFeed, Pair, sanitizer_report  # noqa: E402
from stale_helpers import StoreWrites, io_record_key  # noqa: E402
from stovig_proc import wait_for  # noqa: E402

TASK = "res_mom_stale_task"
STALE = "slot3 Storage monitor has not reported for 30 seconds."
BACK = "slot3 Storage monitor reports again."
SECOND = 0.1        # [loop] second_ms of the pair's configs
INTERVAL = 10       # the default I/O interval, in timer seconds
PERIOD = 3 * INTERVAL * SECOND


def stamp(line):
    return datetime.strptime(line[:23], "%Y-%m-%d %H:%M:%S.%f").timestamp()


@unittest.skipUnless(shutil.which("redis-server"), "redis-server is not installed")
class StaleNode(unittest.TestCase):
    def setUp(self):
        self.work = tempfile.mkdtemp(prefix="stovig-stale-")
        self.pair = Pair(self.work, lc_namespace=False)
        # Both nodes have a disk, so both publish I/O records: the master's
        # own come back to it as the heartbeat of its link.
        self.feeds = [DiskFeed(self.pair.lc.root), DiskFeed(self.pair.master.root)]
        for f in self.feeds:
            f.start()
        m, lc = self.pair.master, self.pair.lc
        self.assertTrue(m.wait_log("handle master process.", 30), m.log_text()[-3000:])
        self.assertTrue(m.wait_log("watch the nodes' I/O records every 10 seconds.", 30), m.log_text()[-3000:])
        self.assertTrue(lc.wait_count(IO_SENT, 2, 30), lc.log_text()[-3000:])
        self.writes = StoreWrites(self.pair.redis, os.path.join(self.work, "monitor.log"))
        self.lc_key = wait_for(lambda: io_record_key(self.pair.redis, 0, 5), 10)
        self.assertTrue(self.lc_key)

    def tearDown(self):
        self.writes.stop()
        for f in self.feeds:
            f.stop()
        self.pair.close()
        errs = self.pair.master.stderr_text() + self.pair.lc.stderr_text()
        shutil.rmtree(self.work, ignore_errors=True)
        self.assertIsNone(sanitizer_report(errs), errs)

    def lines(self):
        mark = " %s: " % TASK
        return [(stamp(l), l.split(mark, 1)[1]) for l in self.pair.master.event_lines() if mark in l]

    def texts(self):
        return [t for _, t in self.lines()]

    def kill_after_a_record(self):
        """SIGKILLs the line card's daemon shortly after its I/O record
        reached the store; the store's time of its last write."""
        lc = self.pair.lc
        n = len(self.writes.times(self.lc_key))
        self.assertTrue(wait_for(lambda: len(self.writes.times(self.lc_key)) > n, 10, 0.005))
        time.sleep(3 * SECOND)
        os.killpg(lc.proc.pid, signal.SIGKILL)
        lc.proc.wait(timeout=10)
        return self.writes.times(self.lc_key)[-1]

    def quiet(self, seconds):
        """Waits, failing as soon as the master writes a line of the watch."""
        deadline = time.monotonic() + seconds
        while time.monotonic() < deadline:
            self.assertEqual(self.texts(), [])
            time.sleep(0.05)

    def test_killed_daemon_is_stale_once_and_reports_again_once(self):
        m, lc = self.pair.master, self.pair.lc
        last = self.kill_after_a_record()
        self.assertTrue(wait_for(lambda: self.texts(), PERIOD + 10), m.log_text()[-3000:])
        (at, text), = self.lines()
        self.assertEqual(text, STALE)
        late = at - last
        print("stale line %.3f s after the last record (3 intervals = %.1f s, one tick %.1f s)"
              % (late, PERIOD, SECOND))
        # Three intervals, give or take the one tick of the watch's phase.
        self.assertGreaterEqual(late, PERIOD - SECOND)
        self.assertLessEqual(late, PERIOD + SECOND)

        time.sleep(2 * PERIOD)
        self.assertEqual(self.texts(), [STALE])
        lc.start()
        self.assertTrue(wait_for(lambda: BACK in self.texts(), 30), m.log_text()[-3000:])
        back = [t for t, x in self.lines() if x == BACK][0]
        first = [t for t in self.writes.times(self.lc_key) if t > at][0]
        print("reports-again line %.3f s after the restarted card's first record" % (back - first))
        # It keeps reporting: nothing more.
        self.assertTrue(lc.wait_count(IO_SENT, lc.count(IO_SENT) + 4, 30))
        self.assertEqual(self.texts(), [STALE, BACK])

    def test_card_set_offline_is_not_stale(self):
        m = self.pair.master
        self.pair.bus("offline", 5)
        self.assertTrue(m.wait_log("detect deivce [0,5,0] offline.", 30), m.log_text()[-3000:])
        self.kill_after_a_record()
        self.quiet(PERIOD + 2)
        # The watch runs: listed again, the dead card is stale a full
        # period later.
        self.pair.bus("online", 5)
        self.assertTrue(wait_for(lambda: self.texts(), PERIOD + 10), m.log_text()[-3000:])
        self.assertEqual(self.texts(), [STALE])

    def test_closed_io_monitor_judges_nobody(self):
        m = self.pair.master
        code, out, err = self.pair.cli("configure terminal", "no storage io set", "end")
        self.assertEqual(code, 0, err)
        self.assertIn("Close storage io monitor.", out)
        os.killpg(self.pair.lc.proc.pid, signal.SIGKILL)
        self.pair.lc.proc.wait(timeout=10)
        self.quiet(PERIOD + 2)
        # Opened again: the dead card is stale a full period later.
        code, out, err = self.pair.cli("configure terminal", "storage io set interval 10", "end")
        self.assertEqual(code, 0, err)
        opened = time.time()
        self.assertTrue(wait_for(lambda: self.texts(), PERIOD + 10), m.log_text()[-3000:])
        (at, text), = self.lines()
        self.assertEqual(text, STALE)
        self.assertGreaterEqual(at - opened, PERIOD - 2 * SECOND)


if __name__ == "__main__":
    unittest.main()
