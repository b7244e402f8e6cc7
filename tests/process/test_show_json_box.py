"""show storage ... json and the metrics endpoint on a box: the real daemon
on the fixture tree of the show tests, with [metrics] listen on a free
loopback port.  The JSON document parses and says what the text says; the
endpoint answers GET /metrics only, and its exposition passes promtool."""

import json
import os
import signal
import socket
import unittest

from box_fixture import box_node, start_box, unavailable
from bus_helpers import free_port
from metrics_helpers import PROMTOOL, fetch, promtool_check, samples, text_from_json
from stovig_proc import TempDir, wait_for
from stovig_tools import cli

ITEMS = ("all-info", "io", "ro", "capacity", "lifetime")


class JsonBox(unittest.TestCase):
    def setUp(self):
        why = unavailable()
        if why:
            self.skipTest(why)
        self.tmp = TempDir(prefix="sjson-box-")
        self.port = free_port()
        config = "[loop]\nsecond_ms = 50\n[metrics]\nlisten = 127.0.0.1:%d\n" % self.port
        self.node = box_node(self.tmp.path, config)
        start_box(self.node)
        self.url = "http://127.0.0.1:%d" % self.port

    def tearDown(self):
        if hasattr(self, "node"):
            self.node.stop()
            self.tmp.cleanup()

    def cli(self, *commands):
        return cli(self.node.env, *commands, errors="replace")

    def wait_ready(self):
        ok = wait_for(lambda: "Storage Name:               emmc" in self.cli("show storage all-info")[1]
                      and " 0.00%" in self.cli("show storage io")[1], timeout=30)
        self.assertTrue(ok, self.cli("show storage all-info")[1] + self.node.log_text()[-3000:])

    def agrees(self, item):
        """The JSON form of `item` read between two text forms agrees with
        one of them (the process rates may move between commands)."""
        before = self.cli("show storage %s" % item)[1]
        code, out, err = self.cli("show storage %s json" % item)
        after = self.cli("show storage %s" % item)[1]
        self.assertEqual(code, 0, err)
        self.assertTrue(out.endswith("]\n"), out)
        doc = json.loads(out)
        return text_from_json(doc) in (before, after), (doc, before, text_from_json(doc))

    def test_every_item_parses_and_agrees_with_the_text(self):
        self.wait_ready()
        for item in ITEMS:
            result = wait_for(lambda: self.agrees(item)[0] and self.agrees(item), timeout=20)
            self.assertTrue(result, "%s:\n%s" % (item, self.agrees(item)[1]))
        doc = json.loads(self.cli("show storage all-info json")[1])
        self.assertEqual(len(doc), 1)
        node = doc[0]
        self.assertEqual((node["slot"], node["card"], node["user_slot"]), ("slot1", "box", 1))
        self.assertIs(node["stale"], False)
        self.assertEqual(node["capacity"]["partitions"][0]["name"], "flash")
        self.assertEqual(node["lifetime"]["disks"][0]["left_months"], 190)
        # The box's own records came back over the embedded bus: every kind
        # has an age, and the I/O record is younger than a few of its intervals.
        for kind in ("io", "capacity", "readonly", "lifetime"):
            self.assertIsInstance(node["age_seconds"][kind], float, node["age_seconds"])
            self.assertGreaterEqual(node["age_seconds"][kind], 0.0)
        # The text forms, their help and the settings lines are untouched.
        code, out, _ = self.cli("show storage io set")
        self.assertEqual(out, "Storage IO Monitor:     Opened\nStorage IO Interval:    10 Seconds\n"
                              "Storage IO Threshold:   50%\n\n")
        code, out, _ = self.cli("show storage capacity json extra")
        self.assertNotEqual(code, 0)

    @unittest.skipUnless(PROMTOOL, "promtool (Debian package prometheus) is not installed")
    def test_metrics_endpoint(self):
        self.wait_ready()
        status, headers, body = fetch(self.url + "/metrics")
        self.assertEqual(status, 200)
        self.assertEqual(headers.get("Content-Type"), "text/plain; version=0.0.4; charset=utf-8")
        code, out = promtool_check(body)
        self.assertEqual(code, 0, out + body.decode(errors="replace"))
        got = samples(body.decode())
        flash = frozenset({("slot", "slot1"), ("partition", "flash")})
        self.assertEqual(got[("qn_stovig_partition_size_bytes", flash)], 1024 * 4096 // 1000 * 1000)
        self.assertEqual(got[("qn_stovig_disk_lifetime_left_months",
                              frozenset({("slot", "slot1"), ("device", "emmc")}))], 190)
        self.assertEqual(got[("qn_stovig_node_stale", frozenset({("slot", "slot1")}))], 0)
        self.assertEqual(got[("qn_stovig_capacity_threshold_ratio", frozenset())], 0.8)
        # Other paths and methods are refused; the daemon serves on.
        self.assertEqual(fetch(self.url + "/")[0], 404)
        self.assertEqual(fetch(self.url + "/metrics/x")[0], 404)
        status, headers, _ = fetch(self.url + "/metrics", method="POST")
        self.assertEqual((status, headers.get("Allow")), (405, "GET"))
        self.assertEqual(fetch(self.url + "/metrics", method="DELETE")[0], 405)
        self.assertEqual(fetch(self.url + "/metrics?name=x")[0], 200)
        # A request whose headers pass the cap is refused without harm.
        with socket.create_connection(("127.0.0.1", self.port), timeout=10) as s:
            s.sendall(b"GET /metrics HTTP/1.1\r\nHost: x\r\nX-Big: " + b"a" * 20000 + b"\r\n\r\n")
            reply = b""
            try:
                while True:
                    chunk = s.recv(65536)
                    if not chunk:
                        break
                    reply += chunk
            except (ConnectionResetError, socket.timeout):
                pass
        self.assertFalse(reply.startswith(b"HTTP/1.1 200"), reply[:200])
        self.assertEqual(fetch(self.url + "/metrics")[0], 200)
        self.assertIsNone(self.node.proc.poll())


class MetricsConfig(unittest.TestCase):
    """A bad [metrics] listen is a configuration error (status 78); a port
    that cannot be listened on leaves the daemon running without it."""

    def setUp(self):
        self.tmp = TempDir(prefix="sjson-cfg-")

    def tearDown(self):
        self.tmp.cleanup()

    def test_bad_address_is_a_configuration_error(self):
        from stovig_proc import Node
        node = Node(self.tmp.path, "bad", config="[metrics]\nlisten = localhost:9464\n")
        code, out, err = node.run_to_exit()
        self.assertEqual(code, 78, out + err)
        self.assertIn(":2: [metrics] listen: expected ADDR:PORT", err)

    def test_busy_port_leaves_the_daemon_running(self):
        from stovig_proc import Node
        holder = socket.socket()
        holder.bind(("127.0.0.1", 0))
        holder.listen(1)
        port = holder.getsockname()[1]
        node = Node(self.tmp.path, "busy", config="[metrics]\nlisten = 127.0.0.1:%d\n[loop]\nsecond_ms = 50\n" % port)
        try:
            node.start()
            self.assertTrue(node.wait_log("Init metrics endpoint failed, running without it.", 20),
                            node.log_text()[-2000:])
            self.assertIsNone(node.proc.poll())
            self.assertTrue(wait_for(lambda: os.path.exists(os.path.join(node.run_dir, "cli.sock")), 10))
        finally:
            if node.proc.poll() is None:
                os.killpg(node.proc.pid, signal.SIGKILL)
            err = node.proc.communicate(timeout=10)[1].decode(errors="replace")
            holder.close()
        self.assertIn("metrics: cannot listen on 127.0.0.1:%d: Address already in use; "
                      "running without the metrics endpoint." % port, err)

if __name__ == "__main__":
    unittest.main()
