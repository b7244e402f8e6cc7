"""Bus faults under running daemons: the Redis server stopped and started
again, and values that do not decode as their records."""

import time
import unittest

from bus_helpers import BusNode, QnBus, RedisServer, node_config, write_inventory
from stovig_proc import TempDir, wait_for

BOTH = "local_list now: [0,1,0 uslot 1] [0,5,0 uslot 3]"
INVENTORY = ("slot=1 user_slot=1 type=cm name=CM-A master=1\n"
             "slot=5 user_slot=3 type=lc name=LC-48X\n")


class BusFaults(unittest.TestCase):
    def setUp(self):
        self.tmp = TempDir(prefix="sbus-f-")
        self.redis = RedisServer(self.tmp.path)
        self.redis.start()
        self.bus = QnBus(self.tmp.path, self.redis)
        self.master = BusNode(self.tmp.path, "cm", node_config(self.redis, 0, 1, 1, 2, 0, "CM"))
        self.lc = BusNode(self.tmp.path, "lc", node_config(self.redis, 0, 5, 3, 3, 0, "LC"))
        self.nodes = [self.master, self.lc]

    def tearDown(self):
        for n in self.nodes:
            n.stop()
        self.redis.stop()
        self.tmp.cleanup()

    def start_all(self):
        for n in self.nodes:
            n.start()
        self.bus.ok("inventory", write_inventory(self.tmp.path, INVENTORY))
        self.assertTrue(self.master.wait_log(BOTH), self.master.log_text())

    def test_daemons_reconnect_after_a_redis_restart_and_their_subscriptions_work(self):
        self.start_all()
        self.redis.stop()
        self.assertTrue(wait_for(lambda: "link to the store lost" in self.master.stderr_text(), 10))
        time.sleep(1.5)
        for n in self.nodes:
            self.assertTrue(n.alive(), n.stderr_text())
        self.redis.start()
        for n in self.nodes:
            self.assertTrue(n.wait_log("reconnect to MOM[1] success, type = 1."), n.log_text())
            self.assertTrue(n.wait_log("detect QN_MOM_TUNNER_DB reconnected."), n.log_text())
            self.assertTrue(n.wait_log("reconnect to MOM[33] success, type = 1."), n.log_text())
            self.assertTrue(n.wait_log("detect QN_MOM_MONITOR_DB reconnected."), n.log_text())
        # The restarted server is empty: the device manager writes its records
        # again, and a change written after the restart reaches the master.
        self.bus.ok("inventory", write_inventory(self.tmp.path, INVENTORY))
        self.bus.ok("offline", 5)
        self.assertTrue(self.master.wait_log("detect deivce [0,5,0] offline."), self.master.log_text())
        self.assertTrue(self.master.wait_log("local_list now: [0,1,0 uslot 1]\n"), self.master.log_text())
        self.bus.ok("online", 5)
        self.assertTrue(self.master.wait_count(BOTH, 2), self.master.log_text())
        for n in self.nodes:
            self.assertTrue(n.alive(), n.stderr_text())

    def test_daemon_started_before_redis_connects_when_it_comes_up(self):
        self.redis.stop()
        self.master.start()
        time.sleep(1.0)
        self.assertTrue(self.master.alive(), self.master.stderr_text())
        self.assertNotIn("all local information is ready.", self.master.log_text())
        self.redis.start()
        self.bus.ok("inventory", write_inventory(self.tmp.path, INVENTORY))
        self.assertTrue(self.master.wait_log("handle master process.", 20), self.master.log_text())
        self.assertTrue(self.master.wait_log(BOTH), self.master.log_text())

    def test_garbage_values_are_logged_with_their_key_and_dropped(self):
        # Written straight into Redis before the master scans the cards.
        self.assertEqual(self.redis.cli("SET", "qnmom:1:p_dev.card_info:77", "garbage\xff"), "OK")
        self.start_all()
        self.assertTrue(wait_for(lambda: "value under key qnmom:1:p_dev.card_info:77 does not decode as "
                                         "p_dev.card_info" in self.master.stderr_text(), 10),
                        self.master.stderr_text())
        # Published garbage reaches the subscribers' client and stops there.
        self.bus.ok("raw", 1, "qnmom:1:p_dev.card_info:78", "garbage")
        self.bus.ok("raw", 1, "qnmom:1:p_dev.dp_lib_grole:@0.1", "garbage")
        self.bus.ok("raw", 12, "qnmom:12:p_utils.stovig_io:0.9.0.0", "garbage")
        for key, name in (("qnmom:1:p_dev.card_info:78", "p_dev.card_info"),
                          ("qnmom:1:p_dev.dp_lib_grole:@0.1", "p_dev.dp_lib_grole"),
                          ("qnmom:12:p_utils.stovig_io:0.9.0.0", "p_utils.stovig_io")):
            text = "value under key %s does not decode as %s" % (key, name)
            self.assertTrue(wait_for(lambda: text in self.master.stderr_text(), 10), self.master.stderr_text())
        # The bus still works and nothing stopped.
        self.bus.ok("offline", 5)
        self.assertTrue(self.master.wait_log("detect deivce [0,5,0] offline."), self.master.log_text())
        for n in self.nodes:
            self.assertTrue(n.alive(), n.stderr_text())
        self.assertIn("<undecodable, 7 bytes>", self.bus.ok("dump", 12))

    def test_unusable_bus_url_stops_start_up_as_a_configuration_error(self):
        config = node_config(self.redis, 0, 1, 1, 2, 1, "CM").replace(
            "redis://127.0.0.1:%d" % self.redis.port, "http://127.0.0.1:1")
        node = BusNode(self.tmp.path, "bad", config)
        self.nodes.append(node)
        code, out, err = node.run_to_exit(timeout=30)
        self.assertEqual(code, 78)
        self.assertEqual(out, "")
        self.assertEqual(err.strip().splitlines()[-1],
                         "%s:2: [bus] url: expected redis://HOST:PORT ('http://127.0.0.1:1')" % node.config_path)
        self.assertNotIn("process begin", node.log_text())


if __name__ == "__main__":
    unittest.main()
