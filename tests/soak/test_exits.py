# SPDX-License-Identifier: MIT
"""Programs that print and exit at once: no byte of the output is lost.

It reaches a client that is connected or waits when the program ends, and vkahost's own output where
there is none.
"""
import random
import socket
import time

from clients import free_port, record_stream
from lives import LINES
from processes import DEADLINE, open_gate

LARGEST = 70000


def fetch_late(port):
    """What a client gets that tries once, maybe too late."""
    received = bytearray()
    try:
        with socket.create_connection(("127.0.0.1", port), DEADLINE) as connection:
            while part := connection.recv(LARGEST):
                received += part
    except (ConnectionRefusedError, ConnectionResetError):
        pass
    return bytes(received)


def test_exits(life, tool_archive, fast_make, fifo, choose):
    count = choose(200, 10000)
    seed = random.randrange(2**32)
    print("exits: seed %d" % seed)
    chance = random.Random(seed)
    stream = record_stream(LARGEST)
    port = free_port()
    start = time.monotonic()
    early = late = fetched = unfetched = 0
    for number in range(count):
        # One chunk of the relay, the borders between chunks, or any size.
        size = chance.choice([chance.randint(1, 512), 512 * chance.randint(1, 20) +
                              chance.randint(-1, 1), chance.randint(1, LARGEST)])
        status = chance.randrange(256)
        script = "flood %d;exit %d" % (size, status)
        environment = {**fast_make, "SCRIPT": script}
        is_early = number % 3 < 2
        if is_early:
            environment["MAKE_GATE"] = str(fifo)
        with life(tool_archive, "-p", port, env=environment) as vkahost:
            if is_early:
                early += 1
                with vkahost.client(port=port) as client:
                    vkahost.line(LINES["build"])
                    open_gate(fifo)  # make goes on
                    received = client.receive_all()
                assert received == stream[:size], "%r: got %d bytes" % (script, len(received))
            else:
                port_told = vkahost.port
                time.sleep(chance.uniform(0, 0.004))  # some come before the end, some too late
                received = fetch_late(port_told)
                late += not received
            assert vkahost.wait() == status
            left = vkahost.unfetched() or b""
            assert received + left == stream[:size], "%r: the client got %d bytes, %d were left" % (
                script, len(received), len(left))
        fetched += len(received)
        unfetched += len(left)
    print("exits: %d programs in %.0f s; %d clients connected before the start, %d at the end, %d "
          "too late; they got %d bytes, %d were printed as not fetched, none was lost" % (
              count, time.monotonic() - start, early, count - early - late, late, fetched,
              unfetched))
