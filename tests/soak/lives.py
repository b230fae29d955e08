# SPDX-License-Identifier: MIT
"""The life of a vkahost that really compiles, led from phase to phase."""
import signal
import time

from archives import PROGRAMS, pack
from processes import wait_until

# The phases, begun by a line on standard output ...
LINES = {
    "launch": None,
    "check": r"\[INFO\] VKAClient::VKAClient\(\) .*",  # the port is taken
    "unpack": r"\[INFO\] VKAClient::build\(\) call: unzip .*",
    "build": r"\[INFO\] VKAClient::make\(\) call: make .*",
    "start": r"\[DEBUG\] VKAClient::make\(\) getCmdCallOutput: .*",
    "running": r"vkahost: running, .*",
    "connected": r"vkahost: client connected",
}
# ... or, the last one, by an act (the program has written all; vkahost gets a signal) and ended by
# a line.
LAST = {"delivering": r"vkahost: program exited with status 3",
        "stopping": r"vkahost: program stopped by SIGTERM"}
PHASES = [*LINES, *LAST]

FLOOD = 6000000  # bytes, more than the connection holds
DATA = bytes(range(256)) * 8192  # something to unpack

# Beside tool.c: says which life this is, and takes its time when it is asked to end.
PROGRAM = """
#include <signal.h>
#include <unistd.h>
static void leave(int sig) { (void)sig; usleep(100000); _exit(0); }
__attribute__((constructor)) static void begin(void) {
    static const char text[] = "life %d\\n";
    signal(SIGTERM, leave);
    if (write(1, text, sizeof text - 1) == -1) _exit(1);
}
"""


def pack_life(directory, number):
    """An archive with a program that no other life has."""
    return pack(directory / ("%d.zip" % number), {
        "tool.c": (PROGRAMS / "tool.c").read_bytes(), "life.c": PROGRAM % number, "data": DATA})


class Life:
    def __init__(self, host, number, port, marker):
        self.host = host
        self.number = number
        self.port = port
        self.marker = marker
        self.client = None
        self.last = None

    def greet(self, **options):
        self.client = self.host.client(port=self.port, **options)
        assert self.client.line() == "life %d" % self.number

    def begin(self, phase):
        """Goes on to this phase, from the one before."""
        if phase == "connected":
            self.greet(receive_buffer=4096)
        elif phase == "delivering":
            for command in "flood %d" % FLOOD, "touch %s" % self.marker, "exit 3":
                self.client.command(command)
            wait_until(self.marker.exists, "the program has written all")
        elif phase == "stopping":
            self.host.signal(signal.SIGTERM)
        elif LINES[phase]:
            self.host.line(LINES[phase])
        if phase in LAST:
            self.last = phase

    def lead_to(self, last):
        """Goes through all phases up to this one; tells when each began."""
        begun = {}
        for phase in [*LINES, last] if last in LAST else LINES:
            self.begin(phase)
            begun[phase] = time.monotonic()
            if phase == last:
                return begun

    def stay(self, seconds):
        """Does for as long what is done in this phase."""
        end = time.monotonic() + seconds
        if self.client and not self.last:
            self.talk(end - seconds / 2)
        while time.monotonic() < end:
            if self.last != "delivering" or not self.client.socket.recv(1 << 16):
                time.sleep(max(min(end - time.monotonic(), 0.002), 0))

    def talk(self, end):
        """Talks with the program, then lets it rest so that it sees nothing of its host's end."""
        while time.monotonic() < end:
            assert self.client.ask("say words") == "words"
        self.client.command("sleep")

    def ended(self):
        return self.host.out.line(LAST[self.last], 0) is not None

    def phase_of_death(self):
        """The phase that was the last one, by all that was written."""
        self.host.out.whole()
        if self.last:
            return "ended" if self.ended() else self.last
        return [phase for phase, line in LINES.items()
                if line is None or self.host.out.line(line, 0)][-1]
