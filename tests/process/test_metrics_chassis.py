"""JSON and metrics on the master of a chassis on Redis: a control module
and two line cards, qn-bus playing the device manager; the line card in user
slot 3 has /data mounted.  The master's JSON agrees with its text; its
/metrics passes promtool and is scraped by a real Prometheus server, whose
query API then returns the line card's partition usage; a line card that
stops publishing shows a growing age; a line card serves its own figures."""

import json
import os
import signal
import time
import unittest

from bus_helpers import BusNode, QnBus, RedisServer, free_port, node_config, write_inventory
from metrics_helpers import PROMETHEUS, PROMTOOL, PrometheusServer, fetch, promtool_check, samples, text_from_json
from stovig_proc import TempDir, wait_for
from stovig_tools import cli


INVENTORY = ("slot=1 user_slot=1 type=cm name=CM-A master=1\n"
             "slot=5 user_slot=3 type=lc name=LC-48X\n"
             "slot=4 user_slot=2 type=lc name=LC-24X\n")
FLASH3 = frozenset({("slot", "slot3"), ("partition", "flash")})


def metrics_config(redis, devid, phy_slot, user_slot, node_type, dev_type, port):
    return node_config(redis, devid, phy_slot, user_slot, node_type, 0, dev_type) + \
        "[metrics]\nlisten = 127.0.0.1:%d\n" % port


@unittest.skipUnless(PROMTOOL and PROMETHEUS, "promtool and prometheus (Debian package prometheus) are not installed")
class MetricsChassis(unittest.TestCase):
    def setUp(self):
        self.tmp = TempDir(prefix="smet-ch-")
        self.redis = RedisServer(self.tmp.path)
        self.redis.start()
        self.bus = QnBus(self.tmp.path, self.redis)
        self.port = free_port()
        self.lc_port = free_port()
        self.master = BusNode(self.tmp.path, "cm", metrics_config(self.redis, 0, 1, 1, 2, "CM", self.port))
        self.lc = BusNode(self.tmp.path, "lc5", metrics_config(self.redis, 0, 5, 3, 3, "LC", self.lc_port))
        # This card has /data mounted: a directory of its fixture tree, so
        # its capacity figures are those of the file system under it.
        with open(os.path.join(self.lc.root, "proc", "mounts"), "w") as f:
            f.write("tmpfs /data tmpfs rw 0 0\n")
        os.makedirs(os.path.join(self.lc.root, "data"))
        self.quiet = BusNode(self.tmp.path, "lc4", node_config(self.redis, 0, 4, 2, 3, 0, "LC"))
        self.nodes = [self.master, self.lc, self.quiet]
        self.prometheus = None

    def tearDown(self):
        if self.prometheus:
            self.prometheus.stop()
        for n in self.nodes:
            if n.proc and n.proc.poll() is None:
                os.kill(n.proc.pid, signal.SIGCONT)
            n.stop()
        self.redis.stop()
        self.tmp.cleanup()

    def cli(self, *commands):
        return cli(self.master.env, *commands, errors="replace")

    def json_doc(self):
        code, out, err = self.cli("show storage all-info json")
        return json.loads(out) if code == 0 else None

    def lc_node(self):
        doc = self.json_doc() or []
        return next((n for n in doc if n["slot"] == "slot3"), None)

    def master_samples(self):
        status, _, body = fetch("http://127.0.0.1:%d/metrics" % self.port)
        self.assertEqual(status, 200)
        return samples(body.decode())

    def start_chassis(self):
        for n in self.nodes:
            n.start()
        for n in self.nodes:
            self.assertTrue(n.wait_log("reconnect to MOM(12)"), n.log_text()[-3000:])
        self.bus.ok("inventory", write_inventory(self.tmp.path, INVENTORY))

        def lc_flash():
            node = self.lc_node()
            return node and node["capacity"]["state"] == "ready" and \
                any(p["name"] == "flash" for p in node["capacity"]["partitions"])
        self.assertTrue(wait_for(lambda: lc_flash() and len(self.json_doc()) == 3, timeout=40),
                        self.cli("show storage all-info json")[1] + self.master.log_text()[-2000:])

    def agrees(self):
        before = self.cli("show storage all-info")[1]
        doc = self.json_doc()
        after = self.cli("show storage all-info")[1]
        return doc is not None and text_from_json(doc) in (before, after)

    def test_json_metrics_prometheus_and_age(self):
        self.start_chassis()
        # JSON and text agree (the card's usage may move between two commands).
        self.assertTrue(wait_for(self.agrees, timeout=20), self.cli("show storage all-info")[1])
        doc = self.json_doc()
        self.assertEqual([(n["slot"], n["card"]) for n in doc],
                         [("slot1", "CM-A"), ("slot2", "LC-24X"), ("slot3", "LC-48X")])
        self.assertEqual(doc[2]["index"], {"devid": 0, "slotid": 5, "sslotid": 0})
        self.assertIsInstance(doc[2]["age_seconds"]["capacity"], float)

        # The master's exposition passes promtool and holds the card's partition.
        status, headers, body = fetch("http://127.0.0.1:%d/metrics" % self.port)
        self.assertEqual(status, 200)
        code, out = promtool_check(body)
        self.assertEqual(code, 0, out + body.decode(errors="replace"))
        got = samples(body.decode())
        self.assertGreater(got[("qn_stovig_partition_size_bytes", FLASH3)], 0)
        self.assertIn(("qn_stovig_node_info", frozenset({("slot", "slot2"), ("card", "LC-24X")})), got)

        # A line card serves its own figures, not the store of the master.
        status, _, lc_body = fetch("http://127.0.0.1:%d/metrics" % self.lc_port)
        self.assertEqual(status, 200)
        self.assertEqual(promtool_check(lc_body)[0], 0, lc_body.decode(errors="replace"))
        lc_got = samples(lc_body.decode())
        self.assertGreater(lc_got[("qn_stovig_partition_size_bytes", FLASH3)], 0)
        self.assertEqual([k for k in lc_got if dict(k[1]).get("slot") not in (None, "slot3")], [])

        # A real Prometheus scrapes the master every second; its query API
        # returns the card's partition usage.
        self.prometheus = PrometheusServer(self.tmp.path, "127.0.0.1:%d" % self.port)
        self.assertTrue(self.prometheus.start(), self.prometheus.log_text()[-3000:])
        expr = 'qn_stovig_partition_used_bytes{slot="slot3",partition="flash"}'
        result = wait_for(lambda: self.prometheus.query(expr), timeout=60, interval=0.5)
        self.assertTrue(result, self.prometheus.log_text()[-3000:])
        self.assertEqual(len(result), 1, result)
        self.assertEqual(result[0]["metric"]["job"], "stovig")
        self.assertGreater(float(result[0]["value"][1]), 0)
        up = self.prometheus.query('up{job="stovig"}')
        self.assertEqual(up[0]["value"][1], "1", up)

        # The card stops publishing but stays online: the age of its data grows.
        age_of = lambda: self.master_samples().get(  # noqa: E731
            ("qn_stovig_node_data_age_seconds", frozenset({("slot", "slot3"), ("kind", "capacity")})))
        os.kill(self.lc.proc.pid, signal.SIGSTOP)
        first = age_of()
        json_first = self.lc_node()["age_seconds"]["capacity"]
        time.sleep(4)
        second = age_of()
        json_second = self.lc_node()["age_seconds"]["capacity"]
        self.assertGreaterEqual(second - first, 3.5, (first, second))
        self.assertGreaterEqual(json_second - json_first, 3.5, (json_first, json_second))
        grown = wait_for(lambda: self.prometheus.query(
            'qn_stovig_node_data_age_seconds{slot="slot3",kind="capacity"} > %f' % (second + 1)), timeout=30)
        self.assertTrue(grown, self.prometheus.query('qn_stovig_node_data_age_seconds{slot="slot3"}'))
        os.kill(self.lc.proc.pid, signal.SIGCONT)
        # Publishing again, the card's data is young again.
        self.assertTrue(wait_for(lambda: (age_of() or 1e9) < second, timeout=30), age_of())


if __name__ == "__main__":
    unittest.main()
