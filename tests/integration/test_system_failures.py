# SPDX-License-Identifier: MIT
"""Failures of the system's calls: a message and a status, or the host goes on."""
import contextlib
import os
import platform
import signal
import subprocess

import pytest

from hosts import Output, need_tracer, traced
from processes import busy_share, open_gate, opened, stat, wait_until

# Each kind of processor has some of these.
WAIT = "?select,?_newselect,?pselect6,?pselect6_time64"
# Where the C library starts a command by clone, too: the checks for make and unzip come first.
FORKS_BEFORE = 0 if platform.machine() == "x86_64" else 2


def failing(call, error, which=None, path=None):
    """Makes a call of vkahost fail: always, the first time (1), from the second on (2+), ..."""
    times = ":when=" + which if which else ""
    return traced(*(["-P", path] if path else []), "-e", "inject=%s:error=%s%s" % (call, error, times))


@pytest.mark.parametrize("call, error, which, path, message", [
    ("socket", "EMFILE", None, None, "create socket: Too many open files"),
    ("setsockopt", "EPERM", "1", None, "cannot set SO_REUSEADDR: Operation not permitted"),
    ("bind", "EACCES", None, None, "cannot bind socket to 0.0.0.0:0: Permission denied"),
    ("listen", "EADDRINUSE", None, None, "cannot listen on socket: Address already in use"),
    ("openat", "ENXIO", None, "/dev/ptmx", "cannot open PTY pair: No such device or address"),
    ("fcntl,?fcntl64", "EBADF", None, None, "cannot set close-on-exec: Bad file descriptor"),
    ("pipe2", "EMFILE", "1", None, "cannot create pipe: Too many open files"),
    ("clone,fork", "EAGAIN", str(1 + FORKS_BEFORE), None, "cannot fork: Resource temporarily unavailable"),
])
def test_failure_before_the_build(host, old_sources, old_program, call, error, which, path,
                                  message):
    vkahost = host(**failing(call, error, which, path))
    assert vkahost.wait() == 125
    assert vkahost.errors() == "vkahost: %s\n" % message
    assert old_sources.exists()
    assert old_program()


def test_no_process_for_the_program(host, marker):
    vkahost = host(**failing("clone,fork", "EAGAIN", "%d+" % (2 + FORKS_BEFORE)), script="touch %s" % marker)
    assert vkahost.wait() == 125
    assert vkahost.errors().endswith("vkahost: cannot fork: Resource temporarily unavailable\n")
    assert not marker.exists()


@pytest.mark.parametrize("error", ["ECONNABORTED", "EINTR", "EAGAIN", "EMFILE", "ENOBUFS", "EPROTO"])
def test_client_is_served_after_a_failed_accept(host, error):
    vkahost = host(**failing("accept,accept4", error, "1"))
    client = vkahost.client()
    assert client.ask("say hello") == "hello"


def test_failing_accept_does_not_spin(host):
    vkahost = host(**failing("accept,accept4", "EMFILE"))
    vkahost.client()
    vkahost.error_line("vkahost: cannot accept a client: Too many open files")
    assert busy_share(vkahost.pid) < 0.1


@contextlib.contextmanager
def disturbed(pid, injection):
    """Attaches strace to a process for a while."""
    need_tracer()
    tracer = subprocess.Popen(["strace", "-p", str(pid), "-o", "/dev/null", "-e", injection],
                              stderr=subprocess.PIPE, bufsize=0)
    messages = Output(tracer.stderr)
    try:
        assert messages.line(".*attached"), messages.so_far()
        yield
    finally:
        tracer.terminate()
        tracer.wait()


@pytest.mark.parametrize("error", ["EINTR", "EAGAIN", "ENOMEM"])
def test_signal_that_cannot_be_told_at_once(host, error):
    vkahost = host(script="sleep", env={"ASAN_OPTIONS": "detect_leaks=0"})  # it ends traced
    assert vkahost.port
    with disturbed(vkahost.pid, "inject=write:error=%s:when=1" % error):
        vkahost.process.terminate()
        assert vkahost.wait() == 128 + signal.SIGTERM


@pytest.mark.parametrize("call", ["recvfrom,?recv", "read", "write"])
@pytest.mark.parametrize("error", ["EINTR", "EAGAIN"])
def test_transfers_are_tried_again(host, call, error):
    vkahost = host(script="say ready;echo")
    client = vkahost.client()
    assert client.line() == "ready"
    with disturbed(vkahost.pid, "inject=%s:error=%s:when=1+3" % (call, error)):
        for _ in range(100):
            client.send(b"0123456789" * 50)
            assert client.receive(500) == b"0123456789" * 50


def test_interrupted_wait(host):
    vkahost = host(**failing(WAIT, "EINTR", "1+2"))
    client = vkahost.client()
    for _ in range(20):
        assert client.ask("say hello") == "hello"
    client.command("exit 7")
    client.receive_all()
    assert vkahost.wait() == 7


def test_failing_wait(host):
    vkahost = host(script="flood 100000", **failing(WAIT, "ENOMEM", "20+"))
    vkahost.line("vkahost: running, .*")
    assert vkahost.wait() == 125
    assert vkahost.errors() == "vkahost: cannot wait for events: Cannot allocate memory\n"


def test_failing_wait_ends_the_build(host, fifo):
    vkahost = host(env={"MAKE_GATE": str(fifo), **failing(WAIT, "ENOMEM")["env"]},
                   launcher=failing(WAIT, "ENOMEM")["launcher"])
    assert vkahost.wait() == 125
    assert vkahost.errors() == "vkahost: cannot wait for events: Cannot allocate memory\n"
    assert "make log:" not in vkahost.lines()


def test_options_that_a_connection_does_not_take(host):
    vkahost = host(**failing("setsockopt", "EINVAL", "2+"))
    assert vkahost.client().ask("say hello") == "hello"
    vkahost.error_line("vkahost: cannot set a socket option: Invalid argument")


def test_program_goes_on_when_its_terminal_fails(host, fifo, marker):
    """EIO is what the kernel gives for a terminal that was hung up."""
    vkahost = host(**failing("read", "EIO", path="/dev/ptmx"),
                   script="say lost;touch %s;gate %s;exit 7" % (marker, fifo))
    wait_until(marker.exists, "the program has written")
    assert busy_share(vkahost.pid) < 0.1
    open_gate(fifo)
    assert vkahost.wait() == 7
    assert vkahost.errors() == ""


def test_client_is_accepted_though_the_terminal_fails_at_the_same_time(host, fifo, marker):
    vkahost = host(**failing("read", "EIO", path="/dev/ptmx"),
                   script="gate %s;say lost;touch %s;sleep" % (fifo, marker))
    port = vkahost.port
    with opened(fifo):  # the program waits
        os.kill(vkahost.pid, signal.SIGSTOP)
        wait_until(lambda: stat(vkahost.pid)[0] in "Tt", "the host is stopped")
    wait_until(marker.exists, "the program has written")
    vkahost.client(port=port)
    os.kill(vkahost.pid, signal.SIGCONT)
    vkahost.line("vkahost: client connected")
    assert vkahost.errors() == ""
