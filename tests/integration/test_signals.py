# SPDX-License-Identifier: MIT
"""Ending vkahost by signals."""
import os
import signal
import subprocess
import time

import pytest

import processes
from archives import pack
from clients import free_port
from hosts import traced
from processes import fastest, opened, wait_until

LEAVE = """
#include <signal.h>
#include <unistd.h>
static void leave(int sig) { (void)sig; _exit(write(1, "bye\\n", 4) == 4 ? 0 : 1); }
int main(void) {
    signal(SIGTERM, leave);
    if (write(1, "ready\\n", 6) != 6) return 1;
    for (;;) pause();
}
"""
SLEEP = os.path.realpath("/bin/sleep")
GRACE = 1.9  # seconds, a little less than what a program has to end by itself
STOPPING = [signal.SIGHUP, signal.SIGINT, signal.SIGTERM]


def end_by(vkahost, number):
    start = time.monotonic()
    vkahost.signal(number)
    assert vkahost.wait() == 128 + number
    assert not processes.running()
    return time.monotonic() - start


@pytest.mark.parametrize("number", STOPPING, ids=lambda number: number.name)
def test_stops_the_program(host, number):
    def stopping_time():
        vkahost = host()
        vkahost.client().ask("say hello")
        seconds = end_by(vkahost, number)
        assert vkahost.last_line() == "vkahost: program stopped by " + number.name
        return seconds

    assert fastest(stopping_time, GRACE) < GRACE


@pytest.mark.parametrize("number", STOPPING, ids=lambda number: number.name)
def test_stops_the_program_of_log_file_mode(host, tmp_path, number):
    def stopping_time():
        vkahost = host("-l", tmp_path / "log", script="sleep")
        vkahost.line("vkahost: running, output in .*")
        return end_by(vkahost, number)

    assert fastest(stopping_time, GRACE) < GRACE


@pytest.mark.parametrize("number", STOPPING, ids=lambda number: number.name)
def test_kills_a_program_that_ignores_the_request(host, number):
    vkahost = host()
    vkahost.client().ask("ignore %d\nignore %d\nsay hello" % (signal.SIGTERM, number))
    assert end_by(vkahost, number) > GRACE


def test_stops_a_stopped_program(host):
    def stopping_time():
        vkahost = host()
        vkahost.client().ask("say hello")
        program = vkahost.program
        os.kill(program, signal.SIGSTOP)
        wait_until(lambda: processes.stat(program)[0] == "T", "the program is stopped")
        return end_by(vkahost, signal.SIGTERM)

    assert fastest(stopping_time, GRACE) < GRACE


def test_kills_a_stopped_program_that_ignores_the_request(host):
    vkahost = host()
    vkahost.client().command("ignore %d\nraise %d" % (signal.SIGTERM, signal.SIGSTOP))
    program = vkahost.program
    wait_until(lambda: processes.stat(program)[0] == "T", "the program is stopped")
    assert end_by(vkahost, signal.SIGTERM) > GRACE


def test_many_signals_at_once(host):
    vkahost = host()
    vkahost.client().ask("ignore %d\nsay hello" % signal.SIGTERM)
    for _ in range(1000):
        vkahost.signal(signal.SIGINT)
        vkahost.signal(signal.SIGTERM)
    assert vkahost.wait() in (128 + signal.SIGINT, 128 + signal.SIGTERM)


def test_output_before_the_request_reaches_the_client(host, marker):
    vkahost = host()
    client = vkahost.client()
    client.ask("say hello")
    client.command("say last words")
    client.command("touch %s" % marker)
    wait_until(marker.exists, "the program has written")
    vkahost.signal(signal.SIGTERM)
    assert client.receive_all() == b"last words\n"
    assert vkahost.wait() == 143


def test_output_of_a_program_that_reacts_to_the_request_reaches_the_client(host, tmp_path):
    vkahost = host(archive=pack(tmp_path / "leave.zip", {"leave.c": LEAVE}), fast=False)
    client = vkahost.client()
    assert client.line() == "ready"
    vkahost.signal(signal.SIGTERM)
    assert client.receive_all() == b"bye\n"
    assert vkahost.wait() == 143


class TestDuringTheBuild:
    @pytest.fixture
    def building(self, host, tmp_path):
        """vkahost in the middle of a build that does not end by itself."""
        make = tmp_path / "bin" / "make"
        make.parent.mkdir()
        make.write_text("#!/bin/sh\nexec sleep 1000\n")
        make.chmod(0o755)
        vkahost = host(env={"PATH": "%s:%s" % (make.parent, os.environ["PATH"])}, fast=False)
        wait_until(lambda: processes.running(SLEEP), "make has been called")
        return vkahost

    @pytest.mark.parametrize("number", STOPPING, ids=lambda number: number.name)
    def test_signal_to_the_host_ends_it_and_the_build(self, building, number):
        building.signal(number)
        assert building.wait() == 128 + number
        assert not processes.running(SLEEP)

    @pytest.mark.parametrize("number", STOPPING, ids=lambda number: number.name)
    def test_signal_to_the_group_ends_all(self, building, number):
        """As Ctrl-C does."""
        os.killpg(building.pid, number)
        assert building.wait() == 128 + number
        assert not processes.running(SLEEP)

    def test_nothing_is_run_after_a_signal(self, host, fifo, marker, old_program):
        vkahost = host(env={"MAKE_GATE": str(fifo)}, script="touch %s" % marker)
        with opened(fifo):  # returns when make has been called
            vkahost.signal(signal.SIGTERM)
            assert vkahost.wait() == 143
        assert not marker.exists()
        assert old_program()


class TestKilledHost:
    def test_program_dies_at_once(self, host):
        vkahost = host()
        vkahost.client().ask("ignore %d\nsay hello" % signal.SIGTERM)
        program = vkahost.program
        vkahost.signal(signal.SIGKILL)
        assert vkahost.wait() == -signal.SIGKILL
        wait_until(lambda: not processes.exists(program), "the program is gone")

    def test_program_of_log_file_mode_dies_at_once(self, host, tmp_path):
        vkahost = host("-l", tmp_path / "log", script="sleep")
        program = vkahost.program
        vkahost.signal(signal.SIGKILL)
        assert vkahost.wait() == -signal.SIGKILL
        wait_until(lambda: not processes.exists(program), "the program is gone")

    def test_build_is_given_up(self, host, fifo):
        vkahost = host(env={"MAKE_GATE": str(fifo)})
        with opened(fifo):  # make has been called, and is held up
            builder, = processes.children(vkahost.pid)
            vkahost.signal(signal.SIGKILL)
            assert vkahost.process.wait(processes.DEADLINE) == -signal.SIGKILL
            wait_until(lambda: not processes.exists(builder), "the build's process is gone")

    def test_build_is_not_begun_when_the_host_died_before(self, host):
        """The build's process is held up where it asks for a signal at the host's death."""
        vkahost = host(**traced("-f", "-e", "inject=prctl:delay_enter=2000000"))
        vkahost.line(r"\[INFO\] VKAClient::VKAClient\(\) .*")
        builder, = wait_until(lambda: processes.children(vkahost.pid), "the build is started")
        vkahost.signal(signal.SIGKILL)
        assert vkahost.wait() == -signal.SIGKILL
        wait_until(lambda: not processes.exists(builder), "the build's process is gone")
        assert "call: unzip" not in vkahost.out.whole().decode()

    @pytest.mark.parametrize("connected", [False, True])
    def test_port_is_free_at_once(self, host, connected):
        port = free_port()
        for _ in range(3):
            vkahost = host("-p", port)
            assert vkahost.port == port
            if connected:
                assert vkahost.client().ask("say hello") == "hello"
            assert vkahost.program  # and no longer a copy of the host, with its listening socket
            vkahost.signal(signal.SIGKILL)
            assert vkahost.wait() == -signal.SIGKILL

    def test_port_is_free_at_once_after_a_regular_end(self, host):
        """The host closes first, so its side of the connection stays in TIME_WAIT."""
        port = free_port()
        for _ in range(3):
            vkahost = host("-p", port)
            client = vkahost.client()
            client.command("exit 0")
            client.receive_all()
            client.close()
            assert vkahost.wait() == 0
            states = subprocess.run(["ss", "-tanH", "sport", "= :%d" % port], check=True,
                                    capture_output=True, text=True).stdout
            assert "TIME-WAIT" in states


def test_program_is_not_started_when_the_host_died_before(host, marker):
    """The program's process is held up where it asks for a signal at the host's death."""
    vkahost = host(**traced("-f", "-e", "inject=prctl:delay_enter=2000000"),
                   script="touch %s" % marker)
    vkahost.line("make log:")
    # The build's process has a session of its own.
    program, = wait_until(lambda: [child for child in processes.children(vkahost.pid)
                                   if processes.stat(child)[3:4] == [str(vkahost.pid)]],
                          "the program's process is started")
    vkahost.signal(signal.SIGKILL)
    assert vkahost.wait() == -signal.SIGKILL
    wait_until(lambda: not processes.exists(program), "the program's process is gone")
    assert not marker.exists()
