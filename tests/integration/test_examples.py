# SPDX-License-Identifier: MIT
"""Each example is built, greets its client, talks and ends with its documented status."""
import pytest

from archives import EXAMPLES, pack_directory

NAMES = sorted(path.name for path in EXAMPLES.iterdir() if path.is_dir())

# What a client reads, types, reads, ... up to the end of the program, and its status.
TALKS = {
    "adventure": ([b"A storm is coming.", b"\n? ", "look\n", b"\n? ", "quit\n"], 3),
    "calculator": ([b"calculator: type help", b"\n> ", "6 * (4 + 3)\n", b"42\n> ", "quit 9\n"], 9),
    "maze": ([b"steps: 0", b"\r\n", "?", b"gives up", b"\r\n", "q", b"Another time.\r\n"], 1),
    "stats": ([b"stats: type help", b"\nstats> ", "1 2 3\n", b"stats> ", "report\n", b"mean 2",
               b"stats> ", "quit\n"], 0),
    "todo": ([b"todo: type help\n", "add water the plants\r\n", b"1 added\n", "add pay\n",
              b"2 added\n", "done 1\n", "list\n", b"[x] water the plants\n", b"1 open\n",
              "quit\n"], 1),
}


def test_there_are_at_least_four_examples():
    assert len(NAMES) >= 4


@pytest.mark.parametrize("name", NAMES)
def test_example(host, tmp_path, name):
    assert name in TALKS, "say here how one talks to the example %s" % name
    talk, status = TALKS[name]
    archive = pack_directory(tmp_path / "example.zip", EXAMPLES / name)
    vkahost = host(archive=archive, fast=False)
    with vkahost.client() as client:
        for word in talk:
            if isinstance(word, bytes):
                client.receive_until(word)
            else:
                client.send(word.encode())
        client.receive_all()
    assert vkahost.wait() == status
    assert vkahost.last_line() == "vkahost: program exited with status %d" % status
    assert vkahost.errors() == ""
