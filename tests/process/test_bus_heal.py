"""A chassis heals through starts and outages of its store: a real
redis-server on loopback, the device manager kept on the bus by
qn-bus inventory --keep, a master control module and a line card (with real
file systems in its own mount namespace where a test needs them).

Each test forces the order of events it is about: redis-server is stopped
and started again empty (no persistence), and the master is paused
(SIGSTOP) where it must come back to the store after the others."""

import os
import shutil
import subprocess
import sys
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "helpers_mon"))
from heal_helpers import Chassis, ChassisTest, events, line_times  # noqa: E402
from mon_driver import namespaces_available  # noqa: E402
from records_helpers import CAP_PASS, IO_SENT, RO_PASS, DiskFeed  # noqa: E402
from stovig_proc import wait_for  # noqa: E402

UNSHARE = ["unshare", "-m", "--propagation", "private"]


def lc_node(prefix=()):
    return (5, 3, 3, "LC", None, list(prefix))


def cm_node(slot, second_ms=100):
    return (slot, slot, 2, "CM", "[loop]\nsecond_ms = %d\n" % second_ms, [])


class Heal(ChassisTest):
    work_prefix = "stovig-heal-"

    def start(self, nodes):
        self.chassis = Chassis(self.work, nodes)
        return self.chassis

    # The line card's own mount namespace, as in the records tests.
    def ns(self, lc, *cmd):
        p = subprocess.run(["nsenter", "-t", str(lc.proc.pid), "-m", "--"] + list(cmd), capture_output=True,
                           text=True, timeout=60)
        if p.returncode != 0:
            raise AssertionError("%s failed: %s" % (" ".join(cmd), p.stderr))
        return p.stdout

    def publish_mounts(self, lc):
        lines = []
        with open("/proc/%d/mounts" % lc.proc.pid) as f:
            for line in f:
                words = line.split()
                if len(words) >= 2 and words[1].startswith(lc.root + "/"):
                    words[1] = words[1][len(lc.root):]
                    lines.append(" ".join(words) + "\n")
        tmp = os.path.join(lc.root, "proc", "mounts.new")
        with open(tmp, "w") as f:
            f.writelines(lines)
        os.replace(tmp, os.path.join(lc.root, "proc", "mounts"))

    def mount_image(self, lc, name, where):
        img = os.path.join(self.work, name + ".img")
        with open(img, "wb") as f:
            f.truncate(8 * 1024 * 1024)
        subprocess.run(["mkfs.ext4", "-q", "-F", img], check=True, capture_output=True, timeout=60)
        self.ns(lc, "mount", "-o", "loop", img, lc.root + where)
        self.publish_mounts(lc)

    def passes(self, node, text, more, timeout=60):
        self.assertTrue(node.wait_count(text, node.count(text) + more, timeout), text)

    def test_saved_configuration_reaches_every_node_after_a_cold_start_with_an_empty_store(self):
        c = self.start({"cm-a": cm_node(1), "cm-b": cm_node(2), "lc": lc_node()})
        m, standby, lc = c["cm-a"], c["cm-b"], c["lc"]
        self.assertTrue(lc.wait_log("subscribe PUtils__StovigSmplIntrl success", 30), lc.log_text()[-3000:])
        self.assertTrue(m.wait_log("unsubscribe PUtils__StovigSmplIntrl success", 30), m.log_text()[-3000:])
        status, out, err = c.cli("cm-a", "configure terminal", "storage capacity set interval 60 threshold 70",
                                 "storage io set threshold 60", "end", "write memory")
        self.assertEqual(status, 0, out + err)
        self.assertTrue(lc.wait_log("reset cap threshold from 80 to 70.", 30), lc.log_text()[-3000:])

        # The whole chassis goes down; the store comes back empty.
        for n in (lc, standby, m):
            n.stop()
        c.keeper.stop()
        c.restart_store()
        applied_lines = ("reset cap threshold from 80 to 70.", "reset io threshold from 50 to 60.",
                         "reset cap interval from 30 to 60.")
        before = {(n, t): n.count(t) for n in (lc, standby) for t in applied_lines}
        sends = m.count("SEND conf from mom with ret[0]")
        c.keeper.start()
        for n in (m, standby, lc):
            n.start()
        # The master replays its saved lines before its configuration
        # database is connected, and publishes once its subscriptions stand.
        self.assertTrue(m.wait_count("QN_MOM_DEV_DB is not connect ready.", 1, 30), m.log_text()[-3000:])
        self.assertTrue(m.wait_count("SEND conf from mom with ret[0]", sends + 1, 30), m.log_text()[-3000:])
        for n in (lc, standby):
            for t in applied_lines:
                self.assertTrue(n.wait_count(t, before[(n, t)] + 1, 30), t + "\n" + n.log_text()[-3000:])
        sent = line_times(m, "SEND conf from mom with ret[0]")[-1]
        ends = line_times(m, "handle master process.")[-1]
        applied = [line_times(n, "reset cap threshold from 80 to 70.")[-1] for n in (lc, standby)]
        print("cold start: master timer's last run %.2f s before it published; line card and standby applied "
              "%.2f s and %.2f s after (a master-timer period is 0.50 s here)"
              % (sent - ends, applied[0] - sent, applied[1] - sent))
        self.assertTrue(all(t >= sent for t in applied))

    @unittest.skipUnless(shutil.which("mkfs.ext4"), "mkfs.ext4 missing")
    def test_link_lost_between_identity_and_master_timer_still_lists_every_node_and_the_full_partition(self):
        if not namespaces_available():
            self.skipTest("mount namespaces are not available here")
        # The master's timer second is a real second, so its master timer
        # comes 5 s after its identity is ready: time to cut the link in
        # between, even though debug lines reach the log up to 1 s late.
        c = self.start({"cm-a": cm_node(1, 1000), "lc": lc_node(UNSHARE)})
        m, lc = c["cm-a"], c["lc"]
        self.assertTrue(lc.wait_log("all local information is ready.", 30), lc.log_text()[-3000:])
        self.mount_image(lc, "data", "/data")
        blocks, avail, bsize = self.ns(lc, "stat", "-f", "-c", "%b %a %s", lc.root + "/data").split()
        need = int(0.87 * int(blocks) - (int(blocks) - int(avail))) * int(bsize)
        self.ns(lc, "dd", "if=/dev/zero", "of=" + lc.root + "/data/fill", "bs=4096",
                "count=%d" % (need // 4096 + 1), "conv=fsync", "status=none")

        self.assertTrue(wait_for(lambda: "all local information is ready." in m.log_text(), 60, 0.02),
                        m.log_text()[-3000:])
        cut = time.time()
        c.redis.stop()
        stopped = time.time()
        self.assertTrue(m.wait_log("not all master sub operation is ready.", 30), m.log_text()[-3000:])
        # The log's own times, not what has reached the file yet, say whether
        # the master timer first ran after the link was cut.
        timers = line_times(m, "handle master process.")
        self.assertTrue(timers and timers[0] > cut,
                        "the master timer ran before the link was cut: %s, cut at %s" % (timers[:1], cut))
        self.assertNotIn("subscribe card info success", m.log_text())
        time.sleep(max(0.0, 5.0 - (time.time() - stopped)))
        back = c.restart_store()

        want = "slot3 High partition flash usage: "
        self.assertTrue(wait_for(lambda: any(e.startswith(want) for e in events(m, "res_part_vol_warning_task")),
                                 120), m.log_text()[-3000:])
        reported = time.time()
        status, out, err = c.cli("cm-a", "show storage all-info")
        self.assertEqual(status, 0, err)
        self.assertEqual([l for l in out.splitlines() if l.startswith("[slot")],
                         ["[slot1 : CM-A]", "[slot2 : CM-B]", "[slot3 : LC-48X]"])
        self.assertRegex(out, r" flash\s.*Warning")
        self.passes(lc, CAP_PASS, 2)
        self.assertEqual(len(events(m, "res_part_vol_warning_task")), 1, events(m, "res_part_vol_warning_task"))
        subscribed = line_times(m, "subscribe part volume success")[-1]
        print("link back after %.1f s down; master subscribed %.2f s later (master-timer period 5 s), "
              "full partition reported %.2f s after the link came back"
              % (back - stopped, subscribed - back, reported - back))

    @unittest.skipUnless(shutil.which("mkfs.ext4"), "mkfs.ext4 missing")
    def test_read_only_partition_that_recovers_during_a_store_outage_gives_both_lines_once(self):
        if not namespaces_available():
            self.skipTest("mount namespaces are not available here")
        c = self.start({"cm-a": cm_node(1), "lc": lc_node(UNSHARE)})
        m, lc = c["cm-a"], c["lc"]
        self.assertTrue(m.wait_log("subscribe part read-only success", 30), m.log_text()[-3000:])
        self.assertTrue(lc.wait_log("all local information is ready.", 30), lc.log_text()[-3000:])
        self.mount_image(lc, "usb0", "/mnt/usb0")
        self.passes(lc, RO_PASS, 2)

        c.redis.stop()
        down = time.time()
        self.ns(lc, "mount", "-o", "remount,ro", lc.root + "/mnt/usb0")
        self.publish_mounts(lc)
        self.passes(lc, RO_PASS, 2)
        self.ns(lc, "mount", "-o", "remount,rw", lc.root + "/mnt/usb0")
        self.publish_mounts(lc)
        self.passes(lc, RO_PASS, 2)
        # The master comes back to the store last, after the line card has
        # delivered everything it kept.
        c.pause("cm-a")
        time.sleep(max(0.0, 10.0 - (time.time() - down)))
        c.restart_store()
        key = "qnmom:12:p_utils.stovig_part_ro:0.5.0.0"
        self.assertTrue(wait_for(lambda: c.redis.cli("EXISTS", key) == "1", 20), lc.stderr_text())
        self.assertTrue(wait_for(lambda: "link to the store is back" in lc.stderr_text(), 10))
        time.sleep(1.0)
        resumed = time.time()
        c.resume("cm-a")

        want = ["slot3 Partition usb0 is readonly.", "slot3 Partition usb0 read and write returned to normal."]
        self.assertTrue(wait_for(lambda: len(events(m, "res_part_ro_warning_task")) >= 2, 30), m.log_text()[-3000:])
        caught_up = time.time()
        self.passes(lc, RO_PASS, 2)
        self.assertEqual(events(m, "res_part_ro_warning_task"), want)
        print("store down %.1f s; both lines on the master %.2f s after it resumed" % (resumed - down,
                                                                                     caught_up - resumed))

    def test_upgrade_gate_follows_the_upgrade_record_written_while_the_master_was_away(self):
        c = self.start({"cm-a": cm_node(1), "lc": lc_node()})
        m, lc = c["cm-a"], c["lc"]
        feed = DiskFeed(lc.root)
        feed.start()
        try:
            self.assertTrue(m.wait_log("subscribe io success", 30), m.log_text()[-3000:])
            self.passes(lc, IO_SENT, 2)
            c.bus("upgrade", 3)
            self.assertTrue(m.wait_log("it is upgrading now", 30), m.log_text()[-3000:])
            feed.busy = True
            self.assertTrue(lc.wait_log("io warning reach three times!", 30), lc.log_text()[-3000:])
            self.passes(lc, IO_SENT, 3)
            self.assertEqual(events(m, "res_disk_io_warning_save_task"), [])

            # The upgrade ends while the store restarts and the master is away.
            c.pause("cm-a")
            c.restart_store()
            c.bus("upgrade", 0)
            self.passes(lc, IO_SENT, 2)
            gate_opened = m.count("upgrade flag : 0")
            c.resume("cm-a")
            self.assertTrue(m.wait_count("upgrade flag : 0", gate_opened + 1, 30), m.log_text()[-3000:])
            self.assertTrue(wait_for(lambda: events(m, "res_disk_io_warning_save_task"), 30), m.log_text()[-3000:])
            self.passes(lc, IO_SENT, 3)
            lines = events(m, "res_disk_io_warning_save_task")
            self.assertEqual(len(lines), 1, lines)
            self.assertRegex(lines[0], r"^slot3 High disk sda I/O read: .* I/O usage: 9\d\.\d\d%\.$")
        finally:
            feed.stop()


if __name__ == "__main__":
    unittest.main()
