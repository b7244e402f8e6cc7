"""Helpers for the bus process tests: a private redis-server on a free
loopback port, daemons configured for it, and the qn-bus tool."""

import os
import signal
import socket
import subprocess
import time

from stovig_proc import BIN_DIR, Node, wait_for
from stovig_tools import bus


def free_port():
    s = socket.socket()
    s.bind(("127.0.0.1", 0))
    port = s.getsockname()[1]
    s.close()
    return port


class RedisServer:
    """redis-server bound to 127.0.0.1 with its own directory, no persistence."""

    def __init__(self, base):
        self.dir = os.path.join(base, "redis")
        os.makedirs(self.dir, exist_ok=True)
        self.port = free_port()
        self.proc = None

    def start(self):
        self.proc = subprocess.Popen(
            ["redis-server", "--bind", "127.0.0.1", "--port", str(self.port), "--save", "", "--appendonly", "no",
             "--dir", self.dir, "--daemonize", "no"],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, start_new_session=True)
        if not wait_for(self.ping, timeout=10):
            raise RuntimeError("redis-server did not start on port %d" % self.port)

    def ping(self):
        return self.cli("PING") == "PONG"

    def cli(self, *args):
        p = subprocess.run(["redis-cli", "-h", "127.0.0.1", "-p", str(self.port)] + list(args),
                           capture_output=True, timeout=10)
        return p.stdout.decode(errors="replace").strip()

    def stop(self):
        if self.proc and self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
            try:
                self.proc.wait(timeout=10)
            except subprocess.TimeoutExpired:
                os.killpg(self.proc.pid, signal.SIGKILL)
                self.proc.wait(timeout=10)
        self.proc = None


def node_config(redis, devid, phy_slot, user_slot, node_type, role, dev_type):
    return ("[bus]\nurl = redis://127.0.0.1:%d\n"
            "[node]\ndevid = %d\nphy_slot = %d\nuser_slot = %d\nnode_type = %d\nrole = %d\n"
            "[cap]\nCAP_DEV_TYPE = %s\n"
            "[log]\nsyslog_file = @SYSLOG@\nlevel = debug\n"
            "[loop]\nsecond_ms = 100\n") % (redis.port, devid, phy_slot, user_slot, node_type, role, dev_type)


class BusNode(Node):
    """A daemon whose stdout and stderr go to files, at debug level 5."""

    def __init__(self, base, name, config):
        root = os.path.join(base, name, "root")
        os.makedirs(os.path.join(root, "tmp", "qn-stovig"), exist_ok=True)
        with open(os.path.join(root, "tmp", "qn-stovig", "debug_level"), "w") as f:
            f.write("5\n")
        # A quiet host for the monitors: no disks, nothing mounted.
        os.makedirs(os.path.join(root, "proc"), exist_ok=True)
        for rel, text in (("proc/uptime", "1000.00 10.00\n"), ("proc/mounts", ""), ("proc/diskstats", "")):
            with open(os.path.join(root, rel), "w") as f:
                f.write(text)
        super().__init__(base, name, config=config, root=root)
        self.stderr_path = os.path.join(self.dir, "stderr.log")

    def start(self):
        out = open(os.path.join(self.dir, "stdout.log"), "wb")
        err = open(self.stderr_path, "wb")
        self.proc = subprocess.Popen([os.path.join(BIN_DIR, "src", "qn-stovig")], env=self.env, stdout=out,
                                     stderr=err, start_new_session=True)
        out.close()
        err.close()
        return self.proc

    def stderr_text(self):
        try:
            with open(self.stderr_path, errors="replace") as f:
                return f.read()
        except OSError:
            return ""

    def alive(self):
        return self.proc is not None and self.proc.poll() is None

    def wait_count(self, text, count, timeout=15.0):
        return wait_for(lambda: self.log_text().count(text) >= count, timeout)


class QnBus:
    """Runs qn-bus against the same redis-server."""

    def __init__(self, base, redis):
        self.config = os.path.join(base, "qn-bus.ini")
        with open(self.config, "w") as f:
            f.write("[bus]\nurl = redis://127.0.0.1:%d\n" % redis.port)

    def run(self, *args):
        p = bus(self.config, *args)
        return p.returncode, p.stdout.decode(errors="replace"), p.stderr.decode(errors="replace")

    def ok(self, *args):
        code, out, err = self.run(*args)
        if code != 0:
            raise AssertionError("qn-bus %s failed (%d): %s" % (" ".join(map(str, args)), code, err))
        return out


INVENTORY = ("# chassis: two control modules and one line card\n"
             "slot=1 user_slot=1 type=cm name=CM-A master=1\n"
             "slot=2 user_slot=2 type=cm name=CM-B\n"
             "slot=5 user_slot=3 type=lc name=LC-48X\n")


def write_inventory(base, text=INVENTORY):
    path = os.path.join(base, "chassis.inv")
    with open(path, "w") as f:
        f.write(text)
    return path
