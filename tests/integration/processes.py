# SPDX-License-Identifier: MIT
"""Waiting with a time limit, and what /proc tells about processes."""
import errno
import os
import re
import time

PROGRAM = "/tmp/vkabin"
SLOWNESS = float(os.environ.get("VKA_SLOWNESS", "1"))  # of this machine; an emulated one is slow
# Processes run under qemu's user-mode emulation, which is no whole kernel.
EMULATED = os.environ.get("VKA_EMULATOR") == "qemu-user"
DEADLINE = 30 * SLOWNESS  # seconds, for what takes far less unless it hangs


def wait_until(condition, what, deadline=DEADLINE):
    """Waits for a true result of condition() and returns it."""
    end = time.monotonic() + deadline
    while True:
        late = time.monotonic() >= end  # before the look: the machine may stall behind it
        result = condition()
        if result:
            return result
        assert not late, "not within %s s: %s" % (deadline, what)
        time.sleep(0.005)


def fastest(measure, limit, attempts=4):
    """The least of a few times, as a busy machine may add to any; one within the limit will do."""
    times = []
    while len(times) < attempts and min(times, default=limit) >= limit:
        times.append(measure())
    return min(times)


def opened(fifo):
    """A FIFO to write to, once somebody reads it; open() would wait for a dead reader for ever."""
    found = []

    def is_open():
        try:
            found.append(os.open(fifo, os.O_WRONLY | os.O_NONBLOCK))
        except OSError as failure:
            if failure.errno != errno.ENXIO:  # nobody reads it yet
                raise
        return found

    return open(wait_until(is_open, "somebody reads the FIFO")[0], "wb")


def open_gate(fifo):
    """Lets somebody pass who waits for the end of a FIFO."""
    opened(fifo).close()


def read(pid, name):
    """A file of /proc/PID; empty when the process is gone."""
    try:
        with open("/proc/%s/%s" % (pid, name), "rb") as file:
            return file.read().decode(errors="replace")
    except OSError:
        return ""


def stat(pid):
    """The fields of the status line behind the name: state, parent, group, session, ..."""
    return read(pid, "stat").rpartition(") ")[2].split()


def pids():
    return [int(name) for name in os.listdir("/proc") if name.isdigit()]


def exists(pid):
    """Is there such a process, zombies aside?"""
    fields = stat(pid)
    return bool(fields) and fields[0] not in "ZX"


def zombies():
    return [pid for pid in pids() if stat(pid)[:1] == ["Z"]]


def with_environment(entry):
    """The processes that were started with NAME=VALUE in their environment."""
    return [pid for pid in pids() if entry in read(pid, "environ").split("\0") and exists(pid)]


def executable(pid):
    """The path of the program that a process runs; empty when the process is gone."""
    try:
        path = os.readlink("/proc/%d/exe" % pid)
    except OSError:
        return ""
    if "/qemu" in path:  # runs the program that its command line names
        path = (read(pid, "cmdline").split("\0") + [""])[1]
    return path.removesuffix(" (deleted)")


def running(program=PROGRAM):
    """The processes that run a program, also one that was replaced since."""
    return [pid for pid in pids() if executable(pid) == program]


def children(pid):
    return [child for child in pids() if stat(child)[1:2] == [str(pid)]]


def cpu_seconds(pid):
    fields = stat(pid)
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def busy_share(pid, seconds=0.6):
    """The share of a processor that a process uses, measured over that time."""
    before, start = cpu_seconds(pid), time.monotonic()
    time.sleep(seconds)
    return (cpu_seconds(pid) - before) / (time.monotonic() - start)


def resident_mib(pid):
    return int(stat(pid)[21]) * os.sysconf("SC_PAGE_SIZE") / 2**20


def own_kib(pid):
    """Memory that no other process has, exactly: stat's figures lag behind."""
    return int(re.search(r"^Anonymous: +(\d+) kB$", read(pid, "smaps_rollup"), re.MULTILINE)[1])


def describe(found):
    return ["%d %s: %s" % (pid, stat(pid)[:4], read(pid, "cmdline").replace("\0", " "))
            for pid in found]
