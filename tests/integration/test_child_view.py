# SPDX-License-Identifier: MIT
"""What the program finds when it starts."""
import pytest

import processes
from clients import free_port
from hosts import traced


def test_arguments(host):
    client = host().client()
    assert client.ask("argv") == "1: vkabin"


def test_path(host):
    client = host().client()
    assert client.ask("link /proc/self/exe") == "/tmp/vkabin"


def test_terminal_is_raw_and_has_the_usual_size(host):
    """Seen by the program's first instruction: it asks before any client connects."""
    client = host(script="tty").client()
    assert client.line() == "80x24 raw"


@pytest.mark.parametrize("options, size", [(["-s132x50"], "132x50"), (["--size=1x1"], "1x1"),
                                           (["--size", "65535x65535"], "65535x65535")])
def test_terminal_has_the_size_asked_for(host, options, size):
    client = host(*options, script="tty").client()
    assert client.line() == size + " raw"


def test_terminal_is_raw_before_the_program_starts(host):
    """The host is slow with what it does to the terminal after the start."""
    vkahost = host(**traced("-P", "/dev/ptmx", "-e", "inject=ioctl:delay_enter=300000"),
                   script="tty;exit 0")
    assert vkahost.wait() == 0
    assert vkahost.unfetched() == b"80x24 raw\n"


def test_descriptors_are_the_terminal_three_times(host):
    vkahost = host()
    client = vkahost.client()
    client.ask("say hello")
    lines = client.ask_lines("fds")
    assert [line.split()[0] for line in lines] == ["0", "1", "2"]
    terminals = {line.split()[1] for line in lines}
    assert len(terminals) == 1 and terminals.pop().startswith("/dev/pts/")


def test_descriptors_of_a_client_that_is_connected_are_not_inherited(host, fifo):
    """The client waits in the backlog while the program starts."""
    port = free_port()
    vkahost = host("-p", port, env={"MAKE_GATE": str(fifo)})
    client = vkahost.client(port=port)
    processes.open_gate(fifo)
    assert [line.split()[0] for line in client.ask_lines("fds")] == ["0", "1", "2"]


@pytest.mark.skipif(processes.EMULATED, reason="qemu-user handles signals for the program")
def test_signals_are_at_their_defaults(host):
    client = host().client()
    lines = client.ask_lines("cat /proc/self/status")
    masks = dict(line.split(":\t") for line in lines if line.startswith(("Sig", "Shd")))
    for name in "SigPnd", "ShdPnd", "SigBlk", "SigIgn", "SigCgt":
        assert int(masks[name], 16) == 0, masks


def test_environment_is_inherited(host):
    client = host(env={"GREETING": "it's  a \"test\" $HOME"}).client()
    assert client.ask("env GREETING") == "it's  a \"test\" $HOME"


def test_program_works_in_the_source_directory(host, tmp_path):
    client = host().client()
    assert client.ask("link /proc/self/cwd") == str(tmp_path / "wd" / "src")


def test_program_is_a_child_of_the_host_and_has_no_controlling_terminal(host):
    vkahost = host()
    client = vkahost.client()
    pid = int(client.ask("pid"))
    assert processes.children(vkahost.pid) == [pid]
    state, parent, group, session, terminal = processes.stat(pid)[:5]
    assert parent == str(vkahost.pid)
    assert terminal == "0"
    assert processes.stat(vkahost.pid)[4] == "0"


def test_end_of_a_program_that_took_the_terminal_as_its_controlling_one(host):
    """Its end hangs up the terminal."""
    vkahost = host(script="ctty;say hello;exit 7")
    assert vkahost.wait() == 7
    assert vkahost.unfetched() == b"hello\n"


def test_program_goes_on_when_its_terminal_was_hung_up(host, fifo, marker):
    vkahost = host(script="hangup;touch %s;gate %s;exit 7" % (marker, fifo))
    processes.wait_until(marker.exists, "the terminal was hung up")
    assert processes.busy_share(vkahost.pid) < 0.1
    processes.open_gate(fifo)
    assert vkahost.wait() == 7
