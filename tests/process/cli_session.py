"""A raw session on the command-line socket, speaking its wire protocol
(request "<verb> <text>\\n"; reply "<status> <mode> <length>\\n" and the text),
for tests that need what the operator shell hides: timing, pipelining, the
service closing a session."""

import socket


class RawSession:
    def __init__(self, path, timeout=10.0):
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.sock.settimeout(timeout)
        self.sock.connect(path)
        self.buf = b""

    def send(self, line, verb="exec"):
        self.sock.sendall(("%s %s\n" % (verb, line)).encode())

    def reply(self):
        """(status, mode, text), or None when the stream ends first."""
        while b"\n" not in self.buf:
            chunk = self.sock.recv(65536)
            if not chunk:
                return None
            self.buf += chunk
        head, rest = self.buf.split(b"\n", 1)
        status, mode, length = head.decode().split()
        length = int(length)
        while len(rest) < length:
            chunk = self.sock.recv(65536)
            if not chunk:
                return None
            rest += chunk
        self.buf = rest[length:]
        return int(status), mode, rest[:length].decode(errors="replace")

    def run(self, line):
        self.send(line)
        return self.reply()

    def at_end(self):
        """True when the service has closed the stream (after what it sent)."""
        try:
            while True:
                chunk = self.sock.recv(65536)
                if not chunk:
                    return True
                self.buf += chunk
        except (ConnectionResetError, BrokenPipeError):
            return True
        except socket.timeout:
            return False

    def close(self):
        self.sock.close()
