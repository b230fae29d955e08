# SPDX-License-Identifier: MIT
"""A console client: a bare TCP socket of which every operation ends within a time."""
import socket
import struct
import time

from processes import DEADLINE


def free_port():
    """A port outside the range from which the kernel gives ports to connections."""
    start = 10000 + time.monotonic_ns() // 1000 % 15000
    for port in range(start, start + 1000):
        with socket.socket() as probe:
            try:
                probe.bind(("0.0.0.0", port))
            except OSError:
                continue
            return port
    raise AssertionError("no free port")


def record_stream(size):
    """What the test program's command `flood SIZE` writes."""
    return b"".join(b"%015d\n" % number for number in range((size + 15) // 16))[:size]


class Client:
    def __init__(self, port, deadline=DEADLINE, receive_buffer=None):
        """Connects; a port on which nobody listens yet is tried again."""
        self.deadline = deadline
        self.received = bytearray()  # and not yet asked for
        end = time.monotonic() + deadline
        while True:
            self.socket = socket.socket()
            self.socket.settimeout(deadline)
            if receive_buffer:
                self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
            try:
                self.socket.connect(("127.0.0.1", port))
                return
            except ConnectionRefusedError:
                self.socket.close()
                assert time.monotonic() < end, "nobody listens on port %d" % port
                time.sleep(0.001)

    def send(self, data):
        self.socket.settimeout(self.deadline)
        self.socket.sendall(data)

    def command(self, text):
        self.send(text.encode() + b"\n")

    def send_until_blocked(self, limit):
        """Sends until nothing more is taken for a second, or `limit` bytes; returns the count."""
        self.socket.settimeout(1)
        block = b"\n" * 65536
        sent = 0
        while sent < limit:
            try:
                sent += self.socket.send(block)
            except socket.timeout:
                break
        return sent

    def _receive_more(self, end):
        """Reads what there is, waiting for at least one byte; false at the end of the stream."""
        self.socket.settimeout(max(end - time.monotonic(), 0.001))
        part = self.socket.recv(1 << 18)
        self.received += part
        return bool(part)

    def _take(self, find_end, what):
        """Reads until find_end(received) gives the size of what is wanted."""
        end = time.monotonic() + self.deadline
        while True:
            size = find_end(self.received)
            if size is not None:
                data = bytes(self.received[:size])
                del self.received[:size]
                return data
            try:
                missing = "the end of the stream" if not self._receive_more(end) else None
            except socket.timeout:
                missing = "nothing more"
            if missing:
                raise AssertionError("%s: got %d bytes, ending in %r, then %s" % (
                    what, len(self.received), bytes(self.received[-200:]), missing))

    def receive(self, size):
        return self._take(lambda data: size if len(data) >= size else None, "%d bytes" % size)

    def receive_until(self, marker):
        """Reads up to and including the marker."""
        def find_end(data):
            nonlocal searched
            at = data.find(marker, max(searched - len(marker), 0))
            searched = len(data)
            return None if at == -1 else at + len(marker)

        searched = 0
        return self._take(find_end, repr(marker))

    def line(self):
        return self.receive_until(b"\n")[:-1].decode()

    def ask(self, text):
        """Sends a command that answers with one line."""
        self.command(text)
        return self.line()

    def ask_lines(self, text):
        """Sends a command whose answer ends with the line "end"."""
        self.command(text)
        lines = []
        while True:
            line = self.line()
            if line == "end":
                return lines
            lines.append(line)

    def receive_all(self):
        """Reads up to the end of the stream."""
        end = time.monotonic() + self.deadline
        while self._receive_more(end):
            pass
        data = bytes(self.received)
        self.received.clear()
        return data

    def receives(self, data):
        """Does exactly this come, or else nothing but the end of the stream?"""
        end = time.monotonic() + self.deadline
        while len(self.received) < len(data) and self._receive_more(end):
            pass
        assert self.received in (data, b"")
        return self.received == data

    def nothing_came(self):
        self.socket.setblocking(False)
        try:
            self.received += self.socket.recv(1)
        except BlockingIOError:
            pass
        assert not self.received, "came: %r" % self.received
        return True

    def half_close(self):
        self.socket.shutdown(socket.SHUT_WR)

    def reset(self):
        """Ends the connection as a crashing machine would: by a reset."""
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.socket.close()

    def close(self):
        self.socket.close()

    def __enter__(self):
        return self

    def __exit__(self, *unused):
        self.close()
