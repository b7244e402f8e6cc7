"""Capacity and read-only probes on real file systems.

The driver runs in a private mount namespace (unshare -m); small ext4
images and tmpfs instances are mounted inside it on the watched mount
points under the fixture root (STOVIG_ROOT), so statfs() and the probe
file's open() hit real file systems.  The fixture's /proc/mounts is the
namespace's mount table with the root prefix taken off, and its
/proc/uptime is the real one.  Totals are checked against stat -f, and the
states are driven 0 -> 2 -> 1 -> 0 by filling, emptying and remounting."""

import os
import shutil
import subprocess
import sys
import tempfile
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "helpers_mon"))
from mon_driver import Driver, FLASH_CAPS, namespaces_available, parts  # noqa: E402

USB0, DATA, SD0 = 4, 1, 6


@unittest.skipUnless(shutil.which("mkfs.ext4"), "mkfs.ext4 is not installed")
class RealMounts(unittest.TestCase):
    def setUp(self):
        if not namespaces_available():
            self.skipTest("mount namespaces are not available here (unshare -m failed)")
        self.work = tempfile.mkdtemp(prefix="smon-mnt-")
        self.root = os.path.join(self.work, "root")
        for d in ("proc", "mnt/usb0", "mnt/sd0", "data"):
            os.makedirs(os.path.join(self.root, d))
        os.symlink("/proc/uptime", os.path.join(self.root, "proc", "uptime"))
        with open(os.path.join(self.root, "proc", "mounts"), "w"):
            pass
        for name in ("usb0", "data"):
            img = os.path.join(self.work, name + ".img")
            with open(img, "wb") as f:
                f.truncate(8 * 1024 * 1024)
            subprocess.run(["mkfs.ext4", "-q", "-F", img], check=True, capture_output=True, timeout=60)
        cfg = os.path.join(self.work, "cfg.ini")
        with open(cfg, "w") as f:
            f.write(FLASH_CAPS)
        env = dict(os.environ, STOVIG_ROOT=self.root, STOVIG_CONFIG=cfg, TMPDIR=self.work)
        self.driver = Driver(env, prefix=["unshare", "-m", "--propagation", "private"])
        self.pid = self.driver.proc.pid

    def tearDown(self):
        # The mounts live only in the driver's namespace: they go with it.
        rc = self.driver.close()
        shutil.rmtree(self.work, ignore_errors=True)
        self.assertEqual(rc, 0, "".join(self.driver.err))

    def ns(self, *cmd):
        """Runs a command inside the driver's mount namespace."""
        p = subprocess.run(["nsenter", "-t", str(self.pid), "-m", "--"] + list(cmd), capture_output=True,
                           text=True, timeout=60)
        if p.returncode != 0:
            raise AssertionError("%s failed: %s" % (" ".join(cmd), p.stderr))
        return p.stdout

    def path(self, rel):
        return self.root + rel

    def publish_mounts(self):
        """Writes the fixture mount table from the namespace's own."""
        lines = []
        with open("/proc/%d/mounts" % self.pid) as f:
            for line in f:
                words = line.split()
                if len(words) >= 2 and words[1].startswith(self.root + "/"):
                    words[1] = words[1][len(self.root):]
                    lines.append(" ".join(words) + "\n")
        with open(self.path("/proc/mounts"), "w") as f:
            f.writelines(lines)
        time.sleep(0.06)  # past the mount scan's five-hundredths gate

    def pass_(self, kind):
        self.assertEqual(self.driver.cmd(kind), ["%s 0" % kind])
        time.sleep(0.06)
        return parts(self.driver)

    def stat_f(self, rel):
        blocks, avail, bsize = self.ns("stat", "-f", "-c", "%b %a %s", self.path(rel)).split()
        return int(blocks) * int(bsize) // 1000, (int(blocks) - int(avail)) * int(bsize) // 1000

    def test_capacity_against_stat_and_threshold_states(self):
        self.ns("mount", "-o", "loop", os.path.join(self.work, "usb0.img"), self.path("/mnt/usb0"))
        self.publish_mounts()
        self.driver.cmd("set cap_threshold 50")
        table = self.pass_("cap")
        usb = table[USB0]
        self.assertEqual(usb["mounted"], "1")
        self.assertEqual([t["mounted"] for t in table].count("1"), 1)
        total, used = self.stat_f("/mnt/usb0")
        self.assertEqual((int(usb["total"]), int(usb["used"])), (total, used))
        self.assertEqual(usb["usage"], "0")
        print("usb0: monitor total %s kB used %s kB, stat -f %d / %d" % (usb["total"], usb["used"], total, used))

        # Past 50 %: warning.
        self.ns("dd", "if=/dev/zero", "of=" + self.path("/mnt/usb0/fill"), "bs=1M", "count=5", "conv=fsync",
                "status=none")
        usb = self.pass_("cap")[USB0]
        total, used = self.stat_f("/mnt/usb0")
        self.assertEqual((int(usb["total"]), int(usb["used"])), (total, used))
        self.assertGreaterEqual(used / total, 0.5)
        self.assertEqual(usb["usage"], "2")
        self.assertEqual(self.pass_("cap")[USB0]["usage"], "2")

        # Emptied: 1 for one pass, then 0.
        self.ns("rm", self.path("/mnt/usb0/fill"))
        self.ns("sync")
        self.assertEqual(self.pass_("cap")[USB0]["usage"], "1")
        self.assertEqual(self.pass_("cap")[USB0]["usage"], "0")

        # Unmounted: the entry keeps its last values and is marked absent.
        self.ns("umount", self.path("/mnt/usb0"))
        self.publish_mounts()
        usb = self.pass_("cap")[USB0]
        self.assertEqual(usb["mounted"], "0")
        self.assertEqual(int(usb["total"]), total)

    def test_read_only_states_on_remount(self):
        self.ns("mount", "-o", "loop", os.path.join(self.work, "data.img"), self.path("/data"))
        self.ns("mount", "-t", "tmpfs", "-o", "size=1m", "none", self.path("/mnt/sd0"))
        self.publish_mounts()
        table = self.pass_("ro")
        self.assertEqual((table[DATA]["mounted"], table[DATA]["ro"]), ("1", "0"))
        self.assertEqual(table[SD0]["ro"], "0")
        self.assertIn(".test-readonly", self.ns("ls", "-a", self.path("/data")).split())

        self.ns("mount", "-o", "remount,ro", self.path("/data"))
        self.ns("mount", "-o", "remount,ro", self.path("/mnt/sd0"))
        self.publish_mounts()
        table = self.pass_("ro")
        self.assertEqual(table[DATA]["ro"], "2")
        self.assertEqual(table[SD0]["ro"], "2")
        self.assertEqual(self.pass_("ro")[DATA]["ro"], "2")  # read-only twice: stays 2

        # sd0 comes back writable but without a free inode: the probe fails
        # with ENOSPC, which is not read-only: the state stays as it was.
        self.ns("umount", self.path("/mnt/sd0"))
        self.ns("mount", "-t", "tmpfs", "-o", "size=1m,nr_inodes=1", "none", self.path("/mnt/sd0"))
        self.ns("mount", "-o", "remount,rw", self.path("/data"))
        self.publish_mounts()
        table = self.pass_("ro")
        self.assertEqual(table[DATA]["ro"], "1")
        self.assertEqual(table[SD0]["ro"], "2")
        table = self.pass_("ro")
        self.assertEqual(table[DATA]["ro"], "0")
        self.assertEqual(table[SD0]["ro"], "2")

        self.ns("umount", self.path("/mnt/sd0"))
        self.ns("mount", "-t", "tmpfs", "-o", "size=1m", "none", self.path("/mnt/sd0"))
        self.publish_mounts()
        self.assertEqual(self.pass_("ro")[SD0]["ro"], "1")
        self.assertEqual(self.pass_("ro")[SD0]["ro"], "0")


if __name__ == "__main__":
    unittest.main()
