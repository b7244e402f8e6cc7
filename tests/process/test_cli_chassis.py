"""show storage capacity on the master of a chassis on Redis: a control
module and two line cards, qn-bus playing the device manager.  The master
lists the nodes in user-slot order with their slot and card names; a line
card set offline disappears from the output."""

import os
import unittest

from bus_helpers import BusNode, QnBus, RedisServer, node_config, write_inventory
from stovig_proc import TempDir, wait_for
from stovig_tools import cli


INVENTORY = ("slot=1 user_slot=1 type=cm name=CM-A master=1\n"
             "slot=5 user_slot=3 type=lc name=LC-48X\n"
             "slot=4 user_slot=2 type=lc name=LC-24X\n")

RULE = "===============================================\n"
DASHES = "--------------------------------------------------------------\n"
HEADER = " Name       Total(KB)       Used(KB)    Used Rate      Status\n"


def section(slot, card):
    # Nothing is mounted on these quiet nodes: every partition is absent, so
    # the table has its header alone.
    return RULE + "[slot%d : %s]\n\n" % (slot, card) + DASHES + HEADER + "\n\n"


class ChassisShow(unittest.TestCase):
    def setUp(self):
        self.tmp = TempDir(prefix="scli-ch-")
        self.redis = RedisServer(self.tmp.path)
        self.redis.start()
        self.bus = QnBus(self.tmp.path, self.redis)
        self.master = BusNode(self.tmp.path, "cm", node_config(self.redis, 0, 1, 1, 2, 0, "CM"))
        self.cards = [BusNode(self.tmp.path, "lc5", node_config(self.redis, 0, 5, 3, 3, 0, "LC")),
                      BusNode(self.tmp.path, "lc4", node_config(self.redis, 0, 4, 2, 3, 0, "LC"))]

    def tearDown(self):
        for n in [self.master] + self.cards:
            n.stop()
        self.redis.stop()
        self.tmp.cleanup()

    def cli(self, *commands):
        return cli(self.master.env, *commands)

    def test_nodes_in_user_slot_order_and_offline_card_leaves(self):
        for n in [self.master] + self.cards:
            n.start()
        for n in [self.master] + self.cards:
            self.assertTrue(n.wait_log("reconnect to MOM(12)"), n.log_text())
        self.bus.ok("inventory", write_inventory(self.tmp.path, INVENTORY))
        want = section(1, "CM-A") + section(2, "LC-24X") + section(3, "LC-48X")
        self.assertTrue(wait_for(lambda: self.cli("show storage capacity")[1] == want, timeout=30),
                        self.cli("show storage capacity")[1])
        # A line card has no command line.
        self.assertFalse(os.path.exists(os.path.join(self.cards[0].run_dir, "cli.sock")))
        self.bus.ok("offline", 5)
        want = section(1, "CM-A") + section(2, "LC-24X")
        self.assertTrue(wait_for(lambda: self.cli("show storage capacity")[1] == want, timeout=20),
                        self.cli("show storage capacity")[1])


if __name__ == "__main__":
    unittest.main()
