"""A stand-alone box on a fixture tree: an eMMC disk in diskstats with its
EXT_CSD dump and power-on time, and /data a 4 MiB tmpfs mounted in a private
mount namespace of the daemon, so that every figure is known and filling
/data crosses the capacity threshold."""

import os
import shutil
import stat
import subprocess

from stovig_proc import DAEMON, Node

MOUNT = shutil.which("mount", path="/usr/bin:/bin")


def unavailable():
    """Why such a box cannot run here, or None."""
    if os.geteuid() != 0 or shutil.which("unshare") is None or MOUNT is None:
        return "needs root, unshare and mount for a private tmpfs"
    probe = subprocess.run(["unshare", "-m", "true"], capture_output=True)
    if probe.returncode != 0:
        return "mount namespaces unavailable: %s" % probe.stderr.decode().strip()
    return None


def box_node(base, config, files=None):
    """The fixture tree under base/root (plus `files`, path -> text) and a
    Node for it whose mount and umount (the debugfs remount) do nothing."""
    root = os.path.join(base, "root")
    csd = ["0"] * 1024
    csd[537] = "1"  # DEVICE_LIFE_TIME_EST_TYP_A = 0x01: 5 % worn
    tree = {
        "/proc/mounts": "/dev/mmcblk0p2 / ext4 rw 0 0\ntmpfs /data tmpfs rw 0 0\n",
        "/proc/uptime": "1000.00 10.00\n",
        "/proc/diskstats": " 179       0 mmcblk0 100 0 2000 50 300 0 6000 900 0 800 950 0 0 0 0 0 0\n"
                           " 179       2 mmcblk0p2 100 0 2000 50 300 0 6000 900 0 800 950 0 0 0 0 0 0\n",
        "/sys/kernel/debug/mmc0/mmc0:0001/ext_csd": "".join(csd) + "\n",
        "/etc/mtab": "",
    }
    tree.update(files or {})
    for rel, text in tree.items():
        os.makedirs(os.path.dirname(root + rel), exist_ok=True)
        with open(root + rel, "w") as f:
            f.write(text)
    os.makedirs(root + "/sys/block/mmcblk0")
    os.makedirs(root + "/data")
    bindir = os.path.join(base, "bin")
    os.makedirs(bindir)
    for tool in ("mount", "umount"):
        path = os.path.join(bindir, tool)
        with open(path, "w") as f:
            f.write("#!/bin/sh\nexit 0\n")
        os.chmod(path, stat.S_IRWXU)
    return Node(base, "box", config=config, root=root, env={"PATH": bindir + ":" + os.environ["PATH"]})


def start_box(node, stdout=subprocess.PIPE, stderr=subprocess.PIPE):
    """Starts the daemon in a private mount namespace with the tmpfs on
    /data; the daemon keeps the process id of the returned Popen."""
    script = ('%s -t tmpfs -o size=4m tmpfs "$STOVIG_ROOT/data" && '
              'printf 25920000 > "$STOVIG_ROOT/data/.uptime" && exec "%s"' % (MOUNT, DAEMON))
    node.proc = subprocess.Popen(["unshare", "-m", "--propagation", "private", "sh", "-c", script],
                                 env=node.env, stdout=stdout, stderr=stderr, start_new_session=True)
    return node.proc
