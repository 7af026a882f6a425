#!/usr/bin/env python3
"""Drives tarnbridge-daemon with a client written from the wire format alone.

The tagged encoding is decoded and encoded here by hand, so a fault shared by our own
encoder and decoder can't hide. Usage: independent-client.py PATH-TO-DAEMON
"""
import os
import shutil
import socket
import struct
import subprocess
import sys
import tempfile


def fail(message):
    print("FAIL: " + message)
    sys.exit(1)


def read_until_closed(sock, limit=1 << 20):
    data = b""
    while len(data) < limit:
        chunk = sock.recv(65536)
        if not chunk:
            break
        data += chunk
    return data


def read_exact(sock, n):
    data = b""
    while len(data) < n:
        chunk = sock.recv(n - len(data))
        if not chunk:
            fail("connection closed after %r" % data)
        data += chunk
    return data


class Decoder:
    def __init__(self, data):
        self.data = data
        self.pos = 0

    def take(self, n):
        if self.pos + n > len(self.data):
            fail("value cut short at byte %d of %r" % (self.pos, self.data))
        out = self.data[self.pos:self.pos + n]
        self.pos += n
        return out

    def value(self):
        tag = self.take(1)[0]
        if tag == 0x00:
            if self.take(1) != b"\x00":
                fail("null with a body")
            return None
        if tag == 0x01:
            width = self.take(1)[0]
            return int.from_bytes(self.take(width), "big")
        if tag == 0x10:
            (n,) = struct.unpack(">H", self.take(2))
            return self.take(n).decode("utf-8")
        if tag == 0x41:
            items = []
            while self.data[self.pos] != 0x40:
                items.append(self.value())
            self.take(1)
            return items
        if tag == 0x42:
            members = {}
            while self.data[self.pos] != 0x40:
                if self.data[self.pos] != 0x10:
                    fail("map key is not a string")
                key = self.value()
                members[key] = self.value()
            self.take(1)
            return members
        fail("unknown tag 0x%02x" % tag)


def encode_string(text):
    raw = text.encode("utf-8")
    return b"\x10" + struct.pack(">H", len(raw)) + raw


def encode_request(members):
    out = b"\x42"
    for key in sorted(members):
        out += encode_string(key) + encode_string(members[key])
    return out + b"\x40"


def main():
    daemon = sys.argv[1]
    home = tempfile.mkdtemp(prefix="tarnbridge-pyclient-")
    process = None
    try:
        config = os.path.join(home, "tarnbridge.conf")
        with open(config, "w") as f:
            f.write("log_file_path = %s\n" % os.path.join(home, "daemon.log"))
            f.write("log_level_file_path = %s\n" % os.path.join(home, "levels"))
        with open(os.path.join(home, "levels"), "w") as f:
            f.write("client_debug = 7\n")

        control = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        control.bind(("127.0.0.1", 0))
        control.listen(1)
        control.settimeout(10)
        control_port = control.getsockname()[1]
        process = subprocess.Popen([daemon, config, str(control_port)],
                                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

        announce, _ = control.accept()
        announce.settimeout(10)
        # The announcement is one map; read exactly its bytes: the daemon keeps this
        # connection open until it stops. Map tag, key, integer tag, then the width.
        head = read_exact(announce, 1 + 3 + 11 + 1 + 1)
        head += read_exact(announce, head[-1] + 1)
        report = Decoder(head).value()
        if list(report) != ["daemon_port"] or not isinstance(report["daemon_port"], int):
            fail("unexpected announcement %r" % report)
        port = report["daemon_port"]
        if port <= control_port:
            fail("daemon port %d not above the controlling port %d" % (port, control_port))
        width = 1 if port < 256 else 2
        expected = (b"\x42\x10\x00\x0bdaemon_port\x01" + bytes([width]) +
                    port.to_bytes(width, "big") + b"\x40")
        if head != expected:
            fail("announcement bytes %r, expected %r" % (head, expected))

        with socket.create_connection(("127.0.0.1", port), timeout=10) as c:
            c.sendall(encode_request({"action": "get_status"}))
            reply = read_until_closed(c)
        if reply != b"\x42\x10\x00\x03ack\x10\x00\x02ok\x40":
            fail("reply bytes %r" % reply)

        with socket.create_connection(("127.0.0.1", port), timeout=10) as c:
            c.sendall(encode_request({"action": "stop"}))
            reply = read_until_closed(c)
        if reply != b"":
            fail("stop was answered with %r" % reply)
        code = process.wait(timeout=15)
        process = None
        if code != 0:
            fail("daemon exit status %d" % code)
        announce.close()
        control.close()
        print("ok")
    finally:
        if process is not None:
            process.kill()
            process.wait()
        shutil.rmtree(home, ignore_errors=True)


if __name__ == "__main__":
    main()
