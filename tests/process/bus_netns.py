"""Runs qn-bus commands in a network of their own, where names resolve only
through a hosts file and a DNS server that never answers.

Run it in fresh mount and network namespaces (unshare -m -n): it brings the
loopback up, mounts its own /etc/hosts and /etc/resolv.conf there, starts the
silent DNS server on 127.0.0.1:53 and a redis-server on 127.0.0.1:PORT, runs
each command and prints, as JSON, the exit status, stderr and duration of
each.

    python3 bus_netns.py WORKDIR PORT HOSTS_TEXT '[["URL", "ARG", ...], ...]'
"""

import json
import os
import socket
import subprocess
import sys
import threading
import time

from stovig_tools import QN_BUS


def silent_dns():
    s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    s.bind(("127.0.0.1", 53))

    def swallow():
        while True:
            s.recvfrom(4096)

    threading.Thread(target=swallow, daemon=True).start()


def bind_file(work, name, text, target):
    path = os.path.join(work, name)
    with open(path, "w") as f:
        f.write(text)
    subprocess.run(["mount", "--bind", path, target], check=True)


def main():
    work, port, hosts, commands = sys.argv[1], int(sys.argv[2]), sys.argv[3], json.loads(sys.argv[4])
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    bind_file(work, "hosts", hosts, "/etc/hosts")
    bind_file(work, "resolv.conf", "nameserver 127.0.0.1\noptions timeout:5 attempts:2\n", "/etc/resolv.conf")
    silent_dns()
    redis = subprocess.Popen(["redis-server", "--bind", "127.0.0.1", "--port", str(port), "--save", "",
                              "--appendonly", "no", "--dir", work], stdout=subprocess.DEVNULL,
                             stderr=subprocess.DEVNULL)
    try:
        for _ in range(100):
            p = subprocess.run(["redis-cli", "-h", "127.0.0.1", "-p", str(port), "PING"], capture_output=True)
            if p.stdout.strip() == b"PONG":
                break
            time.sleep(0.1)
        results = []
        for i, (url, *args) in enumerate(commands):
            config = os.path.join(work, "qn-bus-%d.ini" % i)
            with open(config, "w") as f:
                f.write("[bus]\nurl = %s\n" % url)
            started = time.monotonic()
            try:
                p = subprocess.run([QN_BUS] + args, env=dict(os.environ, STOVIG_CONFIG=config),
                                   capture_output=True, timeout=30)
                code, err = p.returncode, p.stderr.decode(errors="replace")
            except subprocess.TimeoutExpired:
                code, err = None, "timed out"
            results.append({"code": code, "stderr": err, "seconds": time.monotonic() - started})
        print(json.dumps(results))
    finally:
        redis.terminate()
        redis.wait(timeout=10)


if __name__ == "__main__":
    main()
