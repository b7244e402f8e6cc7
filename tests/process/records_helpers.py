"""A master and a line card on a private redis-server: the line card runs in
its own mount namespace with loop-mounted ext4 images on its watched mount
points, and a fixture disk-statistics feed drives its I/O figures."""

import os
import re
import signal
import socket
import subprocess
import threading
import time
from datetime import datetime

from bus_helpers import RedisServer
from stovig_proc import DAEMON, Node, wait_for
from stovig_tools import bus_ok, cli


INVENTORY = ("slot=1 user_slot=1 type=cm name=CM-A master=1\n"
             "slot=5 user_slot=3 type=lc name=LC-48X\n")

CAP_PASS = "res_mon_part_cap_timer_func add timer with ret[0]."
RO_PASS = "res_mom_part_ro_timer_func add timer with ret[0]."
IO_SENT = "set IO information with ret[0]."


def config(port, phy_slot, user_slot, node_type, dev_type):
    return ("[bus]\nurl = redis://127.0.0.1:%d\n"
            "[node]\ndevid = 0\nphy_slot = %d\nuser_slot = %d\nnode_type = %d\nrole = 0\n"
            "[cap]\nCAP_DEV_TYPE = %s\n"
            "[log]\nsyslog_file = @SYSLOG@\nlevel = debug\n"
            "[loop]\nsecond_ms = 100\n") % (port, phy_slot, user_slot, node_type, dev_type)


def fixture_root(base, name):
    """A fixture tree at debug level 5 with empty mount table and disk list."""
    root = os.path.join(base, name, "root")
    for d in ("tmp/qn-stovig", "proc", "sys/block", "data", "mnt/usb0"):
        os.makedirs(os.path.join(root, d), exist_ok=True)
    with open(os.path.join(root, "tmp", "qn-stovig", "debug_level"), "w") as f:
        f.write("5\n")
    for rel, text in (("proc/uptime", "1000.00 10.00\n"), ("proc/mounts", ""), ("proc/diskstats", "")):
        with open(os.path.join(root, rel), "w") as f:
            f.write(text)
    return root


class Daemon(Node):
    def __init__(self, base, name, cfg, prefix=()):
        super().__init__(base, name, config=cfg, root=fixture_root(base, name))
        self.prefix = list(prefix)

    def start(self):
        self.out = open(os.path.join(self.dir, "stderr.log"), "wb")
        self.proc = subprocess.Popen(self.prefix + [DAEMON], env=self.env, stdout=subprocess.DEVNULL,
                                     stderr=self.out, start_new_session=True)
        return self.proc

    def stop(self):
        super().stop()
        if getattr(self, "out", None):
            self.out.close()

    def stderr_text(self):
        with open(os.path.join(self.dir, "stderr.log"), errors="replace") as f:
            return f.read()

    def count(self, text):
        return self.log_text().count(text)

    def wait_count(self, text, n, timeout=30.0):
        return wait_for(lambda: self.count(text) >= n, timeout)

    def times(self, text):
        """Wall-clock times of the log lines holding text."""
        out = []
        for line in self.log_text().splitlines():
            if text in line:
                out.append(datetime.strptime(line[:23], "%Y-%m-%d %H:%M:%S.%f").timestamp())
        return out

    def events(self, task):
        mark = " %s: " % task
        return [line.split(mark, 1)[1] for line in self.event_lines() if mark in line]

    def wait_event(self, text, timeout=30.0):
        return wait_for(lambda: any(text in line for line in self.event_lines()), timeout)


class DiskFeed(threading.Thread):
    """Writes the fixture uptime and disk statistics of one disk, sda: each
    step adds one second of uptime and 950 ms (busy) or 50 ms (idle) of
    disk time."""

    def __init__(self, root):
        super().__init__(daemon=True)
        self.root = root
        self.busy = False
        self.stop_ev = threading.Event()
        self.uptime = 1000.0
        self.ticks = 0
        self.sectors = 0
        os.makedirs(os.path.join(root, "sys", "block", "sda"), exist_ok=True)

    def write(self, rel, text):
        path = os.path.join(self.root, rel)
        with open(path + ".new", "w") as f:
            f.write(text)
        os.replace(path + ".new", path)

    def run(self):
        while not self.stop_ev.is_set():
            self.uptime += 1.0
            self.ticks += 950 if self.busy else 50
            self.sectors += 2048 if self.busy else 16
            ios = self.sectors // 8
            line = "   8       0 sda %d 0 %d %d %d 0 %d %d 0 %d %d 0 0 0 0 0 0\n" % (
                ios, self.sectors, self.ticks, ios, self.sectors, self.ticks, self.ticks, self.ticks)
            self.write("proc/diskstats", line)
            self.write("proc/uptime", "%.2f 10.00\n" % self.uptime)
            time.sleep(0.1)

    def stop(self):
        self.stop_ev.set()
        self.join(timeout=5)


class Pair:
    """The master (control module, slot 1) and the line card (slot 5, user slot 3)."""

    def __init__(self, base, lc_namespace=True):
        self.base = base
        self.redis = RedisServer(base)
        self.redis.start()
        self.master = Daemon(base, "cm", config(self.redis.port, 1, 1, 2, "CM"))
        prefix = ["unshare", "-m", "--propagation", "private"] if lc_namespace else []
        self.lc = Daemon(base, "lc", config(self.redis.port, 5, 3, 3, "LC"), prefix)
        self.bus_cfg = os.path.join(base, "qn-bus.ini")
        with open(self.bus_cfg, "w") as f:
            f.write("[bus]\nurl = redis://127.0.0.1:%d\n" % self.redis.port)
        inv = os.path.join(base, "chassis.inv")
        with open(inv, "w") as f:
            f.write(INVENTORY)
        self.master.start()
        self.lc.start()
        self.bus("inventory", inv)

    def bus(self, *args):
        return bus_ok(self.bus_cfg, *args)

    def cli(self, *commands):
        return cli(self.master.env, *commands)

    def close(self):
        for d in (self.lc, self.master):
            d.stop()
        self.redis.stop()

    # The line card's mount namespace.
    def ns(self, *cmd):
        p = subprocess.run(["nsenter", "-t", str(self.lc.proc.pid), "-m", "--"] + list(cmd), capture_output=True,
                           text=True, timeout=60)
        if p.returncode != 0:
            raise AssertionError("%s failed: %s" % (" ".join(cmd), p.stderr))
        return p.stdout

    def publish_mounts(self):
        root = self.lc.root
        lines = []
        with open("/proc/%d/mounts" % self.lc.proc.pid) as f:
            for line in f:
                words = line.split()
                if len(words) >= 2 and words[1].startswith(root + "/"):
                    words[1] = words[1][len(root):]
                    lines.append(" ".join(words) + "\n")
        tmp = os.path.join(root, "proc", "mounts.new")
        with open(tmp, "w") as f:
            f.writelines(lines)
        os.replace(tmp, os.path.join(root, "proc", "mounts"))

    def stat_f(self, rel):
        blocks, avail, bsize = self.ns("stat", "-f", "-c", "%b %a %s", self.lc.root + rel).split()
        return int(blocks) * int(bsize) // 1000, (int(blocks) - int(avail)) * int(bsize) // 1000


def sanitizer_report(text):
    return re.search(r"(ERROR: \w+Sanitizer|runtime error:|LeakSanitizer)", text)
