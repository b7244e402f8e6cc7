"""A configuration command on the master reaches the line card through the
configuration record on Redis and changes its timers: the line card's next
capacity passes come at the new interval, and the thresholds follow."""

import shutil
import tempfile
import unittest

from records_helpers import CAP_PASS, Pair, sanitizer_report


@unittest.skipUnless(shutil.which("redis-server"), "redis-server is not installed")
class ConfigurationReachesTheLineCard(unittest.TestCase):
    def setUp(self):
        self.work = tempfile.mkdtemp(prefix="stovig-conf-")
        self.pair = Pair(self.work, lc_namespace=False)
        m, lc = self.pair.master, self.pair.lc
        self.assertTrue(m.wait_log("handle master process.", 30), m.log_text()[-3000:])
        self.assertTrue(lc.wait_log("subscribe PUtils__StovigSmplIntrl success", 30), lc.log_text()[-3000:])

    def tearDown(self):
        self.pair.close()
        errs = self.pair.master.stderr_text() + self.pair.lc.stderr_text()
        shutil.rmtree(self.work, ignore_errors=True)
        self.assertIsNone(sanitizer_report(errs), errs)

    def gaps(self, after=0.0):
        t = [x for x in self.pair.lc.times(CAP_PASS) if x > after]
        return [round(b - a, 2) for a, b in zip(t, t[1:])]

    def test_capacity_interval_and_thresholds(self):
        m, lc = self.pair.master, self.pair.lc
        self.assertTrue(lc.wait_count(CAP_PASS, 3, 30))
        before = self.gaps()
        # 30 seconds of 100 ms: a pass every 3 s.
        self.assertTrue(before and all(2.7 <= g <= 3.6 for g in before), before)

        status, out, err = self.pair.cli("configure terminal", "storage capacity set interval 60 threshold 70",
                                         "storage io set threshold 60")
        self.assertEqual(status, 0, out + err)
        self.assertTrue(lc.wait_log("reset cap interval from 30 to 60.", 30), lc.log_text()[-3000:])
        self.assertTrue(lc.wait_log("reset cap threshold from 80 to 70.", 10), lc.log_text()[-3000:])
        self.assertTrue(lc.wait_log("reset io threshold from 50 to 60.", 10), lc.log_text()[-3000:])
        changed = lc.times("reset cap interval from 30 to 60.")[0]
        n = lc.count(CAP_PASS)
        self.assertTrue(lc.wait_count(CAP_PASS, n + 3, 40))
        passes = [x for x in lc.times(CAP_PASS) if x > changed]
        first = passes[0] - changed
        after = self.gaps(changed)
        print("line card capacity passes: gaps %s s before; first %.2f s after the record, then gaps %s s"
              % (before, first, after))
        self.assertTrue(5.7 <= first <= 6.8, first)
        self.assertTrue(after and all(5.7 <= g <= 6.8 for g in after), after)
        # The master changed its own settings through the command, not through
        # its record: it is not subscribed to it.
        self.assertIn("unsubscribe PUtils__StovigSmplIntrl success", m.log_text())
        self.assertNotIn("reset cap threshold from 80 to 70.", m.log_text())


if __name__ == "__main__":
    unittest.main()
