# SPDX-License-Identifier: MIT
"""What vkahost writes to its own standard output."""
import re

from archives import HELLO, pack

INFO = r"\[INFO\] VKAClient::"


def test_output_of_a_run_without_client(host, tmp_path):
    vkahost = host(archive=pack(tmp_path / "hello.zip", HELLO), fast=False)
    assert vkahost.wait() == 7
    expected = [
        INFO + r"VKAClient\(\) totalram=\d+ joblimit=536870912",
        INFO + r"build\(\) call: unzip -o " + re.escape(str(tmp_path / "hello.zip")) + ".*",
        INFO + r"make\(\) call: make -f /opt/quorvel/share/vka/Makefile -j [12] "
        r"BIN=/tmp/vkabin .* 2>&1",
        r"\[1/1\] hello.c",
        r"\[DEBUG\] VKAClient::make\(\) getCmdCallOutput: ret=0 WEXITSTATUS=0 .*",
        "", "", "unzip log:", "", r"Archive:  .*/hello.zip", r" .*hello\.c *",
        "", "", "make log:", "", r"(.*\n)*.*CC +hello\.c", r"(.*\n)*.*LD +vkabin",
        r"vkahost: running, console on port \d+",
        "vkahost: output that no client fetched:", "hello", "",
        "vkahost: program exited with status 7",
    ]
    text = vkahost.out.so_far().decode()
    assert re.fullmatch("\n".join(expected) + "\n", text), text
    assert vkahost.errors() == ""


def test_forced_build_is_logged(host):
    for options, logged in (["--force"], True), (["-f"], True), ([], False):
        vkahost = host(*options, script="exit 0")
        assert vkahost.wait() == 0
        assert ("[INFO] VKAClient::build() forced build" in vkahost.lines()) == logged


def test_connections_are_reported_in_order(host):
    vkahost = host()
    for number in range(3):
        with vkahost.client() as client:
            client.ask("say hello")
        vkahost.times("vkahost: client disconnected", number + 1)
    with vkahost.client() as client:
        client.command("exit 0")
        assert client.receive_all() == b""
    assert vkahost.wait() == 0
    told = [line for line in vkahost.lines() if line.startswith("vkahost: client")]
    assert told == ["vkahost: client connected", "vkahost: client disconnected"] * 4


def test_a_run_whose_output_was_fetched_prints_none(host):
    vkahost = host()
    with vkahost.client() as client:
        assert client.ask("say hello") == "hello"
        client.command("exit 0")
        client.receive_all()
    assert vkahost.wait() == 0
    assert vkahost.unfetched() is None
