"""Clear errors at the edges of a chassis: qn-bus against a store it cannot
reach or without a shared bus, a daemon whose Redis is not there yet, a node
whose identity keys disagree, and a line card that names only its device
type."""

import json
import os
import shutil
import subprocess
import sys
import time
import unittest

from bus_helpers import BusNode, QnBus, RedisServer, free_port, node_config, write_inventory
from stovig_proc import TempDir, wait_for
from stovig_tools import QN_BUS


def network_namespaces_available():
    """Whether private mount and network namespaces can be made here."""
    try:
        p = subprocess.run(["unshare", "-m", "-n", "--propagation", "private", "ip", "link", "set", "lo", "up"],
                           capture_output=True, timeout=20)
        return p.returncode == 0
    except (OSError, subprocess.TimeoutExpired):
        return False

INVENTORY = ("slot=1 user_slot=1 type=cm name=CM-A master=1\n"
             "slot=5 user_slot=3 type=lc name=LC-48X\n")


@unittest.skipUnless(shutil.which("redis-server"), "redis-server is not installed")
class Edges(unittest.TestCase):
    def setUp(self):
        self.tmp = TempDir(prefix="sbus-e-")
        self.nodes = []
        self.redis = None

    def tearDown(self):
        for n in self.nodes:
            n.stop()
        if self.redis:
            self.redis.stop()
        self.tmp.cleanup()

    def qn_bus(self, config_text, *args, timeout=30):
        env = dict(os.environ)
        env.pop("STOVIG_CONFIG", None)
        if config_text is not None:
            path = os.path.join(self.tmp.path, "qn-bus.ini")
            with open(path, "w") as f:
                f.write(config_text)
            env["STOVIG_CONFIG"] = path
        started = time.monotonic()
        p = subprocess.run([QN_BUS] + [str(a) for a in args], env=env, capture_output=True, timeout=timeout)
        return p.returncode, p.stdout.decode(), p.stderr.decode(), time.monotonic() - started

    def node(self, name, config):
        n = BusNode(self.tmp.path, name, config)
        self.nodes.append(n)
        return n

    def test_qn_bus_against_a_closed_port_says_it_cannot_reach_it(self):
        port = free_port()  # nothing listens there
        code, out, err, took = self.qn_bus("[bus]\nurl = redis://127.0.0.1:%d\n" % port, "dump", 1, timeout=5)
        print("qn-bus gave up after %.2f s" % took)
        self.assertEqual(code, 1)
        self.assertEqual(out, "")
        last = err.strip().splitlines()[-1]
        self.assertEqual(last, "qn-bus: cannot reach redis://127.0.0.1:%d: Connection refused" % port)

    def test_qn_bus_resolves_the_store_s_name_without_blocking_and_gives_up_on_a_silent_dns_in_time(self):
        if not network_namespaces_available():
            self.skipTest("network namespaces are not available here")
        port = free_port()
        inventory = write_inventory(self.tmp.path, INVENTORY)
        commands = [["redis://bus-host:%d" % port, "inventory", inventory],
                    ["redis://bus-host:%d" % port, "dump", "1"],
                    ["redis://silent.test:%d" % port, "dump", "1"],
                    ["redis://127.0.0.1:%d" % port, "dump", "1"]]
        p = subprocess.run(["unshare", "-m", "-n", "--propagation", "private", sys.executable,
                            os.path.join(os.path.dirname(os.path.abspath(__file__)), "bus_netns.py"),
                            self.tmp.path, str(port), "127.0.0.1 localhost\n127.0.0.1 bus-host\n",
                            json.dumps(commands)], capture_output=True, timeout=120)
        self.assertEqual(p.returncode, 0, p.stderr.decode())
        by_name, listed, silent, by_address = json.loads(p.stdout)
        self.assertEqual(by_name["code"], 0, by_name["stderr"])
        self.assertEqual(listed["code"], 0, listed["stderr"])
        self.assertEqual(by_address["code"], 0, by_address["stderr"])
        # The resolver's own time-out is 10 s; qn-bus keeps its 3 s deadline.
        print("qn-bus gave up on a silent DNS after %.2f s" % silent["seconds"])
        self.assertEqual(silent["code"], 1, silent["stderr"])
        self.assertEqual(silent["stderr"].strip().splitlines()[-1],
                         "qn-bus: cannot reach redis://silent.test:%d: no answer within 3 s" % port)
        self.assertLess(silent["seconds"], 8.0)

    def test_qn_bus_refuses_to_run_without_a_shared_bus(self):
        for config_text in (None, "[node]\ndevid = 0\n"):
            code, out, err, _ = self.qn_bus(config_text, "inventory", write_inventory(self.tmp.path, INVENTORY))
            self.assertEqual(code, 2)
            self.assertIn("qn-bus: no shared bus: set STOVIG_CONFIG to a config file with [bus] url = "
                          "redis://HOST:PORT", err)
        code, _, err, _ = self.qn_bus("[bus]\nurl = http://127.0.0.1:1\n", "dump", 1)
        self.assertEqual(code, 78)
        self.assertTrue(err.strip().endswith("[bus] url: expected redis://HOST:PORT ('http://127.0.0.1:1')"), err)

    def test_qn_bus_dump_shows_text_from_the_bus_escaped(self):
        self.redis = RedisServer(self.tmp.path)
        self.redis.start()
        bus = QnBus(self.tmp.path, self.redis)
        bus.ok("inventory", write_inventory(self.tmp.path, "slot=1 user_slot=1 type=cm name=CM\x1b[2J\"A master=1\n"))
        bus.ok("raw", 12, "qnmom:12:p_utils.stovig_io:\x1b]0;t\x07", "garbage")
        out = bus.ok("dump", 1) + bus.ok("dump", 12)
        self.assertIn('name: "CM\\x1b[2J\\x22A"', out)
        self.assertIn("qnmom:12:p_utils.stovig_io:\\x1b]0;t\\x07 <undecodable, 7 bytes>", out)
        self.assertNotIn("\x1b", out)
        self.assertNotIn("\x07", out)

    def test_qn_bus_fails_when_the_store_refuses_its_writes(self):
        self.redis = RedisServer(self.tmp.path)
        self.redis.start()
        bus = QnBus(self.tmp.path, self.redis)
        inventory = write_inventory(self.tmp.path, INVENTORY)
        bus.ok("inventory", inventory)
        self.assertEqual(self.redis.cli("CONFIG", "SET", "maxmemory", "1"), "OK")
        code, _, err = bus.run("inventory", inventory)
        self.assertEqual(code, 1, err)
        self.assertIn("refused by the store: OOM command not allowed", err)
        self.assertRegex(err.strip().splitlines()[-1],
                         r"^qn-bus: inventory: the store refused \d+ writes? \(\d+ refusals?\), 4 not made$")
        code, _, err = bus.run("offline", 5)
        self.assertEqual(code, 1, err)
        self.assertRegex(err.strip().splitlines()[-1], r"^qn-bus: offline: the store refused 1 write")
        self.assertEqual(self.redis.cli("CONFIG", "SET", "maxmemory", "0"), "OK")
        bus.ok("offline", 5)

    def test_daemon_whose_redis_is_not_there_says_so_and_connects_when_it_comes(self):
        self.redis = RedisServer(self.tmp.path)
        m = self.node("cm", node_config(self.redis, 0, 1, 1, 2, 0, "CM"))
        m.start()
        url = "redis://127.0.0.1:%d" % self.redis.port
        self.assertTrue(wait_for(lambda: "cannot reach %s: Connection refused; retrying with back-off" % url
                                 in m.stderr_text(), 10), m.stderr_text())
        self.assertTrue(m.wait_log("MOM is not connected after 5 seconds, still trying.", 10), m.log_text())
        self.assertRegex(m.log_text(), r"ERROR mom/res_mom_main\.cpp:\d+ res_mom_conn_check: "
                                       r"MOM is not connected after 5 seconds, still trying\.")
        self.assertTrue(m.wait_log("MOM is not connected after 10 seconds, still trying.", 10), m.log_text())
        self.assertTrue(m.alive())
        self.redis.start()
        # Connected, but nothing plays the device manager yet.
        self.assertTrue(wait_for(lambda: "dm_cache: no card records on the bus (p_dev.card_info, database 1): "
                                         "until the device manager publishes them (qn-bus inventory FILE), a "
                                         "master lists only itself" in m.stderr_text(), 15), m.stderr_text())
        QnBus(self.tmp.path, self.redis).ok("inventory", write_inventory(self.tmp.path, INVENTORY))
        self.assertTrue(m.wait_log("handle master process.", 30), m.log_text())
        checks = m.log_text().count("still trying.")
        time.sleep(2.0)
        self.assertEqual(m.log_text().count("still trying."), checks)

    def test_node_type_and_device_type_that_disagree_stop_start_up_in_one_line(self):
        self.redis = RedisServer(self.tmp.path)
        n = self.node("bad", node_config(self.redis, 0, 5, 3, 2, 0, "LC"))
        code, out, err = n.run_to_exit(timeout=30)
        self.assertEqual(code, 78)
        self.assertEqual(out, "")
        self.assertEqual(err.strip().splitlines()[-1],
                         "%s: [node] node_type = 2 disagrees with [cap] CAP_DEV_TYPE = LC "
                         "(node types: 1 BOX, 2 CM, 3 LC)" % n.config_path)
        self.assertNotIn("process begin", n.log_text())

    def test_line_card_that_names_only_its_device_type_publishes(self):
        self.redis = RedisServer(self.tmp.path)
        self.redis.start()
        m = self.node("cm", node_config(self.redis, 0, 1, 1, 2, 0, "CM"))
        lc_config = node_config(self.redis, 0, 5, 3, 3, 0, "LC").replace("node_type = 3\n", "")
        self.assertNotIn("node_type", lc_config)
        lc = self.node("lc", lc_config)
        m.start()
        lc.start()
        QnBus(self.tmp.path, self.redis).ok("inventory", write_inventory(self.tmp.path, INVENTORY))
        self.assertTrue(lc.wait_log("all local information is ready.", 30), lc.log_text())
        key = "qnmom:12:p_utils.stovig_part_info:0.5.0.0"
        self.assertTrue(wait_for(lambda: self.redis.cli("EXISTS", key) == "1", 30), lc.log_text())
        self.assertTrue(m.wait_log("local_list now: [0,1,0 uslot 1] [0,5,0 uslot 3]", 30), m.log_text())


if __name__ == "__main__":
    unittest.main()
