# SPDX-License-Identifier: MIT
"""The exit status of vkahost is the program's own, as a shell reports it."""
import os
import signal

import pytest

from processes import open_gate

CONSOLE_OR_LOG = pytest.mark.parametrize("mode", ["console", "log file"])


def run(host, tmp_path, mode, script):
    options = ["--log-file", tmp_path / "log"] if mode == "log file" else []
    vkahost = host(*options, script=script)
    return vkahost.wait(), vkahost.last_line()


@CONSOLE_OR_LOG
@pytest.mark.parametrize("status", [0, 1, 7, 124, 125, 126, 127, 128, 255])
def test_exit(host, tmp_path, mode, status):
    assert run(host, tmp_path, mode, "exit %d" % status) == (
        status, "vkahost: program exited with status %d" % status)


@CONSOLE_OR_LOG
@pytest.mark.parametrize("name", ["HUP", "INT", "QUIT", "ILL", "ABRT", "FPE", "KILL", "SEGV",
                                  "PIPE", "ALRM", "TERM", "USR1"])
def test_death_by_signal(host, tmp_path, mode, name):
    number = getattr(signal, "SIG" + name)
    assert run(host, tmp_path, mode, "raise %d" % number) == (
        128 + number, "vkahost: program killed by SIG" + name)


def test_death_by_a_signal_without_name(host, tmp_path):
    assert run(host, tmp_path, "console", "raise 40") == (
        168, "vkahost: program killed by signal 40")


def test_end_while_a_client_is_connected(host):
    vkahost = host()
    client = vkahost.client()
    client.command("exit 7")
    assert client.receive_all() == b""
    assert vkahost.wait() == 7


def test_end_of_a_stopped_and_continued_program(host):
    vkahost = host()
    client = vkahost.client()
    client.ask("say hello")
    program = vkahost.program
    for _ in range(3):
        os.kill(program, signal.SIGSTOP)
        os.kill(program, signal.SIGCONT)
    assert client.ask("say again") == "again"
    client.command("exit 7")
    assert vkahost.wait() == 7


def test_process_that_the_host_inherited_is_not_the_program(host, fifo):
    """A shell can start something and then become vkahost, which is then that one's parent."""
    vkahost = host(launcher=["sh", "-c", 'cat "$0" & exec "$@"', fifo])
    client = vkahost.client()
    assert client.ask("say hello") == "hello"
    open_gate(fifo)  # cat ends
    assert client.ask("say again") == "again"
    client.command("exit 7")
    client.receive_all()
    assert vkahost.wait() == 7


def test_inherited_process_that_ended_before_is_not_the_program(host):
    vkahost = host(launcher=["sh", "-c", '(exit 3) & exec "$@"', "sh"])
    client = vkahost.client()
    assert client.ask("say hello") == "hello"
    client.command("exit 7")
    client.receive_all()
    assert vkahost.wait() == 7
