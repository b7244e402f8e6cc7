"""The shipped systemd unit stays sandboxed: systemd's own assessment rates
it "OK" or better (exposure below 5.0), and the settings the daemon relies
on are there."""

import os
import re
import shutil
import subprocess
import unittest

UNIT = os.path.join(os.environ.get("STOVIG_SOURCE_DIR", os.path.join(os.path.dirname(__file__), "..", "..")),
                    "packaging", "qn-stovig.service")


@unittest.skipUnless(shutil.which("systemd-analyze"), "systemd-analyze is not installed")
class ServiceUnit(unittest.TestCase):
    def test_exposure_is_ok_or_better(self):
        p = subprocess.run(["systemd-analyze", "security", "--offline=yes", "--no-pager", UNIT],
                           capture_output=True, text=True, timeout=60)
        m = re.search(r"Overall exposure level for qn-stovig\.service: (\d+\.\d) (\w+)", p.stdout)
        self.assertIsNotNone(m, p.stdout + p.stderr)
        print("exposure: %s %s" % (m.group(1), m.group(2)))
        self.assertLess(float(m.group(1)), 5.0)
        self.assertIn(m.group(2), ("OK", "SAFE", "PERFECT"))

    def test_run_directory_and_restart_policy(self):
        with open(UNIT) as f:
            text = f.read()
        for line in ("RuntimeDirectory=qn-stovig", "RuntimeDirectoryMode=0700", "Environment=TMPDIR=%t/qn-stovig",
                     "PrivateTmp=yes", "NoNewPrivileges=yes", "RestartPreventExitStatus=78",
                     "CapabilityBoundingSet=CAP_NET_ADMIN CAP_SYS_ADMIN CAP_SYS_RAWIO"):
            self.assertIn("\n" + line + "\n", text)


if __name__ == "__main__":
    unittest.main()
