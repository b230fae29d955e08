# SPDX-License-Identifier: MIT
"""What vkahost makes of unusual things that it inherits from its parent."""
import os
import pty
import resource
import signal
import sys
import termios
import textwrap

import pytest

import processes
from clients import free_port

CLOSED = {"stdin": "<&-", "stdout": ">&-", "stderr": "2>&-", "all": "<&- >&- 2>&-",
          "all but stdin": ">&- 2>&-"}


@pytest.mark.parametrize("closed", CLOSED)
def test_standard_descriptors_that_are_closed(host, closed):
    port = free_port()
    vkahost = host("-p", port, launcher=["sh", "-c", 'exec "$@" ' + CLOSED[closed], "sh"])
    client = vkahost.client(port=port)
    lines = client.ask_lines("fds")
    assert [line.split()[0] for line in lines] == ["0", "1", "2"]
    assert all(line.split()[1].startswith("/dev/pts/") for line in lines)
    client.command("exit 7")
    client.receive_all()
    assert vkahost.wait() == 7


@pytest.mark.parametrize("closed", CLOSED)
def test_closed_standard_descriptors_in_log_file_mode(host, tmp_path, closed):
    log = tmp_path / "log"
    vkahost = host("-l", log, launcher=["sh", "-c", 'exec "$@" ' + CLOSED[closed], "sh"],
                   script="fds;exit 7")
    assert vkahost.wait() == 7
    descriptors = dict(line.split() for line in log.read_text().splitlines()[:-1])
    assert descriptors["1"] == descriptors["2"] == str(log)
    assert descriptors["0"] == "/dev/null"


@pytest.mark.skipif(processes.EMULATED, reason="qemu-user handles signals for the program")
@pytest.mark.parametrize("way", ["ignore", "block"])
def test_signals_that_are_ignored_or_blocked(host, way):
    """They work for the host all the same, and the program starts with all at their defaults."""
    launcher = ["env", "--%s-signal" % way]
    vkahost = host(launcher=launcher)
    client = vkahost.client()
    lines = client.ask_lines("cat /proc/self/status")
    masks = dict(line.split(":\t") for line in lines if line.startswith("Sig"))
    for name in "SigPnd", "SigBlk", "SigIgn", "SigCgt":
        assert int(masks[name], 16) == 0, masks
    client.command("flood 1000000")
    client.reset()  # a write then gives SIGPIPE
    client = vkahost.client()
    client.command("exit 7")
    assert vkahost.wait() == 7


@pytest.mark.parametrize("way", ["ignore", "block"])
@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP],
                         ids=lambda number: number.name)
def test_signals_stop_the_host_though_they_were_ignored_or_blocked(host, way, number):
    vkahost = host(launcher=["env", "--%s-signal" % way])
    vkahost.client().ask("say hello")
    vkahost.signal(number)
    assert vkahost.wait() == 128 + number


def test_standard_output_is_a_broken_pipe(host):
    port = free_port()
    reading, writing = os.pipe()
    os.close(reading)
    vkahost = host("-p", port, stdout=writing)
    os.close(writing)
    for _ in range(3):
        with vkahost.client(port=port) as client:
            assert client.ask("say hello") == "hello"
    with vkahost.client(port=port) as client:
        client.command("exit 7")
        client.receive_all()
    assert vkahost.wait() == 7


def test_standard_output_and_error_are_full(host):
    port = free_port()
    with open("/dev/full", "wb") as full:
        vkahost = host("-p", port, stdout=full, stderr=full)
    client = vkahost.client(port=port)
    assert client.ask("say hello") == "hello"
    client.command("exit 7")
    client.receive_all()
    assert vkahost.wait() == 7


def test_terminal_of_the_host_is_left_alone(host):
    """The program has another one, which is no controlling terminal of the host."""
    master, slave = pty.openpty()
    try:
        before = termios.tcgetattr(slave)
        vkahost = host(launcher=["setsid", "--ctty"], stdin=slave, start_new_session=False)
        client = vkahost.client()
        lines = client.ask_lines("fds")
        assert os.ttyname(slave) not in " ".join(lines)
        client.command("exit 7")
        client.receive_all()
        assert vkahost.wait() == 7
        assert termios.tcgetattr(slave) == before
    finally:
        os.close(slave)
        os.close(master)


def with_descriptors(highest):
    """A launcher that has all descriptors up to the highest open."""
    code = """
        import os, resource, sys
        hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
        resource.setrlimit(resource.RLIMIT_NOFILE, (min(hard, 4096), hard))
        while True:
            fd = os.open("/dev/null", os.O_RDONLY)
            if fd > int(sys.argv[1]):
                os.close(fd)
                break
            os.set_inheritable(fd, True)
        os.execv(sys.argv[2], sys.argv[2:])
        """
    return [sys.executable, "-c", textwrap.dedent(code), str(highest)]


@pytest.mark.parametrize("mode", ["console", "log file"])
@pytest.mark.parametrize("highest", [1023, 1100])
def test_more_descriptors_than_select_can_watch(host, tmp_path, mode, highest, old_sources):
    options = ["-l", tmp_path / "log"] if mode == "log file" else []
    vkahost = host(*options, launcher=with_descriptors(highest), script="exit 7")
    assert vkahost.wait() == 125
    assert vkahost.errors().startswith("vkahost: too many open files")
    assert old_sources.exists()


def test_nearly_more_descriptors_than_select_can_watch(host):
    """Wherever the border comes, the host says so and ends, refuses the client, or serves."""
    outcomes = set()
    for highest in range(1010, 1024):
        vkahost = host(launcher=with_descriptors(highest), script="say ready")
        if not vkahost.out.line(r"vkahost: running, console on port (\d+)"):
            assert vkahost.wait() == 125
            assert "vkahost: too many open files" in vkahost.errors()
            outcomes.add("ended")
            continue
        client = vkahost.client()
        if client.receives(b"ready\n"):
            outcomes.add("served")
        else:
            vkahost.error_line("vkahost: client refused: descriptor 1024 is too high for select.*")
            outcomes.add("refused")
        client.close()
        vkahost.signal(signal.SIGTERM)
        assert vkahost.wait() == 143
    assert outcomes == {"served", "refused", "ended"}


def test_no_descriptor_is_left_for_a_client(host):
    """The client waits, the host does not spin, and the client is served when there is one."""
    vkahost = host(script="say ready")
    vkahost.port
    used = len(os.listdir("/proc/%d/fd" % vkahost.pid))
    limits = resource.prlimit(vkahost.pid, resource.RLIMIT_NOFILE)
    resource.prlimit(vkahost.pid, resource.RLIMIT_NOFILE, (used, limits[1]))
    client = vkahost.client()
    vkahost.error_line("vkahost: cannot accept a client: Too many open files")
    assert processes.busy_share(vkahost.pid) < 0.1
    assert vkahost.errors().count("cannot accept") < 20
    resource.prlimit(vkahost.pid, resource.RLIMIT_NOFILE, limits)
    assert client.line() == "ready"


def test_current_directory_that_was_removed(host, tmp_path, tool_archive):
    gone = tmp_path / "gone"
    gone.mkdir()
    launcher = ["sh", "-c", 'rmdir "$PWD"; exec "$@"', "sh"]
    assert host(launcher=launcher, cwd=gone, script="exit 7").wait() == 7
    gone.mkdir()
    vkahost = host(launcher=launcher, cwd=gone, archive="x.zip")
    assert vkahost.wait() == 125
    vkahost.error_line("vkahost: cannot get the working directory: .*")


def test_environment_of_a_path_alone(host):
    vkahost = host(launcher=["env", "-i", "PATH=" + os.environ["PATH"]], fast=False)
    client = vkahost.client()
    assert client.ask("env PATH") == os.environ["PATH"]
    assert client.ask("env HOME") == "(unset)"


def test_umask_of_the_parent_is_kept(host, tmp_path, marker):
    assert host(launcher=["sh", "-c", 'umask 077; exec "$@"', "sh"],
                script="touch %s;exit 7" % marker).wait() == 7
    assert marker.stat().st_mode & 0o777 == 0o600
    assert (tmp_path / "wd" / "src").stat().st_mode & 0o777 == 0o700
