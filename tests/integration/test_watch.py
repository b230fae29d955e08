# SPDX-License-Identifier: MIT
"""vkahost --watch: a replaced archive is built and started, the console stays."""
import os
import re
import shutil
import signal
import time

import pytest

import processes
from archives import HELLO, PROGRAMS, pack
from clients import record_stream
from hosts import traced
from processes import open_gate, opened, wait_until

MAKE = """#!/bin/sh
# Installs the tool, unless the archive has a file that says otherwise.
[ ! -e broken ] || { cat broken; exit 1; }
[ ! -e gate ] || cat "$(cat gate)"
cp "$PREBUILT" /tmp/vkabin.new && mv -f /tmp/vkabin.new /tmp/vkabin
"""


class Archive:
    """An archive whose program first prints the version that is packed with it."""

    def __init__(self, directory):
        self.path = directory / "program.zip"
        self.next = directory / "next.zip"

    def members(self, version, **files):
        return {"tool.c": (PROGRAMS / "tool.c").read_bytes(), "version": version + "\n", **files}

    def rename(self, version, **files):
        """Replaces it at once."""
        pack(self.next, self.members(version, **files)).rename(self.path)

    def write(self, version, **files):
        """Writes it in place."""
        pack(self.path, self.members(version, **files))


@pytest.fixture
def archive(tmp_path):
    directory = tmp_path / "archive"
    directory.mkdir()
    made = Archive(directory)
    made.rename("one")
    return made


@pytest.fixture
def watch(host, archive, fast_make, tmp_path):
    """Starts vkahost with --watch on the archive."""
    make = tmp_path / "watch_make" / "make"
    make.parent.mkdir()
    make.write_text(MAKE)
    make.chmod(0o755)
    path = "%s:%s" % (make.parent, os.environ["PATH"])

    def start(*options, script="cat version", env=None, **popen):
        return host("--watch", *options, archive=archive.path, script=script,
                    env={"PATH": path, **(env or {})}, **popen)

    return start


def greeting(version):
    return ("%s\nend\n" % version).encode()


def connect(vkahost, version="one"):
    client = vkahost.client()
    assert client.receive(len(greeting(version))) == greeting(version)
    return client


@pytest.mark.parametrize("way", ["rename", "write"])
def test_a_replaced_archive_is_started_for_the_same_client(watch, archive, way):
    vkahost = watch()
    client = connect(vkahost)
    old = vkahost.program
    port = vkahost.port
    for version in ("two", "three"):
        getattr(archive, way)(version)
        assert client.receive(len(greeting(version))) == greeting(version)
    vkahost.times("vkahost: running, console on port %d" % port, 3)
    assert client.ask("say hello") == "hello"
    assert not processes.exists(old)
    assert vkahost.lines().count("vkahost: archive replaced") == 2
    assert vkahost.lines().count("vkahost: program stopped for the new one") == 2
    assert vkahost.lines().count("vkahost: client connected") == 1


def test_a_switched_link_is_a_replaced_archive(watch, archive):
    archive.rename("two")
    second = archive.path.rename(archive.path.with_name("second.zip"))
    archive.rename("one")
    first = archive.path.rename(archive.path.with_name("first.zip"))
    archive.path.symlink_to(first)
    client = connect(watch())
    archive.next.symlink_to(second)
    archive.next.rename(archive.path)
    assert client.receive(len(greeting("two"))) == greeting("two")


def test_the_real_makefile_builds_what_replaced_the_archive(host, archive):
    pack(archive.path, HELLO)
    vkahost = host("-W", archive=archive.path, fast=False)
    vkahost.line("vkahost: program exited with status 7")
    pack(archive.next, {"a.c": "int main(void) { return 8; }\n"}).rename(archive.path)
    vkahost.line("vkahost: program exited with status 8")
    vkahost.times("vkahost: waiting for another archive", 2)


def test_a_failed_build_leaves_the_program_alone(watch, archive):
    vkahost = watch()
    client = connect(vkahost)
    program = vkahost.program
    archive.rename("two", broken="main.c:1: error: expected everything\n")
    vkahost.error_line("vkahost: build failed: make error")
    vkahost.line("main.c:1: error: expected everything")
    vkahost.line("vkahost: the program before goes on")
    assert client.ask("say still here") == "still here"
    assert vkahost.program == program
    archive.write("three")
    assert client.receive(len(greeting("three"))) == greeting("three")


def test_a_damaged_archive_leaves_the_program_alone(watch, archive):
    vkahost = watch()
    client = connect(vkahost)
    archive.path.write_bytes(b"no zip")
    vkahost.error_line("vkahost: build failed: archive .*: no zip archive, or damaged:")
    assert client.ask("say still here") == "still here"


@pytest.mark.parametrize("first", ["broken", "missing"])
def test_the_first_build_may_fail(watch, archive, first):
    if first == "broken":
        archive.rename("none", broken="an error\n")
    else:
        archive.path.unlink()
    vkahost = watch()
    vkahost.error_line("vkahost: build failed: .*")
    vkahost.line("vkahost: waiting for another archive")
    archive.write("one")
    connect(vkahost)
    vkahost.line("vkahost: archive replaced")


def test_a_program_that_ends_is_not_the_end(watch, archive):
    vkahost = watch()
    client = connect(vkahost)
    client.command("exit 9")
    vkahost.line("vkahost: program exited with status 9")
    vkahost.line("vkahost: waiting for another archive")
    assert not processes.zombies()
    archive.rename("two")
    assert client.receive(len(greeting("two"))) == greeting("two")
    assert "vkahost: program stopped for the new one" not in vkahost.lines()


def test_only_the_newest_archive_is_started(watch, archive, fifo):
    vkahost = watch()
    client = connect(vkahost)
    archive.rename("two", gate=str(fifo))
    gate = opened(fifo)  # waits until the build of "two" reads it
    archive.rename("three")
    vkahost.line("vkahost: build stopped, as the archive was replaced again")
    assert client.receive(len(greeting("three"))) == greeting("three")
    with pytest.raises(BrokenPipeError):  # nobody reads any more
        gate.write(b"x")
        gate.close()
    assert client.ask("say hello") == "hello"


def test_the_console_is_served_during_a_build(watch, archive, fifo):
    vkahost = watch()
    client = connect(vkahost)
    archive.rename("two", gate=str(fifo))
    with opened(fifo):
        assert client.ask("say hello") == "hello"
        client.close()
        second = vkahost.client()
        assert second.ask("say hello") == "hello"
    assert second.receive(len(greeting("two"))) == greeting("two")


def test_the_processes_of_a_build_do_not_hold_the_client(watch, archive, fifo):
    # The descriptor for the progress must not be the client's by chance.
    vkahost = watch(launcher=["sh", "-c", 'exec 3</dev/null "$@"', "sh"])
    client = connect(vkahost)
    archive.rename("two", gate=str(fifo))
    with opened(fifo):
        client.half_close()
        assert client.receive_all() == b""


def test_nothing_of_the_old_terminal_reaches_the_new_program(watch, archive):
    """Neither input nor modes nor what processes write that the old program left behind."""
    vkahost = watch("-s100x30")
    client = connect(vkahost)
    orphan = int(client.ask("orphan").split()[1])
    client.command("sleep")
    client.command("say for the old one only")
    archive.rename("two")
    client.receive_until(greeting("two"))
    wait_until(lambda: not processes.exists(orphan), "the process left behind cannot write")
    assert client.ask("tty") == "100x30 raw"


def test_a_terminal_that_a_program_took_along_is_replaced(watch, archive):
    vkahost = watch(script="cat version;ctty")
    client = connect(vkahost)
    client.command("exit 0")
    vkahost.line("vkahost: waiting for another archive")
    archive.rename("two")
    assert client.receive(len(greeting("two"))) == greeting("two")


def test_unfetched_output_of_the_old_program_comes_first(watch, archive, marker):
    vkahost = watch(script="cat version;flood 50000;touch %s" % marker)
    wait_until(marker.exists, "the program has written everything")
    archive.rename("two")
    vkahost.line("vkahost: program stopped for the new one")
    client = connect(vkahost)
    assert client.receive(50000) == record_stream(50000)
    assert client.receive(len(greeting("two"))) == greeting("two")


def test_log_file_mode(watch, archive, tmp_path):
    log = tmp_path / "log"
    vkahost = watch("-l", log)
    wait_until(lambda: log.exists() and log.read_bytes() == greeting("one"), "the first output")
    archive.rename("two")
    wait_until(lambda: log.read_bytes() == greeting("two"), "the second output")
    vkahost.times("vkahost: running, output in %s" % log, 2)


def test_directory_that_goes_and_comes_back(watch, archive):
    vkahost = watch()
    client = connect(vkahost)
    shutil.rmtree(archive.path.parent)
    assert client.ask("say still here") == "still here"
    archive.path.parent.mkdir()
    archive.rename("two")
    assert client.receive(len(greeting("two"))) == greeting("two")
    archive.path.parent.rename(archive.path.parent.with_name("away"))
    archive.path.parent.mkdir()
    archive.write("three")
    assert client.receive(len(greeting("three"))) == greeting("three")


def test_other_files_and_looks_do_not_count(watch, archive):
    vkahost = watch()
    client = connect(vkahost)
    archive.path.with_name("program.zip.new").write_bytes(b"other")
    with open(archive.path, "r+b"):
        pass
    archive.path.read_bytes()
    end = time.monotonic() + 0.3
    while time.monotonic() < end:
        assert client.ask("say hello") == "hello"
    archive.rename("two")
    assert client.receive(len(greeting("two"))) == greeting("two")
    assert vkahost.lines().count("vkahost: archive replaced") == 1


def test_descriptors_and_processes_do_not_grow(watch, archive):
    def descriptors():
        return sorted(os.readlink("/proc/%d/fd/%s" % (vkahost.pid, fd)).split(":")[0]
                      for fd in os.listdir("/proc/%d/fd" % vkahost.pid))

    vkahost = watch()
    client = connect(vkahost)
    before = len(descriptors())
    for number in range(10):
        archive.rename("version %d" % number)
        client.receive_until(greeting("version %d" % number))
    assert len(descriptors()) == before
    assert processes.children(vkahost.pid) == [vkahost.program]


@pytest.mark.parametrize("state", ["building", "rebuilding", "running", "waiting"])
def test_a_signal_ends_everything(watch, archive, fifo, state):
    if state == "building":
        archive.rename("one", gate=str(fifo))
    vkahost = watch()
    if state != "building":
        client = connect(vkahost)
    if state == "rebuilding":
        archive.rename("two", gate=str(fifo))
    if state == "waiting":
        client.command("exit 3")
        vkahost.line("vkahost: waiting for another archive")
    gate = opened(fifo) if "building" in state else None
    vkahost.signal(signal.SIGTERM)
    assert vkahost.wait() == 128 + signal.SIGTERM
    if gate:
        gate.close()
    stopped = [line for line in vkahost.lines() if line.endswith("stopped by SIGTERM")]
    assert stopped == {
        "building": ["vkahost: build stopped by SIGTERM", "vkahost: stopped by SIGTERM"],
        "rebuilding": ["vkahost: build stopped by SIGTERM", "vkahost: program stopped by SIGTERM"],
        "running": ["vkahost: program stopped by SIGTERM"],
        "waiting": ["vkahost: stopped by SIGTERM"],
    }[state]


def test_a_signal_while_the_program_is_replaced(watch, archive):
    vkahost = watch()
    client = connect(vkahost)
    client.ask("ignore %d\nsay hello" % signal.SIGTERM)  # so that replacing it takes two seconds
    archive.rename("two")
    vkahost.times("make log:", 2)
    wait_until(lambda: len(processes.children(vkahost.pid)) == 1, "the build has ended")
    vkahost.signal(signal.SIGTERM)
    assert vkahost.wait() == 128 + signal.SIGTERM
    assert [line for line in vkahost.lines() if "stopped" in line] == [
        "vkahost: program stopped for the new one", "vkahost: stopped by SIGTERM"]


def test_without_watching_a_failed_build_and_an_ended_program_are_the_end(host, archive):
    vkahost = host(archive=archive.path, script="exit 5")
    assert vkahost.wait() == 5
    pack(archive.path, {"a.c": "no C\n"})
    assert host(archive=archive.path, fast=False).wait() == 124


@pytest.mark.parametrize("call, message", [
    ("inotify_init1", "cannot watch the archive: Too many open files"),
    ("inotify_add_watch", "cannot watch .*/archive/: Too many open files"),
])
def test_what_cannot_be_watched_is_told(watch, call, message):
    vkahost = watch(**traced("-e", "inject=%s:error=EMFILE" % call))
    assert vkahost.wait() == 125
    assert re.fullmatch("vkahost: %s\n" % message, vkahost.errors())


def test_no_terminal_for_the_next_program_is_told(watch, archive):
    """The console is gone then, and the host with it."""
    vkahost = watch(**traced("-e", "trace=openat", "-P", "/dev/ptmx",
                             "-e", "inject=openat:error=EMFILE:when=2"))
    connect(vkahost)
    archive.rename("two")
    assert vkahost.wait() == 125
    assert "vkahost: cannot open a terminal" in vkahost.errors()


def test_the_progress_of_a_build_is_told_while_it_lasts(host, archive, fifo, tmp_path):
    compiler = tmp_path / "slow"
    compiler.write_text('#!/bin/sh\n'
                        'case "$*" in *" -c "*second.c) cat "%s";; esac\nexec gcc "$@"\n' % fifo)
    compiler.chmod(0o755)
    pack(archive.path, {"first.c": "int first;\n", "main.c": "int main(void) { return 3; }\n",
                        "second.c": "int second;\n"})
    vkahost = host(archive=archive.path, fast=False, env={"CC": str(compiler)})
    for line in (r"\[1/3\] first.c", r"\[3/3\] second.c"):
        vkahost.line(line)
    assert "make log:" not in vkahost.lines()
    open_gate(fifo)
    assert vkahost.wait() == 3
