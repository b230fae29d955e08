# SPDX-License-Identifier: MIT
"""Programs that put a terminal's program on a TCP port: vkahost, the floor and the peers."""
import contextlib
import os
import pathlib
import re
import shutil
import socket
import subprocess
import tempfile
import time
import zipfile

BUILD = pathlib.Path(os.environ.get("VKA_BENCH_BUILD", ""))
CHILD, CLIENT, FLOOR = (BUILD / "bench" / name for name in ("bench_child", "bench_client", "floor_relay"))
PROGRAM = pathlib.Path("/tmp/vkabin")
FAST_MAKE = "#!/bin/sh\ncp %s /tmp/vkabin.new && mv -f /tmp/vkabin.new /tmp/vkabin\n" % CHILD


def free_port():
    with socket.socket() as sock:
        sock.bind(("127.0.0.1", 0))
        return sock.getsockname()[1]


class Relay:
    """A running one. One that is given its port says nothing; the others say where they are."""

    def __init__(self, command, child, environment=None, port=None):
        self.directory = tempfile.TemporaryDirectory()
        self.process = subprocess.Popen(
            [str(word) for word in command], cwd=self.directory.name, stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL if port else subprocess.PIPE,
            stderr=subprocess.DEVNULL,
            env={**os.environ, "BENCH_CHILD": child, **(environment or {})})
        self.pid = self.process.pid
        self.port = port or self._told_port()

    def _told_port(self):
        for line in self.process.stdout:
            match = re.search(rb"console on port (\d+)", line)
            if match:
                return int(match[1])
        raise RuntimeError("%s did not start" % self.process.args[0])

    def cpu_ns(self):
        """Processor time of the process itself, all of its threads."""
        tasks = pathlib.Path("/proc/%d/task" % self.pid)
        return sum(int((task / "schedstat").read_text().split()[0]) for task in tasks.iterdir())

    def own_kib(self):
        """Memory that no other process shares with it."""
        rollup = pathlib.Path("/proc/%d/smaps_rollup" % self.pid).read_text()
        return int(re.search(r"^Anonymous: +(\d+) kB$", rollup, re.MULTILINE)[1])

    def client(self, *arguments):
        """What the client measured, in nanoseconds."""
        done = subprocess.run([str(word) for word in (CLIENT, self.port, *arguments)],
                              stdout=subprocess.PIPE, check=True, timeout=600)
        return [int(line) for line in done.stdout.split()]

    def stop(self):
        """Ends it and what it has started; returns the seconds that this took."""
        start = time.monotonic()
        self.process.terminate()
        self.process.communicate(timeout=30)
        seconds = time.monotonic() - start
        self.directory.cleanup()
        return seconds


def install_child():
    PROGRAM.unlink(missing_ok=True)
    shutil.copy(CHILD, PROGRAM)


def vkahost(child, buffer="64M", launcher=()):
    """From the build to the console, with the child in place of what make would build."""
    tools = tempfile.mkdtemp()
    make = pathlib.Path(tools, "make")
    make.write_text(FAST_MAKE)
    make.chmod(0o755)
    archive = pathlib.Path(tools, "empty.zip")
    with zipfile.ZipFile(archive, "w") as sources:
        sources.writestr("empty.c", "")
    try:
        return Relay([*launcher, BUILD / "host" / "vkahost", "-p0", "-b" + buffer, archive], child,
                     {"PATH": "%s:%s" % (tools, os.environ["PATH"])})
    finally:
        shutil.rmtree(tools)


def floor(child, *options):
    install_child()
    return Relay([FLOOR, *options], child)


def _listening(relay):
    """The peers say nothing; connecting would start their program."""
    wanted = ":%04X" % relay.port
    end = time.monotonic() + 30
    while time.monotonic() < end:
        for line in pathlib.Path("/proc/net/tcp").read_text().splitlines()[1:]:
            fields = line.split()
            if fields[1].endswith(wanted) and fields[3] == "0A":
                return relay
        time.sleep(0.01)
    raise RuntimeError("%s does not listen" % relay.process.args[0])


def socat(child, *options):
    install_child()
    port = free_port()
    return _listening(Relay(["socat", *options, "TCP-LISTEN:%d,bind=127.0.0.1,nodelay" % port,
                             "EXEC:/tmp/vkabin,pty,raw,echo=0"], child, port=port))


def ser2net(child, size):
    install_child()
    port = free_port()
    with tempfile.NamedTemporaryFile("w", suffix=".yaml") as config:
        config.write("connection: &console\n"
                     "  accepter: tcp(readbuf=%d,nodelay),127.0.0.1,%d\n"
                     "  connector: pty(readbuf=%d,raw),/tmp/vkabin\n"
                     "  options:\n    net-to-dev-bufsize: %d\n    dev-to-net-bufsize: %d\n"
                     % (size, port, size, size, size))
        config.flush()
        return _listening(Relay(["ser2net", "-n", "-c", config.name], child, port=port))


@contextlib.contextmanager
def running(start, *arguments):
    relay = start(*arguments)
    try:
        yield relay
    finally:
        relay.stop()
