# SPDX-License-Identifier: MIT
"""Debug levels add lines and dumps to standard output; the console stays the same."""
import random

import pytest


@pytest.mark.parametrize("level", range(4))
def test_relay_works(host, level):
    data = random.Random(level).randbytes(100000)
    vkahost = host("-d", level, "-b1M", script="say ready;echo 100000")
    client = vkahost.client()
    head = client.receive_until(b"ready\n")
    client.send(data)
    assert client.receive(len(data)) == data
    client.command("exit 7")
    assert client.receive_all() == b""
    client.close()
    assert vkahost.wait() == 7
    assert "vkahost: program exited with status 7" in vkahost.lines()

    # The program's process still logs between its start and its first instruction.
    started = head[:-len(b"ready\n")].decode()
    assert ("[DEBUG] VKAClient::exec() exec: pid=" in started) == (level >= 1)
    assert ("[DEBUG] VKAClient::run() run: pid=" in started) == (level >= 2)
    assert (started == "") == (level == 0)

    log = vkahost.out.so_far().decode()
    assert ("connection request: fdConn=" in log) == (level >= 1)
    assert ("data from fdConn=" in log) == (level >= 2)
    assert ("\nfdconn " in log) == (level >= 3)
    assert ("\nmaster " in log) == (level >= 3)


def test_dump_holds_every_byte_of_both_directions(host):
    vkahost = host("-d3", script="say ready;echo 4")
    client = vkahost.client()
    client.receive_until(b"ready\n")
    client.send(b"\x00\x7f\x80\xff")
    assert client.receive(4) == b"\x00\x7f\x80\xff"
    client.command("exit 0")
    client.receive_all()
    assert vkahost.wait() == 0
    log = vkahost.out.so_far().decode()
    assert "fdconn 00 7f 80 ff\n" in log
    assert "master 00 7f 80 ff\n" in log
