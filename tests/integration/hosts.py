# SPDX-License-Identifier: MIT
"""A running vkahost."""
import os
import re
import signal
import subprocess
import threading
import time
import uuid

import pytest

import processes
from clients import Client
from processes import DEADLINE, wait_until


class Output:
    """What a process writes into a pipe; taken at once, so that it never waits for the test."""

    def __init__(self, pipe):
        self.data = bytearray()
        self.ended = pipe is None
        self.changed = threading.Condition()
        self.thread = threading.Thread(target=self._read, args=(pipe,), daemon=True)
        if pipe:
            self.thread.start()

    def _read(self, pipe):
        with pipe:
            while True:
                part = os.read(pipe.fileno(), 1 << 16)
                with self.changed:
                    self.data += part
                    self.ended = not part
                    self.changed.notify_all()
                if not part:
                    return

    def search(self, pattern, deadline):
        """Waits for a match; None when the stream ended or the time is over."""
        end = time.monotonic() + deadline
        with self.changed:
            while True:
                match = re.search(pattern.encode(), self.data, re.MULTILINE)
                if match or self.ended or time.monotonic() >= end:
                    return match and [group.decode() for group in (match[0], *match.groups())]
                self.changed.wait(end - time.monotonic())

    def line(self, pattern, deadline=DEADLINE):
        """Waits for a line, with its end: a match of only its beginning would leave the rest to
        come when the test has gone on."""
        return self.search("^(?:" + pattern + r")(?=\n)", deadline)

    def whole(self, deadline=DEADLINE):
        """Everything up to the stream's end."""
        end = time.monotonic() + deadline
        with self.changed:
            while not self.ended:
                left = end - time.monotonic()
                assert left > 0, "the output does not end: somebody still has it open"
                self.changed.wait(left)
            return bytes(self.data)

    def so_far(self):
        with self.changed:
            return bytes(self.data)


def need_tracer():
    if processes.EMULATED:
        pytest.skip("under qemu-user nothing can be traced")


def traced(*options, output="/dev/null"):
    """Arguments of the host fixture that start vkahost, but not its children, below strace."""
    need_tracer()
    return {"launcher": ["strace", "-D", "-qq", "-o", output, *options],
            "env": {"ASAN_OPTIONS": "detect_leaks=0"}}  # leaks cannot be looked for meanwhile


class Host:
    """vkahost in a session of its own."""

    def __init__(self, command, env, **popen):
        self.mark = "VKA_TEST=%s" % uuid.uuid4()  # on everything that comes of it
        env = {**env, **dict([self.mark.split("=")])}
        self.command = [str(word) for word in command]
        self.clients = []
        popen.setdefault("stdin", subprocess.DEVNULL)
        popen.setdefault("stdout", subprocess.PIPE)
        popen.setdefault("stderr", subprocess.PIPE)
        popen.setdefault("start_new_session", True)
        self.started = time.monotonic()
        self.process = subprocess.Popen(self.command, env=env, bufsize=0, **popen)
        self.pid = self.process.pid
        self.out = Output(self.process.stdout)
        self.err = Output(self.process.stderr)

    def line(self, pattern, deadline=DEADLINE):
        """Waits for a line on standard output; returns the match and its groups."""
        found = self.out.line(pattern, deadline)
        assert found, "no line %r" % pattern
        return found

    def error_line(self, pattern, deadline=DEADLINE):
        found = self.err.line(pattern, deadline)
        assert found, "no line %r on standard error" % pattern
        return found

    def times(self, line, count):
        """Waits until standard output has a line that often."""
        wait_until(lambda: self.lines().count(line) >= count, "%d times %r" % (count, line))

    @property
    def port(self):
        return int(self.line(r"vkahost: running, console on port (\d+)")[1])

    def client(self, **options):
        client = Client(options.pop("port", None) or self.port, **options)
        self.clients.append(client)
        return client

    @property
    def program(self):
        """The id of the running program."""
        found = wait_until(processes.running, "the program runs")
        assert len(found) == 1, processes.describe(found)
        return found[0]

    def signal(self, number):
        self.process.send_signal(number)

    def wait(self, deadline=DEADLINE):
        """Waits for the end; returns the exit status, negative for a signal."""
        status = self.process.wait(deadline)
        self.out.whole()
        self.err.whole()
        return status

    def lines(self):
        return self.out.so_far().decode(errors="replace").splitlines()

    def last_line(self):
        return self.lines()[-1]

    def errors(self):
        return self.err.so_far().decode(errors="replace")

    def unfetched(self):
        """The bytes that the host printed as not fetched, after its end; None when there were none.
        """
        parts = self.out.so_far().split(b"vkahost: output that no client fetched:\n")
        assert len(parts) <= 2
        return parts[1].rpartition(b"\nvkahost: program ")[0] if len(parts) == 2 else None

    def stop(self):
        """Ends it if need be and returns complaints about what it left behind."""
        complaints = []
        for client in self.clients:
            client.close()
        if self.process.poll() is None:
            self.process.terminate()
            try:
                status = self.process.wait(DEADLINE)
                if status != 128 + signal.SIGTERM:
                    complaints.append("SIGTERM at the end of the test gave status %d" % status)
            except subprocess.TimeoutExpired:
                complaints.append("did not end on SIGTERM")
                self.process.kill()
                self.process.wait()
        return complaints + self._kill_leftovers()

    def _leftovers(self):
        return sorted({*processes.running(), *processes.with_environment(self.mark)})

    def _kill_leftovers(self):
        """What was sent SIGKILL by the kernel may take a moment to disappear."""
        complaints = []
        try:
            wait_until(lambda: not self._leftovers(), "nothing is left running")
        except AssertionError:
            complaints.append("left running: %s" % processes.describe(self._leftovers()))
            for pid in self._leftovers():
                os.kill(pid, signal.SIGKILL)
            wait_until(lambda: not self._leftovers(), "killed processes are gone")
        try:
            wait_until(lambda: not processes.zombies(), "no zombie is left")
        except AssertionError:
            complaints.append("zombies: %s" % processes.describe(processes.zombies()))
        return complaints

    def report(self):
        def shown(data):
            text = data.decode(errors="replace")
            return text if len(text) < 12000 else text[:6000] + "\n[...]\n" + text[-6000:]

        return "\n".join((" ".join(self.command), "status: %s" % self.process.poll(),
                          "--- stdout", shown(self.out.so_far()), "--- stderr",
                          shown(self.err.so_far())))
