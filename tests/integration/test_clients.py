# SPDX-License-Identifier: MIT
"""The console with the clients that people use."""
import subprocess

import pytest

from hosts import Output
from processes import DEADLINE

CLIENTS = {
    "socat": lambda port: ["socat", "-", "TCP:127.0.0.1:%d" % port],
    "netcat": lambda port: ["nc", "127.0.0.1", str(port)],
}


class Process:
    """A client program; its input stays open until it ends."""

    def __init__(self, command):
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        bufsize=0)
        self.out = Output(self.process.stdout)

    def command(self, text):
        self.process.stdin.write(text.encode() + b"\n")

    def __enter__(self):
        return self

    def __exit__(self, *unused):
        self.process.kill()
        self.process.wait()
        self.process.stdin.close()


@pytest.mark.parametrize("name", CLIENTS)
def test_conversation_with(host, name):
    vkahost = host()
    with Process(CLIENTS[name](vkahost.port)) as client:
        client.command("say one two")
        assert client.out.line("one two")
        client.command("tty")
        assert client.out.line("80x24 raw")
        client.command("exit 5")
        assert vkahost.wait() == 5
        client.process.stdin.close()  # netcat waits for the end of both directions
        assert client.process.wait(DEADLINE) == 0
        assert client.out.whole() == b"one two\n80x24 raw\n"


@pytest.mark.parametrize("name", CLIENTS)
def test_program_outlives(host, name):
    vkahost = host()
    for number in range(3):
        with Process(CLIENTS[name](vkahost.port)) as client:
            client.command("say %d" % number)
            assert client.out.line(str(number))
    assert vkahost.client().ask("say still there") == "still there"


def test_conversation_with_python(host):
    vkahost = host()
    with vkahost.client() as client:
        assert client.ask("say one two") == "one two"
        client.command("exit 5")
        assert client.receive_all() == b""
    assert vkahost.wait() == 5
