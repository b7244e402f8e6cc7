"""A chassis on a private redis-server whose device manager stays on the bus
(qn-bus inventory --keep), so that the card and role records come back when
the store restarts empty; daemons can be paused (SIGSTOP) to choose who gets
back to the store first."""

import os
import shutil
import signal
import subprocess
import tempfile
import time
import unittest
from datetime import datetime

from bus_helpers import RedisServer
from records_helpers import Daemon, config, sanitizer_report
from stovig_proc import wait_for
from stovig_tools import QN_BUS, bus_ok, cli

INVENTORY = ("slot=1 user_slot=1 type=cm name=CM-A master=1\n"
             "slot=2 user_slot=2 type=cm name=CM-B\n"
             "slot=5 user_slot=3 type=lc name=LC-48X\n")


def events(node, task):
    """The texts of the node's operator event lines written under `task`."""
    mark = " %s: " % task
    return [line.split(mark, 1)[1] for line in node.event_lines() if mark in line]


def line_times(node, text):
    """Wall-clock times of the node's debug log lines holding text."""
    out = []
    for line in node.log_text().splitlines():
        if text in line:
            out.append(datetime.strptime(line[:23], "%Y-%m-%d %H:%M:%S.%f").timestamp())
    return out


class Keeper:
    """qn-bus inventory --keep: the device manager, until stopped."""

    def __init__(self, base, bus_cfg, inventory):
        self.base, self.bus_cfg, self.inventory = base, bus_cfg, inventory
        self.proc = None
        self.log = os.path.join(base, "keeper.log")

    def start(self):
        env = dict(os.environ, STOVIG_CONFIG=self.bus_cfg)
        with open(self.log, "ab") as err:
            self.proc = subprocess.Popen([QN_BUS, "inventory", "--keep", self.inventory], env=env,
                                         stdout=subprocess.DEVNULL, stderr=err, start_new_session=True)
        if not wait_for(lambda: "keeping the inventory" in self.text(), 15):
            raise AssertionError("qn-bus --keep did not start: " + self.text())

    def text(self):
        with open(self.log, errors="replace") as f:
            return f.read()

    def stop(self):
        if self.proc and self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
            self.proc.wait(timeout=10)
        self.proc = None


class Chassis:
    """redis-server, the device manager and daemons of the inventory's slots.
    `nodes` maps a name to (phy_slot, user_slot, node_type, dev_type, extra
    config text, command prefix)."""

    def __init__(self, base, nodes, inventory=INVENTORY):
        self.base = base
        self.redis = RedisServer(base)
        self.redis.start()
        self.bus_cfg = os.path.join(base, "qn-bus.ini")
        with open(self.bus_cfg, "w") as f:
            f.write("[bus]\nurl = redis://127.0.0.1:%d\n" % self.redis.port)
        inv = os.path.join(base, "chassis.inv")
        with open(inv, "w") as f:
            f.write(inventory)
        self.keeper = Keeper(base, self.bus_cfg, inv)
        self.nodes = {}
        for name, (slot, uslot, ntype, dtype, extra, prefix) in nodes.items():
            text = config(self.redis.port, slot, uslot, ntype, dtype)
            if extra:
                text = text.replace("[loop]\nsecond_ms = 100\n", extra)
            self.nodes[name] = Daemon(base, name, text, prefix)
        self.keeper.start()
        for n in self.nodes.values():
            n.start()

    def __getitem__(self, name):
        return self.nodes[name]

    def bus(self, *args):
        return bus_ok(self.bus_cfg, *args)

    def cli(self, node, *commands):
        return cli(self.nodes[node].env, *commands)

    def restart_store(self):
        """Stops redis-server and starts it again, empty; returns the time
        it is back."""
        self.redis.stop()
        self.redis.start()
        return time.time()

    def pause(self, name):
        os.kill(self.nodes[name].proc.pid, signal.SIGSTOP)

    def resume(self, name):
        os.kill(self.nodes[name].proc.pid, signal.SIGCONT)

    def close(self):
        for n in self.nodes.values():
            if n.proc and n.proc.poll() is None:
                os.kill(n.proc.pid, signal.SIGCONT)
            n.stop()
        self.keeper.stop()
        self.redis.stop()


class ChassisTest(unittest.TestCase):
    """A test with a work directory of its own (named after work_prefix) and
    at most one Chassis, closed after the test; the nodes' standard error
    must then hold no sanitizer report."""

    work_prefix = "stovig-chassis-"

    def setUp(self):
        self.work = tempfile.mkdtemp(prefix=self.work_prefix)
        self.chassis = None

    def tearDown(self):
        errs = ""
        if self.chassis:
            self.chassis.close()
            errs = "".join(n.stderr_text() for n in self.chassis.nodes.values())
        shutil.rmtree(self.work, ignore_errors=True)
        self.assertIsNone(sanitizer_report(errs), errs)
