# SPDX-License-Identifier: MIT
"""The last that a program writes reaches the client, or the host's output if there is none."""
import os
import signal
import time

import pytest

import processes
from archives import pack
from clients import free_port, record_stream
from hosts import traced
from processes import fastest, open_gate, wait_until

FORK = """
#include <stdio.h>
#include <unistd.h>
int main(void) {
    pid_t pid = fork();
    if (pid == 0)
        for (;;) pause();
    printf("%d\\n", (int)pid);
    return 3;
}
"""


@pytest.fixture
def early_client(host, fifo):
    """Starts vkahost with a client that connects while the program is still built."""
    def start(*options, script, first=b"", **client_options):
        port = free_port()
        vkahost = host("-p", port, *options, script=script, env={"MAKE_GATE": str(fifo)})
        client = vkahost.client(port=port, **client_options)
        client.send(first)
        open_gate(fifo)
        return vkahost, client

    return start


@pytest.mark.parametrize("turn", range(50))
def test_word_of_a_program_that_ends_at_once(early_client, turn):
    vkahost, client = early_client(script="say last words;exit 3")
    assert client.receive_all() == b"last words\n"
    client.close()
    assert vkahost.wait() == 3


@pytest.mark.parametrize("turn", range(20))
def test_much_output_of_a_program_that_ends_at_once(early_client, turn):
    vkahost, client = early_client(script="flood 200000;exit 3")
    assert client.receive_all() == record_stream(200000)
    client.close()
    assert vkahost.wait() == 3
    assert vkahost.unfetched() is None


def test_output_when_the_end_comes_while_the_host_looks_for_it(host, fifo):
    """The host is slowed down where it looks whether the program has ended."""
    vkahost = host(**traced("-e", "inject=waitid:delay_enter=300000"),
                   script="say ready;gate %s;flood 2000;exit 3" % fifo)
    client = vkahost.client()
    assert client.line() == "ready"
    open_gate(fifo)
    assert client.receive_all() == record_stream(2000)
    assert vkahost.wait() == 3


def test_output_of_a_killed_program(early_client):
    vkahost, client = early_client(script="flood 3000;raise %d" % signal.SIGKILL)
    assert client.receive_all() == record_stream(3000)
    client.close()
    assert vkahost.wait() == 128 + signal.SIGKILL


def test_client_that_still_waits_at_the_end_is_served(host):
    """The first client goes when the program ends; the second gets what was not yet sent."""
    vkahost = host()
    first = vkahost.client()
    first.ask("say hello")
    second = vkahost.client()
    program = vkahost.program
    os.kill(program, signal.SIGSTOP)
    first.command("flood 3000")
    first.command("exit 3")
    first.close()
    vkahost.line("vkahost: client disconnected")
    os.kill(program, signal.SIGCONT)
    assert second.receive_all() == record_stream(3000)
    assert vkahost.wait() == 3


def test_client_that_sends_meanwhile_gets_all(early_client):
    """Closing a connection with unread input would reset it and lose what is on its way."""
    vkahost, client = early_client(script="flood 200000;exit 3", receive_buffer=4096,
                                   first=b"\n" * 50000)
    assert client.receive_all() == record_stream(200000)
    assert vkahost.wait() == 3


def test_unfetched_output_is_printed(host):
    vkahost = host(script="flood 200000;exit 3")
    assert vkahost.wait() == 3
    assert vkahost.unfetched() == record_stream(200000)
    assert vkahost.last_line() == "vkahost: program exited with status 3"


def test_slow_client_gets_all(early_client):
    size = 12 << 20
    vkahost, client = early_client("-b16M", script="flood %d;exit 3" % size, receive_buffer=4096)
    received = b""
    for _ in range(6):
        received += client.receive(1000)
        time.sleep(0.3)
    assert vkahost.process.poll() is None, "the host did not wait for the client"
    received += client.receive_all()
    assert received == record_stream(size)
    assert vkahost.wait() == 3
    assert vkahost.unfetched() is None


def test_client_that_stopped_reading_is_given_up(early_client):
    size = 12 << 20
    vkahost, client = early_client("-b16M", script="flood %d;exit 3" % size, receive_buffer=4096)
    assert vkahost.wait() == 3
    unfetched = vkahost.unfetched()
    assert client.receive_all() + unfetched == record_stream(size)


def test_signal_ends_the_wait_for_a_slow_client(early_client):
    def stopping_time():
        vkahost, _ = early_client("-b16M", script="flood %d;exit 3" % (12 << 20),
                                  receive_buffer=4096)
        vkahost.line("vkahost: running, .*")
        wait_until(lambda: not processes.children(vkahost.pid), "the program's end was seen")
        start = time.monotonic()
        vkahost.signal(signal.SIGTERM)
        assert vkahost.wait() in (3, 143)
        return time.monotonic() - start

    assert fastest(stopping_time, 3) < 3  # without a signal 5 s


def test_client_that_does_not_close_is_not_waited_for(host):
    vkahost = host()
    client = vkahost.client()
    client.command("exit 3")
    assert vkahost.wait() == 3
    client.receive_all()


def test_process_that_the_program_left_behind_does_not_keep_the_host(host):
    vkahost = host(script="orphan")
    client = vkahost.client()
    orphan = int(client.line().split()[1])
    client.receive_until(b"x")
    client.command("exit 3")
    try:
        assert vkahost.wait() == 3
        client.receive_all()
        wait_until(lambda: not processes.exists(orphan), "its terminal was closed")
    finally:
        if processes.exists(orphan):
            os.kill(orphan, signal.SIGKILL)


def test_silent_process_that_the_program_left_behind_does_not_keep_the_host(host, tmp_path):
    vkahost = host(archive=pack(tmp_path / "fork.zip", {"fork.c": FORK}), fast=False)
    try:
        assert vkahost.wait() == 3
    finally:
        for pid in processes.running():
            os.kill(pid, signal.SIGKILL)
    assert vkahost.unfetched().strip().isdigit()
