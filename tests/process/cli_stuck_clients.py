"""Clients of the command-line socket that pipeline requests and never read a
reply.  Run as its own process so that its busy loop does not share an
interpreter with the test that measures the operator:

    python3 cli_stuck_clients.py SOCKET COUNT SECONDS REQUEST

Each client sends REQUEST over and over; when the service closes it, it
connects again.  It stops when its standard input closes, or after SECONDS
at most, and prints one line "connects=N drops=M"."""

import errno
import select
import socket
import sys
import time


def main():
    path, count, seconds, request = sys.argv[1], int(sys.argv[2]), float(sys.argv[3]), sys.argv[4]
    batch = ((request + "\n") * 64).encode()
    clients = {}
    connects = drops = 0

    def connect():
        nonlocal connects
        s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        try:
            s.connect(path)
        except OSError:
            s.close()
            return None
        s.setblocking(False)
        connects += 1
        return s

    for i in range(count):
        clients[i] = connect()
    print("started", flush=True)
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        for i, s in list(clients.items()):
            if s is None:
                clients[i] = connect()
        live = [s for s in clients.values() if s is not None]
        if not live:
            if select.select([sys.stdin], [], [], 0.01)[0]:
                break
            continue
        readable, writable, _ = select.select([sys.stdin], live, [], 0.05)
        if readable:
            break
        for s in writable:
            try:
                s.send(batch)
            except OSError as e:
                if e.errno in (errno.EAGAIN, errno.EWOULDBLOCK):
                    continue
                drops += 1
                for i, c in clients.items():
                    if c is s:
                        clients[i] = None
                s.close()
    for s in clients.values():
        if s is not None:
            s.close()
    print("connects=%d drops=%d" % (connects, drops), flush=True)


if __name__ == "__main__":
    main()
