# SPDX-License-Identifier: MIT
"""Client programs in terminals, with nobody's configuration but their own defaults."""
import contextlib
import os
import subprocess

import pexpect

import processes
from processes import DEADLINE, SLOWNESS, wait_until

ADDRESS = "127.0.0.1"


def environment(home):
    return {"PATH": os.environ["PATH"], "HOME": str(home), "TERM": "xterm-256color",
            "LANG": "C.UTF-8"}


def socat(port):
    """For programs that take each key; Ctrl-] leaves."""
    return ["socat", "-,raw,echo=0,escape=0x1d", "TCP:%s:%d" % (ADDRESS, port)]


@contextlib.contextmanager
def in_terminal(command, home):
    """Runs a client in a terminal as a window has it: with echo, line by line, 80x24."""
    client = pexpect.spawn(command[0], list(command[1:]), env=environment(home), timeout=DEADLINE)
    client.delaybeforesend = None
    client.ptyproc.delayafterterminate *= SLOWNESS
    try:
        yield client
    finally:
        with contextlib.suppress(pexpect.ExceptionPexpect):  # it gives up after half a second
            client.close(force=True)
        wait_until(lambda: not client.isalive(), "the client is gone")


def ends(client):
    """Waits for a client to end by itself; returns what it has printed, and its exit status."""
    client.expect_exact(pexpect.EOF)
    wait_until(lambda: not client.isalive(), "the client ends")
    return client.before, client.exitstatus


class Tmux:
    """A terminal that keys are sent to and whose screen can be read; runs one command."""

    def __init__(self, command, directory):
        # A relative name: that of a socket may have no more than 107 bytes.
        self.tmux = ["tmux", "-u", "-f", "/dev/null", "-S", "socket"]
        self.popen = {"cwd": directory, "env": environment(directory)}
        self.server = subprocess.Popen([*self.tmux, "-D"], **self.popen)
        try:
            wait_until(self._answers, "tmux has started")
            self.tell("new-session", "-d", "-x", "80", "-y", "24", "--", *command)
            self.terminal = self.tell("display-message", "-p", "#{pane_tty}").strip()
            self.client = int(self.tell("display-message", "-p", "#{pane_pid}"))
        except BaseException:
            self.close()
            raise

    def _answers(self):
        return subprocess.run([*self.tmux, "-N", "list-sessions"], timeout=DEADLINE,
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                              **self.popen).returncode == 0

    def tell(self, *words):
        return subprocess.run([*self.tmux, *words], check=True, timeout=DEADLINE,
                              stdout=subprocess.PIPE, **self.popen).stdout.decode()

    def type(self, text):
        self.tell("send-keys", "-l", text)

    def press(self, *keys):
        """Keys by name, such as C-c or BSpace."""
        self.tell("send-keys", *keys)

    def send_bytes(self, data):
        self.tell("send-keys", "-H", *("%02x" % byte for byte in data))

    def screen(self, *options):
        return self.tell("capture-pane", "-p", *options)

    def shows(self, text, *options):
        """Waits for a text on the screen. Options: -e with colours, -J without line breaks."""
        try:
            wait_until(lambda: text in self.screen(*options), "on the screen: %r" % text)
        except AssertionError as failure:
            raise AssertionError("%s; there is:\n%s" % (failure, self.screen(*options))) from None

    def resize(self, columns, rows):
        """Does what pulling at a corner of the window does, and waits until it is done."""
        self.tell("resize-window", "-x", str(columns), "-y", str(rows))
        wait_until(lambda: self.size() == (columns, rows), "the terminal has its new size")

    def size(self):
        with open(self.terminal, "rb") as terminal:
            return tuple(os.get_terminal_size(terminal.fileno()))

    def close(self):
        self.server.terminate()
        self.server.wait(DEADLINE)
        if hasattr(self, "client"):
            wait_until(lambda: not processes.exists(self.client), "the client is gone")

    def __enter__(self):
        return self

    def __exit__(self, *unused):
        self.close()
