"""A store that comes back from an older saved copy of itself (same
lifetime, older records): the master writes its configuration record
again, so the nodes started afterwards read the values it holds."""

import os
import unittest

from heal_helpers import Chassis, ChassisTest
from stovig_proc import wait_for

CONF_KEY = "qnmom:33:p_utils.stovig_smpl_intrl:0.0.0.0"


def cm_node(slot):
    return (slot, slot, 2, "CM", None, [])


class Rollback(ChassisTest):
    work_prefix = "stovig-rollback-"

    def conf(self):
        """The configuration record as qn-bus prints it."""
        for line in self.chassis.bus("dump", 33).splitlines():
            if line.startswith(CONF_KEY + " "):
                return line
        return ""

    def set_threshold(self, value):
        status, out, err = self.chassis.cli("cm-a", "configure terminal",
                                            "storage capacity set interval 60 threshold %d" % value, "end")
        self.assertEqual(status, 0, out + err)

    def test_master_writes_its_configuration_again_after_a_restart_from_an_older_copy(self):
        c = self.chassis = Chassis(self.work, {"cm-a": cm_node(1)})
        m = c["cm-a"]
        self.assertTrue(m.wait_log("unsubscribe PUtils__StovigSmplIntrl success", 30), m.log_text()[-3000:])
        self.set_threshold(70)
        self.assertTrue(wait_for(lambda: "part_cap_thrshd: 70" in self.conf(), 20), self.conf())
        self.assertEqual(c.redis.cli("SAVE"), "OK")
        self.set_threshold(65)
        self.assertTrue(wait_for(lambda: "part_cap_thrshd: 65" in self.conf(), 20), self.conf())

        # redis-server restarts and loads the copy saved before the change.
        c.redis.stop()
        self.assertTrue(os.path.exists(os.path.join(c.redis.dir, "dump.rdb")))
        c.redis.start()
        self.assertTrue(wait_for(lambda: "part_cap_thrshd: 65" in self.conf(), 20), self.conf())
        self.assertIn("came back from an older copy: writing back the", m.stderr_text())


if __name__ == "__main__":
    unittest.main()
