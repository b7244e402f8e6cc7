"""scripts/chassis.sh: one command brings up a chassis of four nodes on a
redis-server of its own, the master lists all four, and stop leaves no
process behind."""

import os
import pwd
import shutil
import subprocess
import unittest

from stovig_proc import BIN_DIR, TempDir, wait_for
from stovig_tools import QN_BUS, SHELL

REPO = os.environ.get("STOVIG_SOURCE_DIR", os.path.join(os.path.dirname(__file__), "..", ".."))
SCRIPT = os.path.join(REPO, "scripts", "chassis.sh")


def start_time(pid):
    """Field 22 of /proc/PID/stat (counted after the name's last ')'), or
    None when pid does not run or is a zombie."""
    try:
        with open("/proc/%s/stat" % pid) as f:
            fields = f.read().rsplit(")", 1)[1].split()
    except OSError:
        return None
    return None if fields[0] == "Z" else fields[19]


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
            started = [line.rstrip("\n").split(" ", 3) for line in f]
        self.assertEqual([s[0] for s in started], ["redis", "device-manager", "cm-a", "cm-b", "lc-5", "lc-6"])
        # Each recorded as the program it runs, with its start time, leading
        # a session of its own.
        for name, pid, start, exe in started:
            self.assertEqual(os.readlink("/proc/%s/exe" % pid), exe, name)
            self.assertEqual(start_time(pid), start, name)
            self.assertEqual(os.getsid(int(pid)), int(pid), name)
        self.assertEqual([s[3] for s in started[1:]],
                         [os.path.realpath(QN_BUS)] +
                         [os.path.realpath(os.path.join(BIN_DIR, "src", "qn-stovig"))] * 4)

        want = ["[slot1 : CM-A]", "[slot2 : CM-B]", "[slot5 : LC-5]", "[slot6 : LC-6]"]
        self.assertTrue(wait_for(lambda: self.show() == want, 60), self.show())
        code, out, _ = self.script("status")
        self.assertEqual(out.count(" running"), 6, out)

        code, out, err = self.script("stop")
        self.assertEqual(code, 0, out + err)
        for name, pid, start, exe in started:
            self.assertNotEqual(start_time(pid), start, name)
        self.assertEqual(processes_mentioning(self.dir), [])
        self.assertFalse(os.path.exists(os.path.join(self.dir, "pids")))
        # A second stop has nothing to do.
        code, out, _ = self.script("stop")
        self.assertEqual(code, 0)
        self.assertIn("nothing recorded", out)

    def test_a_state_directory_that_is_a_symlink_is_refused(self):
        elsewhere = os.path.join(self.tmp.path, "elsewhere")
        os.mkdir(elsewhere)
        os.chmod(elsewhere, 0o755)
        os.symlink(elsewhere, self.dir)
        code, out, err = self.script("start")
        self.assertEqual(code, 1, out + err)
        self.assertEqual(err, "chassis: %s is a symlink or not owned by %s; choose another CHASSIS_DIR\n"
                         % (self.dir, pwd.getpwuid(os.geteuid()).pw_name))
        self.assertEqual(os.listdir(elsewhere), [])
        self.assertEqual(os.stat(elsewhere).st_mode & 0o777, 0o755)

    def test_stop_and_status_leave_a_process_alone_whose_start_time_differs(self):
        # A pid recorded once, now another process's: it must not be touched.
        other = subprocess.Popen(["sleep", "60"])
        try:
            os.makedirs(self.dir, mode=0o700)
            with open(os.path.join(self.dir, "pids"), "w") as f:
                f.write("lc-5 %d 1 %s\n" % (other.pid, os.path.realpath(shutil.which("sleep"))))
            code, out, _ = self.script("status")
            self.assertEqual(out, "lc-5 pid %d gone\n" % other.pid)
            code, out, err = self.script("stop")
            self.assertEqual(code, 0, out + err)
            self.assertEqual(out, "")
            self.assertIsNone(other.poll())
            self.assertFalse(os.path.exists(os.path.join(self.dir, "pids")))
        finally:
            other.kill()
            other.wait()


if __name__ == "__main__":
    unittest.main()
