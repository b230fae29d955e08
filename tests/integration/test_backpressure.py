# SPDX-License-Identifier: MIT
"""A program or a client that takes nothing: nobody waits for it, and memory stays bounded."""
import os
import re
import signal
import time

import pytest

from clients import record_stream
from processes import DEADLINE, busy_share, open_gate, own_kib, read, resident_mib, wait_until

# A sanitizer's allocator would keep freed memory for a while.
LEAN = {"ASAN_OPTIONS": "quarantine_size_mb=1"}


def assert_ends_soon(vkahost):
    start = time.monotonic()
    vkahost.signal(signal.SIGTERM)
    assert vkahost.wait() == 128 + signal.SIGTERM
    assert time.monotonic() - start < 4  # a client is given 5 s otherwise


def test_program_that_never_reads(host):
    vkahost = host(script="say ready;sleep", env=LEAN)
    client = vkahost.client()
    assert client.line() == "ready"
    before = resident_mib(vkahost.pid)
    sent = client.send_until_blocked(64 << 20)
    assert sent < 64 << 20, "somebody took all of it"
    assert resident_mib(vkahost.pid) - before < 4
    assert busy_share(vkahost.pid) < 0.1
    assert_ends_soon(vkahost)


def test_program_that_reads_late_gets_all(host, fifo):
    vkahost = host("-b16M", script="say ready;gate %s;echo" % fifo)
    client = vkahost.client()
    assert client.line() == "ready"
    sent = client.send_until_blocked(64 << 20)
    open_gate(fifo)
    assert client.receive(sent) == b"\n" * sent


def test_client_that_never_reads(host, marker):
    """What its connection does not take is bounded; the oldest is dropped in whole chunks."""
    size, bound = 24 << 20, 256 << 10
    vkahost = host("-b256K", script="say ready", env=LEAN)
    client = vkahost.client(receive_buffer=4096)
    assert client.line() == "ready"
    before = resident_mib(vkahost.pid)
    client.command("flood %d" % size)
    client.command("touch %s" % marker)
    wait_until(marker.exists, "the program has written")
    assert resident_mib(vkahost.pid) - before < 4
    assert busy_share(vkahost.pid) < 0.1
    client.command("say end")
    received = client.receive_until(b"end\n")
    runs = contiguous_runs(received, record_stream(size) + b"end\n")
    assert len(received) < size, "nothing was dropped, so nothing was tested"
    assert bound - 2 * 4096 < runs[-1], "more was dropped than had to be"
    assert len(runs) < 100, runs


def test_signal_while_a_client_never_reads(host):
    vkahost = host(script="flood 0")
    vkahost.client(receive_buffer=4096)
    vkahost.line("vkahost: client connected")
    busy_share(vkahost.pid)  # takes a while
    assert_ends_soon(vkahost)


def contiguous_runs(received, stream):
    """The sizes of the parts, in order, of the stream that were received; up to its end."""
    runs, done, at = [], 0, 0
    while done < len(received):
        size = common_start(received, done, stream, at)
        runs.append(size)
        done, at = done + size, at + size
        if done < len(received):
            # Two records are unique, so that this finds the place behind the gap.
            at = stream.find(received[done:done + 32], at)
            assert at != -1, "not of the stream: %r" % received[done - 32:done + 32]
    assert at == len(stream)
    return runs


def common_start(one, i, other, j):
    low, high = 0, min(len(one) - i, len(other) - j)
    while low < high:
        middle = (low + high + 1) // 2
        if one[i + low:i + middle] == other[j + low:j + middle]:
            low = middle
        else:
            high = middle - 1
    return low


def test_without_client_the_newest_output_is_kept(host):
    vkahost = host("-b10000", script="flood 3000000;exit 0")
    assert vkahost.wait() == 0
    kept = vkahost.unfetched()
    assert 10000 - 512 < len(kept) <= 10000
    assert record_stream(3000000).endswith(kept)


def test_output_is_kept_up_to_the_bound_exactly(host):
    vkahost = host("--buffer=1K", script="flood 1024;exit 0")
    assert vkahost.wait() == 0
    assert vkahost.unfetched() == record_stream(1024)


@pytest.mark.parametrize("output, more", [("flood", 64), ("drip", 128)])
def test_queue_takes_little_more_memory_than_its_bytes(host, fifo, marker, output, more):
    """However small the pieces in which they came; the allocator keeps some of each size."""
    vkahost = host("-b1M", env=LEAN, script="say ready;gate %s;%s %d;touch %s;sleep" % (
        fifo, output, 3 << 20, marker))
    assert vkahost.port
    before = own_kib(vkahost.pid)
    open_gate(fifo)
    wait_until(marker.exists, "the program has written", 4 * DEADLINE)
    busy_share(vkahost.pid)
    assert own_kib(vkahost.pid) - before <= 1024 + more


def test_buffer_of_zero_keeps_nothing(host):
    vkahost = host("-b0", script="flood 5000;exit 0")
    assert vkahost.wait() == 0
    assert vkahost.unfetched() is None


def test_bound_is_for_what_is_queued_not_for_the_sum(host):
    client = host("-b4K").client()
    for _ in range(512):
        client.command("flood 2048")
        assert client.receive(2048) == record_stream(2048)


def test_endless_program_without_client(host):
    vkahost = host("-b64K", script="flood 0", env=LEAN)
    vkahost.port
    before = resident_mib(vkahost.pid)
    busy_share(vkahost.pid)
    assert resident_mib(vkahost.pid) - before < 4
    assert_ends_soon(vkahost)


def test_nothing_that_the_host_serves_can_block_it(host):
    vkahost = host()
    vkahost.client().ask("say hello")
    blocking = []
    for name in os.listdir("/proc/%d/fd" % vkahost.pid):
        target = os.readlink("/proc/%d/fd/%s" % (vkahost.pid, name))
        flags = re.search(r"flags:\t(\d+)", read(vkahost.pid, "fdinfo/" + name))[1]
        if target.startswith(("socket:", "/dev/ptmx")) and not int(flags, 8) & os.O_NONBLOCK:
            blocking.append(target)
    assert blocking == []


@pytest.mark.parametrize("connected", [False, True])
def test_waiting_takes_no_processor_time(host, connected):
    vkahost = host(script="sleep")
    vkahost.port
    if connected:
        vkahost.client()
        vkahost.line("vkahost: client connected")
    assert busy_share(vkahost.pid) < 0.05


def test_waiting_takes_no_processor_time_when_the_program_closed_its_terminal(host):
    vkahost = host(script="say ready;close;sleep")
    with vkahost.client() as client:
        assert client.line() == "ready"
    assert busy_share(vkahost.pid) < 0.05
    client = vkahost.client()
    client.send_until_blocked(64 << 20)
    assert busy_share(vkahost.pid) < 0.1
    assert_ends_soon(vkahost)


@pytest.mark.parametrize("way", ["close", "reset"])
def test_client_that_hung_up_makes_room_though_its_input_still_waits(host, fifo, way):
    """More than the terminal takes, less than fills the connection, so that its end arrives."""
    vkahost = host(script="say ready;gate %s" % fifo)
    client = vkahost.client()
    assert client.line() == "ready"
    client.send(b"\n" * 120000)
    getattr(client, way)()
    following = vkahost.client()
    vkahost.times("vkahost: client connected", 2)
    open_gate(fifo)
    following.command("say mine")
    assert following.line() == "mine"


def test_half_closed_client_makes_room_though_the_program_writes(host, fifo):
    """A program that does not read but writes now and then does not keep a gone client alive."""
    vkahost = host(script="say ready;orphan;gate %s;sleep" % fifo)
    client = vkahost.client()
    assert client.line() == "ready"
    client.send(b"\n" * 120000)
    client.close()
    vkahost.client()
    vkahost.times("vkahost: client connected", 2)


def test_client_that_waits_for_a_slow_program_is_not_dropped(host, fifo):
    vkahost = host(script="say ready;gate %s" % fifo)
    client = vkahost.client()
    assert client.line() == "ready"
    client.send(b"\n" * 120000)
    time.sleep(7)  # longer than a client that hung up is kept
    open_gate(fifo)
    assert client.ask("say mine") == "mine"
