"""When records really reached the store: a redis-cli MONITOR of the test's
own redis-server, read back as the server's own times of the writes to one
key.  A daemon's debug log is written out lazily, so a daemon killed with
SIGKILL may have sent a record whose log line never reached the file."""

import os
import signal
import subprocess


class StoreWrites:
    def __init__(self, redis, path):
        self.path = path
        self.out = open(path, "wb")
        self.proc = subprocess.Popen(["redis-cli", "-h", "127.0.0.1", "-p", str(redis.port), "MONITOR"],
                                     stdout=self.out, stderr=subprocess.DEVNULL, start_new_session=True)

    def times(self, key):
        """Server times (seconds since the epoch) of the writes to `key`."""
        want = ('"%s"' % key).encode()
        out = []
        with open(self.path, "rb") as f:
            for line in f:
                if want in line and b'"EVAL"' in line:
                    try:
                        out.append(float(line.split(b" ", 1)[0]))
                    except ValueError:
                        pass
        return out

    def stop(self):
        if self.proc.poll() is None:
            os.killpg(self.proc.pid, signal.SIGTERM)
            try:
                self.proc.wait(timeout=10)
            except subprocess.TimeoutExpired:
                os.killpg(self.proc.pid, signal.SIGKILL)
                self.proc.wait(timeout=10)
        self.out.close()


def io_record_key(redis, devid, slot):
    """The storage key of the I/O record of the node (devid, slot): the key
    members of its index, sub-slot and extension 0, end the key."""
    keys = redis.cli("--raw", "KEYS", "*stovig_io:%d.%d.0.0" % (devid, slot)).split()
    return keys[0] if len(keys) == 1 else None
