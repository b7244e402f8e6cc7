"""The shipped systemd unit stays sandboxed: systemd's own assessment rates
it "OK" or better (exposure below 5.0), the settings the daemon relies on are
there, what the operator keeps (the saved configuration, the event log) lives
where systemd does not remove it on stop, and the sandbox changes nothing
the daemon observes (its /tmp, its read-only probe)."""

import os
import re
import shutil
import subprocess
import unittest

from stovig_proc import Node, TempDir, wait_for
from stovig_tools import cli

UNIT = os.path.join(os.environ.get("STOVIG_SOURCE_DIR", os.path.join(os.path.dirname(__file__), "..", "..")),
                    "packaging", "qn-stovig.service")

# The directories a system unit's specifiers stand for (systemd.unit(5)).
SPECIFIERS = {"%t": "/run", "%S": "/var/lib", "%C": "/var/cache", "%L": "/var/log", "%T": "/tmp",
              "%V": "/var/tmp", "%%": "%"}
# Directory settings whose directories systemd keeps when the unit stops,
# with the directory their relative names are under.
KEPT_DIRECTORIES = {"StateDirectory": "/var/lib", "LogsDirectory": "/var/log"}
# Trees whose content does not outlive a stop or a reboot.
VOLATILE_TREES = ("/run", "/tmp", "/var/tmp", "/dev/shm")
# The daemon's watched mount points besides / and /tmp (its partition table).
WATCHED = ("/data", "/data2", "/mnt/sata0", "/mnt/sata1", "/mnt/usb0", "/mnt/usb1", "/mnt/sd0", "/install",
           "/mnt/storage", "/mnt/nfs")


def service_settings(path):
    """The [Service] section: each key with the list of its values, in order."""
    settings = {}
    section = None
    with open(path) as f:
        for raw in f:
            line = raw.strip()
            if not line or line[0] in "#;":
                continue
            if line.startswith("["):
                section = line
                continue
            if section == "[Service]" and "=" in line:
                key, value = line.split("=", 1)
                settings.setdefault(key.strip(), []).append(value.strip())
    return settings


def expand(value):
    return re.sub(r"%.", lambda m: SPECIFIERS.get(m.group(0), m.group(0)), value)


def inside(path, tree):
    path, tree = os.path.normpath(path), os.path.normpath(tree)
    return path == tree or path.startswith(tree.rstrip("/") + "/")


def environment(settings):
    env = {}
    for value in settings.get("Environment", []):
        for item in value.split():
            name, _, val = item.partition("=")
            env[name] = expand(val)
    return env


@unittest.skipUnless(shutil.which("systemd-analyze"), "systemd-analyze is not installed")
class ServiceRating(unittest.TestCase):
    def test_exposure_is_ok_or_better(self):
        p = subprocess.run(["systemd-analyze", "security", "--offline=yes", "--no-pager", UNIT],
                           capture_output=True, text=True, timeout=60)
        m = re.search(r"Overall exposure level for qn-stovig\.service: (\d+\.\d) (\w+)", p.stdout)
        self.assertIsNotNone(m, p.stdout + p.stderr)
        print("exposure: %s %s" % (m.group(1), m.group(2)))
        self.assertLess(float(m.group(1)), 5.0)
        self.assertIn(m.group(2), ("OK", "SAFE", "PERFECT"))


class ServiceUnit(unittest.TestCase):
    def setUp(self):
        self.settings = service_settings(UNIT)
        with open(UNIT) as f:
            self.text = f.read()

    def test_restart_policy_and_privileges(self):
        for line in ("NoNewPrivileges=yes", "RestartPreventExitStatus=78", "Restart=always", "UMask=0077"):
            self.assertIn("\n" + line + "\n", self.text)

    def test_saved_configuration_and_event_log_survive_a_stop(self):
        env = environment(self.settings)
        # The shipped unit names no config file, so startup_file and
        # events_file are the defaults: <run dir>/startup-config and
        # <run dir>/stovig-events.log, the run directory $TMPDIR/stovig/.
        self.assertNotIn("STOVIG_CONFIG", env, "a shipped config file would move the files; check it here")
        self.assertIn("TMPDIR", env)
        run_dir = os.path.join(env["TMPDIR"], "stovig")
        kept = [os.path.join(base, expand(name))
                for key, base in KEPT_DIRECTORIES.items()
                for value in self.settings.get(key, []) for name in value.split()]
        removed = [os.path.join("/run", expand(name))
                   for value in self.settings.get("RuntimeDirectory", []) for name in value.split()]
        if self.settings.get("RuntimeDirectoryPreserve", ["no"])[-1] in ("yes", "true", "1"):
            removed = []
        print("run directory: %s (kept: %s)" % (run_dir, kept))
        for name in ("startup-config", "startup-config.sav", "stovig-events.log", "stovig.log"):
            path = os.path.join(run_dir, name)
            self.assertTrue(any(inside(path, d) for d in kept), "%s is not in a directory systemd keeps" % path)
            for tree in VOLATILE_TREES + tuple(removed):
                self.assertFalse(inside(path, tree), "%s is under %s, gone after a stop or a reboot" % (path, tree))
        # The run directory's checks: owned by root, nobody else may write it
        # or its parents.
        self.assertEqual(self.settings.get("StateDirectoryMode"), ["0700"])
        self.assertNotIn("User", self.settings)
        self.assertNotIn("DynamicUser", self.settings)

    def test_tmp_is_the_hosts_own(self):
        # A private /tmp is a mount of its own: the partition entry "tmp"
        # would always count as mounted.
        self.assertNotIn(self.settings.get("PrivateTmp", ["no"])[-1], ("yes", "true", "1", "disconnected"))

    def test_probe_keeps_its_capabilities_and_writable_mount_points(self):
        caps = " ".join(self.settings.get("CapabilityBoundingSet", [])).split()
        for cap in ("CAP_NET_ADMIN", "CAP_SYS_ADMIN", "CAP_SYS_RAWIO", "CAP_DAC_OVERRIDE", "CAP_FOWNER"):
            self.assertIn(cap, caps)
        writable = [p.lstrip("-") for value in self.settings.get("ReadWritePaths", []) for p in value.split()]
        for mount_point in WATCHED:
            self.assertIn(mount_point, writable)
        # / stays writable for its probe file.
        self.assertNotIn(self.settings.get("ProtectSystem", ["no"])[-1], ("strict",))


class StateDirectoryLayout(unittest.TestCase):
    """The daemon in the unit's layout, under a fixture tree: TMPDIR is the
    state directory (mode 0700, made by systemd), the shell reaches it with
    the same TMPDIR, and what was saved is there again after a stop, the
    directory being kept."""

    def setUp(self):
        self.tmp = TempDir(prefix="stovig-unit-")
        self.state = os.path.join(self.tmp.path, "var", "lib", "qn-stovig")
        os.makedirs(self.state, mode=0o700)
        os.chmod(self.state, 0o700)
        self.node = None

    def tearDown(self):
        if self.node:
            self.node.stop()
        self.tmp.cleanup()

    def start(self):
        self.node = Node(self.tmp.path, "unit", env={"TMPDIR": self.state})
        self.node.run_dir = os.path.join(self.state, "stovig")
        self.node.start()
        sock = os.path.join(self.node.run_dir, "cli.sock")
        self.assertTrue(wait_for(lambda: os.path.exists(sock), timeout=20),
                        "no command socket in %s" % self.node.run_dir)

    def cli(self, *commands):
        return cli(dict(os.environ, TMPDIR=self.state), *commands, timeout=30, text=True)

    def test_saved_configuration_is_replayed_after_a_stop(self):
        self.start()
        self.assertEqual(self.cli("configure terminal", "storage capacity set threshold 70", "end",
                                  "write memory")[0], 0)
        saved = os.path.join(self.node.run_dir, "startup-config")
        self.assertTrue(os.path.isfile(saved))
        self.node.stop()
        self.start()
        self.assertTrue(wait_for(lambda: "storage capacity set threshold 70" in self.cli("show running-config")[1]))
        self.assertEqual(os.stat(self.node.run_dir).st_mode & 0o777, 0o700)


if __name__ == "__main__":
    unittest.main()
