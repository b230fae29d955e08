# SPDX-License-Identifier: MIT
"""Much data through the console, in both directions: what arrives is what was sent."""
import hashlib
import pathlib
import subprocess
import threading
import time

import pytest

from archives import pack

MIB = 1 << 20
WINDOW = 16  # MiB under way at most, so that the queue's bound is never reached
SOURCE = pathlib.Path(__file__).resolve().parent / "programs" / "stream.c"


@pytest.fixture
def stream(tmp_path):
    """Starts the program of the stream on its own; the stream comes through a pipe."""
    program = tmp_path / "stream"
    subprocess.run(["gcc", "-O2", "-o", program, SOURCE], check=True)

    def start(size):
        with open("/dev/zero", "rb") as zeros:
            return subprocess.Popen([program], env={"BYTES": str(size)}, stdin=zeros,
                                    stdout=subprocess.PIPE)

    return start


def digest_of(stream, size):
    digest = hashlib.sha256()
    with stream(size) as process:
        while data := process.stdout.read(MIB):
            digest.update(data)
    assert process.returncode == 0
    return digest.hexdigest()


def receive(client, size, each_block):
    """Reads that many bytes or up to the end of the stream; returns their count and digest."""
    digest = hashlib.sha256()
    view = memoryview(bytearray(MIB))
    received = 0
    while received < size and (count := client.socket.recv_into(view)):
        digest.update(view[:count])
        for _ in range(received // MIB, (received + count) // MIB):
            each_block()
        received += count
    return received, digest.hexdigest()


def tell(what, size, start, digest):
    seconds = time.monotonic() - start
    print("volume: %s: %d bytes in %.1f s, %.1f MB/s, SHA-256 %s on both sides" % (
        what, size, seconds, size / seconds / 1e6, digest))


def test_from_the_program_to_the_client(life, stream, choose, tmp_path):
    size = choose(64, 10240) * MIB
    expected = digest_of(stream, size)
    archive = pack(tmp_path / "stream.zip", {"stream.c": SOURCE.read_bytes()})
    with life(archive, "-p0", "-b", "%dM" % (2 * WINDOW), env={"BYTES": str(size)}) as vkahost:
        client = vkahost.client()
        start = time.monotonic()
        # One byte more would be seen, too.
        received, digest = receive(client, size + 1, lambda: client.send(b"."))
        assert (received, digest) == (size, expected)
        tell("program to client", size, start, digest)
        client.close()
        assert vkahost.wait() == 0


def test_from_the_client_to_the_program_and_back(life, stream, choose, fast_make, tool_archive):
    size = choose(16, 1024) * MIB
    expected = digest_of(stream, size)
    room = threading.Semaphore(WINDOW)

    def send(client):
        with stream(size) as process:
            while data := process.stdout.read(MIB):
                room.acquire()
                client.send(data)

    script = "echo %d" % size
    with life(tool_archive, "-p0", "-b", "%dM" % (2 * WINDOW),
              env={**fast_make, "SCRIPT": script}) as vkahost:
        client = vkahost.client()
        start = time.monotonic()
        sender = threading.Thread(target=send, args=[client], daemon=True)
        sender.start()
        received, digest = receive(client, size, room.release)
        assert (received, digest) == (size, expected)
        tell("client to program and back", size, start, digest)
        sender.join()
        client.command("say end")
        assert client.line() == "end"
        client.command("exit 3")
        assert client.receive_all() == b""
        client.close()
        assert vkahost.wait() == 3
