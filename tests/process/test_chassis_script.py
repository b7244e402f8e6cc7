"""scripts/chassis.sh: one command brings up a chassis of four nodes on a
redis-server of its own, the master lists all four, and stop leaves no
process behind."""

import os
import shutil
import subprocess
import unittest

from stovig_proc import BIN_DIR, TempDir, wait_for

REPO = os.environ.get("STOVIG_SOURCE_DIR", os.path.join(os.path.dirname(__file__), "..", ".."))
SCRIPT = os.path.join(REPO, "scripts", "chassis.sh")
SHELL = os.path.join(BIN_DIR, "platform", "tools", "qn-stovig-cli", "qn-stovig-cli")


def processes_mentioning(text):
    """PIDs of the processes whose command line or environment holds text."""
    found = []
    for pid in os.listdir("/proc"):
        if not pid.isdigit() or int(pid) == os.getpid():
            continue
        for part in ("cmdline", "environ"):
            try:
                with open("/proc/%s/%s" % (pid, part), "rb") as f:
                    if text.encode() in f.read():
                        found.append(int(pid))
                        break
            except OSError:
                pass
    return found


@unittest.skipUnless(shutil.which("redis-server") and shutil.which("redis-cli"), "redis-server is not installed")
class ChassisScript(unittest.TestCase):
    def setUp(self):
        self.tmp = TempDir(prefix="stovig-chassis-")
        self.dir = os.path.join(self.tmp.path, "run")
        self.env = dict(os.environ, BUILD_DIR=os.path.abspath(BIN_DIR), CHASSIS_DIR=self.dir,
                        CHASSIS_SECOND_MS="100", CHASSIS_HOST_MASTER="0")
        self.env.pop("STOVIG_CONFIG", None)

    def tearDown(self):
        self.script("stop")
        self.tmp.cleanup()

    def script(self, *args):
        p = subprocess.run([SCRIPT] + list(args), env=self.env, capture_output=True, timeout=120)
        return p.returncode, p.stdout.decode(), p.stderr.decode()

    def show(self):
        env = dict(os.environ, TMPDIR=os.path.join(self.dir, "cm-a", "tmp"))
        env.pop("STOVIG_CONFIG", None)
        p = subprocess.run([SHELL, "-c", "show storage all-info"], env=env, capture_output=True, timeout=20)
        return [line for line in p.stdout.decode().splitlines() if line.startswith("[slot")]

    def test_four_nodes_up_master_lists_them_and_stop_leaves_nothing(self):
        code, out, err = self.script("start")
        self.assertEqual(code, 0, out + err)
        self.assertIn("shell:   TMPDIR=%s/cm-a/tmp " % self.dir, out)
        self.assertIn("stop it all:", out)
        with open(os.path.join(self.dir, "pids")) as f:
            started = [line.split() for line in f]
        self.assertEqual([s[0] for s in started], ["redis", "device-manager", "cm-a", "cm-b", "lc-5", "lc-6"])

        want = ["[slot1 : CM-A]", "[slot2 : CM-B]", "[slot5 : LC-5]", "[slot6 : LC-6]"]
        self.assertTrue(wait_for(lambda: self.show() == want, 60), self.show())
        code, out, _ = self.script("status")
        self.assertEqual(out.count(" running"), 6, out)

        code, out, err = self.script("stop")
        self.assertEqual(code, 0, out + err)
        for name, pid, exe in started:
            try:
                still = os.readlink("/proc/%s/exe" % pid) == exe
            except OSError:
                still = False
            self.assertFalse(still, name)
        self.assertEqual(processes_mentioning(self.dir), [])
        self.assertFalse(os.path.exists(os.path.join(self.dir, "pids")))
        # A second stop has nothing to do.
        code, out, _ = self.script("stop")
        self.assertEqual(code, 0)
        self.assertIn("nothing recorded", out)


if __name__ == "__main__":
    unittest.main()
