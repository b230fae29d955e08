# SPDX-License-Identifier: MIT
"""The console is a raw stream of bytes in both directions."""
import random
import threading
import time

from clients import record_stream
from hosts import traced
from processes import open_gate


def test_every_byte_value_passes_untranslated(host):
    data = bytes(range(256)) * 3 + b"\r\n\n\r\0\0\x03\x04\x11\x13\x1a\x7f\xff\xff"
    client = host(script="say ready;echo").client()
    assert client.line() == "ready"
    client.send(data)
    assert client.receive(len(data)) == data
    for value in range(256):
        client.send(bytes([value]))
        assert client.receive(1) == bytes([value])


def test_eight_mebibytes_pass_both_ways(host):
    data = random.Random(1).randbytes(8 << 20)
    client = host("-b", "16M", script="say ready;echo").client()
    assert client.line() == "ready"
    sender = threading.Thread(target=client.socket.sendall, args=(data,), daemon=True)
    sender.start()
    assert client.receive(len(data)) == data
    sender.join()
    client.nothing_came()


def test_nothing_is_added_to_the_stream(host, fifo):
    vkahost = host(script="gate %s;flood 100000;exit 0" % fifo)
    with vkahost.client() as client:
        open_gate(fifo)
        fetched = client.receive_all()
    assert vkahost.wait() == 0
    assert fetched + (vkahost.unfetched() or b"") == record_stream(100000)


def test_answers_of_two_chunks_come_at_once(host):
    """Small writes would otherwise wait for the peer's delayed acknowledgement, about 40 ms."""
    client = host().client()
    times = []
    for _ in range(20):
        start = time.monotonic()
        client.command("flood 600")
        assert client.receive(600) == record_stream(600)
        times.append(time.monotonic() - start)
    assert min(times[10:]) < 0.020, times  # at first the peer acknowledges at once


def test_no_delay_is_set_on_the_connection(host, tmp_path):
    trace = tmp_path / "trace"
    vkahost = host(**traced("-e", "trace=setsockopt", output=trace))
    with vkahost.client() as client:
        client.ask("say hello")
        client.command("exit 0")
        client.receive_all()
    assert vkahost.wait() == 0
    assert "TCP_NODELAY, [1], 4) = 0\n" in trace.read_text()
