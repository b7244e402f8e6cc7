"""A chassis on Redis: a master control module, a standby control module
and a line card, each a daemon with its own run directory and config, with
qn-bus playing the device manager."""

import time
import unittest

from bus_helpers import BusNode, QnBus, RedisServer, node_config, write_inventory
from stovig_proc import TempDir, wait_for

ALL_THREE = "local_list now: [0,1,0 uslot 1] [0,2,0 uslot 2] [0,5,0 uslot 3]"


class Chassis(unittest.TestCase):
    def setUp(self):
        self.tmp = TempDir(prefix="sbus-c-")
        self.redis = RedisServer(self.tmp.path)
        self.redis.start()
        self.bus = QnBus(self.tmp.path, self.redis)
        self.nodes = []
        # Control modules learn their role from the bus (role 0 until then).
        self.cm_a = self.node("cm-a", 1, 1, 2, 0, "CM")
        self.cm_b = self.node("cm-b", 2, 2, 2, 0, "CM")
        self.lc = self.node("lc", 5, 3, 3, 0, "LC")

    def tearDown(self):
        for n in self.nodes:
            n.stop()
        self.redis.stop()
        self.tmp.cleanup()

    def node(self, name, slot, user_slot, node_type, role, dev_type):
        n = BusNode(self.tmp.path, name, node_config(self.redis, 0, slot, user_slot, node_type, role, dev_type))
        self.nodes.append(n)
        return n

    def start_chassis(self):
        for n in self.nodes:
            n.start()
        for n in self.nodes:
            self.assertTrue(n.wait_log("reconnect to MOM(12)"), n.log_text())
        self.bus.ok("inventory", write_inventory(self.tmp.path))

    def test_master_lists_all_three_nodes_in_user_slot_order(self):
        self.start_chassis()
        self.assertTrue(self.cm_a.wait_log("handle master process."), self.cm_a.log_text())
        self.assertTrue(self.cm_a.wait_log(ALL_THREE), self.cm_a.log_text())
        # The role comes from the role record, read by the devinfo timer or
        # received by the role subscription, whichever sees it first.
        text = self.cm_a.log_text()
        self.assertTrue("get local role[1]" in text or "get role[1]." in text, text)
        self.assertIn("subscribe card info success", self.cm_a.log_text())
        # The standby and the line card take no master duties.
        self.assertTrue(self.cm_b.wait_log("all local information is ready."), self.cm_b.log_text())
        self.assertTrue(self.lc.wait_log("all local information is ready."), self.lc.log_text())
        time.sleep(1.0)
        self.assertNotIn("handle master process.", self.cm_b.log_text())
        self.assertNotIn("handle master process.", self.lc.log_text())
        self.assertNotIn("local_list now:", self.lc.log_text())
        for n in self.nodes:
            self.assertTrue(n.alive())

    def test_line_card_set_offline_leaves_the_masters_list(self):
        self.start_chassis()
        self.assertTrue(self.cm_a.wait_log(ALL_THREE), self.cm_a.log_text())
        self.bus.ok("offline", 5)
        self.assertTrue(self.cm_a.wait_log("detect deivce [0,5,0] offline."), self.cm_a.log_text())
        self.assertTrue(self.cm_a.wait_log("local_list now: [0,1,0 uslot 1] [0,2,0 uslot 2]\n"), self.cm_a.log_text())
        self.assertIn("remove node[0,5,0] from list.", self.cm_a.log_text())
        # Back online: listed again, in its place.
        self.bus.ok("online", 5)
        self.assertTrue(self.cm_a.wait_count(ALL_THREE, 2), self.cm_a.log_text())

    def test_moving_the_master_role_starts_master_duties_on_the_new_master(self):
        self.start_chassis()
        self.assertTrue(self.cm_a.wait_log("handle master process."), self.cm_a.log_text())
        self.assertTrue(self.cm_b.wait_log("all local information is ready."), self.cm_b.log_text())
        self.assertNotIn("handle master process.", self.cm_b.log_text())
        self.bus.ok("master", 2)
        self.assertTrue(self.cm_b.wait_log("get role[1]."), self.cm_b.log_text())
        self.assertTrue(self.cm_b.wait_log("handle master process."), self.cm_b.log_text())
        self.assertTrue(self.cm_b.wait_log("subscribe card info success"), self.cm_b.log_text())
        # The new master lists itself first, then the others by user slot.
        self.assertTrue(self.cm_b.wait_log("local_list now: [0,2,0 uslot 2] [0,1,0 uslot 1] [0,5,0 uslot 3]"),
                        self.cm_b.log_text())
        self.assertTrue(self.cm_a.wait_log("get role[2]."), self.cm_a.log_text())
        self.assertEqual(self.cm_a.log_text().count("handle master process."), 1)

    def test_dump_shows_the_records_decoded(self):
        self.start_chassis()
        self.bus.ok("upgrade", 3)
        self.bus.ok("issu", 1)
        out = self.bus.ok("dump", 1)
        self.assertIn('qnmom:1:p_dev.card_info:5 {index: {t_mod: 5, devid: 0, slotid: 5, sslotid: 0}', out)
        self.assertIn('name: "LC-48X"', out)
        self.assertIn("qnmom:1:p_dev.dp_lib_grole:@0.1 {dev_num: 1, my_grole: DM_ROLE_MASTER", out)
        self.assertIn("qnmom:3:p_utils.upgrade_global_status: {status: G_STATUS_UPGRADING",
                      self.bus.ok("dump", 3))
        self.assertIn("qnmom:12:p_utils.issu_n_global_info: {state: ISSU_N_GLOBAL_STATE_UPGRADING",
                      self.bus.ok("dump", 12))
        # The master follows both upgrade records.
        self.assertTrue(self.cm_a.wait_log("it is upgrading now"), self.cm_a.log_text())
        self.assertTrue(self.cm_a.wait_log("it is issu upgrading now"), self.cm_a.log_text())

    def test_bad_inventory_and_command_lines_are_refused_clearly(self):
        bad = write_inventory(self.tmp.path, "slot=1 user_slot=1 type=xx\n")
        code, _, err = self.bus.run("inventory", bad)
        self.assertEqual(code, 2)
        self.assertIn("chassis.inv:1: bad field 'type=xx'", err)
        code, _, err = self.bus.run("offline", "x")
        self.assertEqual(code, 2)
        self.assertIn("bad command line", err)
        code, _, err = self.bus.run("offline", 9)
        self.assertEqual(code, 1)
        self.assertIn("no card in slot 9 of device 0 on the bus", err)
        code, out, _ = self.bus.run("--help")
        self.assertEqual(code, 0)
        self.assertIn("Inventory file", out)


if __name__ == "__main__":
    unittest.main()
