# SPDX-License-Identifier: MIT
"""One client at a time, any number of them one after the other."""
import os
import signal
import socket

import pytest

from clients import Client, record_stream
from processes import open_gate, opened, wait_until


def test_each_client_talks_to_the_same_program(host):
    vkahost = host()
    ids = set()
    for _ in range(10):
        with vkahost.client() as client:
            ids.add(client.ask("pid"))
    assert len(ids) == 1


def test_next_client_gets_what_is_queued_from_its_oldest_chunk(host, fifo, marker):
    vkahost = host()
    first = vkahost.client()
    first.command("say gone;gate %s" % fifo)
    first.command("gate %s" % fifo)
    assert first.line() == "gone;gate %s" % fifo
    first.command("flood 50000")
    first.command("touch %s" % marker)
    first.close()
    vkahost.line("vkahost: client disconnected")
    open_gate(fifo)
    wait_until(marker.exists, "the program has written")
    with vkahost.client() as second:
        assert second.receive(50000) == record_stream(50000)
        assert second.ask("say now") == "now"


def test_part_of_a_chunk_that_one_client_got_is_not_sent_again(host):
    """Also what the first client left unread in its own socket is gone with it."""
    vkahost = host("-b", "8M")
    first = vkahost.client(receive_buffer=4096)
    first.command("flood 6000000")
    head = first.receive(100000)
    first.reset()
    vkahost.line("vkahost: client disconnected")
    with vkahost.client() as second:
        second.command("say end")
        rest = second.receive_until(b"end\n")[:-4]
    stream = record_stream(6000000)
    assert stream.startswith(head)
    assert stream.endswith(rest)
    assert len(head) + len(rest) <= len(stream)


def test_second_client_waits_until_the_first_has_gone(host):
    vkahost = host()
    first = vkahost.client()
    first.ask("say hello")
    second = vkahost.client()
    second.command("say second")
    for number in range(20):
        assert first.ask("say %d" % number) == str(number)
    assert second.nothing_came()
    first.close()
    assert second.line() == "second"
    vkahost.times("vkahost: client connected", 2)


def test_client_that_half_closes_is_taken_as_gone(host):
    vkahost = host()
    client = vkahost.client()
    client.command("say hello")
    client.half_close()
    client.receive_all()
    vkahost.line("vkahost: client disconnected")
    with vkahost.client() as following:
        following.command("say again")
        following.receive_until(b"again\n")


def test_input_sent_before_the_client_closes_reaches_the_program(host, marker):
    vkahost = host(script="say ready;echo 3000")
    with vkahost.client() as client:
        client.receive_until(b"ready\n")
        client.send(b"x" * 3000 + b"touch %s\n" % bytes(marker))
    wait_until(marker.exists, "the last command was obeyed")


def leave_while_the_program_floods(client):
    client.command("flood 300000")
    client.receive(1)


def leave_in_the_middle_of_a_talk(client):
    client.command("say hello")
    client.receive_until(b"hello\n")


def leave_with_a_command_just_sent(client):
    client.command("flood 2000")


@pytest.mark.parametrize("behave", [leave_while_the_program_floods, leave_in_the_middle_of_a_talk,
                                    leave_with_a_command_just_sent])
def test_fifty_clients_that_reset_the_connection(host, behave):
    vkahost = host()
    for number in range(50):
        client = vkahost.client()
        vkahost.times("vkahost: client connected", number + 1)
        behave(client)
        client.reset()
    with vkahost.client() as client:
        client.command("say alive")
        client.receive_until(b"alive\n")
    assert vkahost.errors() == ""


def test_clients_that_reset_the_connection_while_input_waits(host, fifo):
    vkahost = host(script="say ready;gate %s" % fifo)
    for _ in range(4):
        client = vkahost.client()
        client.send_until_blocked(1 << 20)
        client.reset()
    client = vkahost.client()
    open_gate(fifo)
    client.command("say alive")
    client.receive_until(b"alive\n")
    assert vkahost.errors() == ""


@pytest.mark.parametrize("vanish", [Client.reset, Client.close])
def test_client_that_vanishes_before_it_is_accepted(host, vanish):
    vkahost = host()
    first = vkahost.client()
    first.ask("say hello")
    vanish(vkahost.client())
    first.close()
    with vkahost.client() as third:
        assert third.ask("say third") == "third"


def test_client_that_is_reset_while_the_host_is_stopped(host):
    vkahost = host()
    client = vkahost.client()
    assert client.ask("say hello") == "hello"
    for _ in range(5):
        os.kill(vkahost.pid, signal.SIGSTOP)
        client.command("flood 100000")
        client.reset()
        client = Client(vkahost.port)
        os.kill(vkahost.pid, signal.SIGCONT)
        client.command("say again")
        client.receive_until(b"again\n")
    client.close()


@pytest.mark.parametrize("end", [Client.reset, Client.close])
@pytest.mark.parametrize("output", [0, 1, 3000])
def test_input_before_the_end_of_a_connection_is_not_lost(host, fifo, marker, end, output):
    """The host finds input, end and output of the program at the same time."""
    vkahost = host()
    client = vkahost.client()
    client.command("say hello")
    client.command("gate %s" % fifo)
    client.command("flood %d" % output if output else "")
    assert client.line() == "hello"
    with opened(fifo):  # the program stands at the gate
        os.kill(vkahost.pid, signal.SIGSTOP)
    client.command("touch %s" % marker)
    end(client)
    os.kill(vkahost.pid, signal.SIGCONT)
    wait_until(marker.exists, "the last command was obeyed")
    following = vkahost.client()
    following.command("say again")
    following.receive_until(b"again\n")


def test_urgent_data_does_no_harm(host):
    vkahost = host()
    client = vkahost.client()
    client.ask("say hello")
    client.socket.send(b"!", socket.MSG_OOB)
    assert client.ask("say hello") == "hello"
