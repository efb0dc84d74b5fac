"""Stand-ins for a node's daemon, speaking its side of the lab's sockets as the daemon does.

The wire formats are written out here on purpose, apart from the lab's own
code, so that a test compares the lab against the protocol and not against itself.
"""

import socket
import struct
import threading
import time

NLMSG = struct.Struct("=IHHII")      # nlmsg_len, type, flags, seq, pid
BROADCAST = "ff:ff:ff:ff:ff:ff"


def mac_bytes(mac):
    return bytes.fromhex(mac.replace(":", ""))


def ping_message():
    """The daemon's netlink ping: no payload, nlmsg_len NLMSG_SPACE(8) = 24, its port id 3333."""
    return NLMSG.pack(24, 0, 0, 0, 3333) + b"steerin" + bytes([0])


def event_message(code, payload):
    """An event as the driver sends it: nlmsg_len 24 + the payload's exact size, port id 0."""
    return NLMSG.pack(24 + len(payload), 0, 0, 0, 0) + b"steerin" + bytes([code]) + payload


class NetlinkEnd:
    """The daemon's end of the driver channel: a datagram socket bound at run/maps/nl-3333."""

    def __init__(self, node_dir):
        self.maps = node_dir / "run" / "maps"
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.sock.bind(str(self.maps / "nl-3333"))
        self.sock.settimeout(2.0)

    def send(self, data):
        self.sock.sendto(data, str(self.maps / "nl-0"))

    def recv(self, timeout=2.0):
        self.sock.settimeout(timeout)
        return self.sock.recv(65536)

    def close(self):
        self.sock.close()


def uwb(node_dir, line):
    """One Wi-Fi library call as the lab's uwb library makes it: connect, one line, one answer line."""
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as s:
        s.settimeout(2.0)
        s.connect(str(node_dir / "run" / "maps" / "uwb"))
        s.sendall(line.encode() + b"\n")
        answer = b""
        while chunk := s.recv(4096):
            answer += chunk
    assert answer.endswith(b"\n") and answer.count(b"\n") == 1, answer
    return answer[:-1].decode()


def message(sa, da, msg_type, text):
    """A mesh message as a daemon builds it: sa, da, type padded to 32 bytes, JSON text and its NUL."""
    return mac_bytes(sa) + mac_bytes(da) + msg_type.encode().ljust(32, b"\0") + text.encode() + b"\0"


def weft_send(node_dir, data, header=b"\x03\x01\x00"):
    """What a daemon's mesh transport does: connect to /var/weft_socket, write header and message, close."""
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as s:
        s.connect(str(node_dir / "weft_socket"))
        s.sendall(header + data)


class SteerSocket:
    """A daemon's /var/steer_socket: collects what each connection brings, until it closes."""

    def __init__(self, node_dir):
        self.messages = []
        self.times = []
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.sock.bind(str(node_dir / "steer_socket"))
        self.sock.listen(16)
        self.thread = threading.Thread(target=self._serve, daemon=True)
        self.thread.start()

    def _serve(self):
        while True:
            try:
                conn, _ = self.sock.accept()
            except OSError:
                return
            with conn:
                data = b""
                while chunk := conn.recv(65536):
                    data += chunk
            self.times.append(time.monotonic())
            self.messages.append(data)

    def wait(self, n, timeout=3.0):
        """Waits until `n` messages came and returns all of them."""
        deadline = time.monotonic() + timeout
        while len(self.messages) < n and time.monotonic() < deadline:
            time.sleep(0.01)
        return self.messages

    def close(self):
        self.sock.shutdown(socket.SHUT_RDWR)
        self.sock.close()
        self.thread.join(2)
