# SPDX-License-Identifier: MIT
"""Log-file mode: the program's output goes to a file, and there is no console."""
import os
import subprocess

import pytest

import processes
from clients import record_stream


def test_output_goes_to_the_file(host, tmp_path):
    log = tmp_path / "log"
    vkahost = host("--log-file=%s" % log, script="flood 100000;exit 7")
    vkahost.line("vkahost: running, output in %s" % log)
    assert vkahost.wait() == 7
    assert log.read_bytes() == record_stream(100000)
    assert vkahost.last_line() == "vkahost: program exited with status 7"
    assert vkahost.unfetched() is None


def test_standard_error_goes_there_too(host, tmp_path):
    vkahost = host("-l", tmp_path / "log", script="fds;exit 0")
    assert vkahost.wait() == 0
    descriptors = dict(line.split() for line in (tmp_path / "log").read_text().splitlines()[:-1])
    assert descriptors["1"] == descriptors["2"] == str(tmp_path / "log")


def test_longer_old_content_is_gone(host, tmp_path):
    log = tmp_path / "log"
    log.write_bytes(b"old" * 1000)
    assert host("-l", log, script="say new;exit 0").wait() == 0
    assert log.read_bytes() == b"new\n"


def test_there_is_no_console(host, tmp_path):
    vkahost = host("-l", tmp_path / "log", script="sleep")
    vkahost.line("vkahost: running, output in .*")
    listening = subprocess.run(["ss", "-tlnpH"], check=True, capture_output=True, text=True).stdout
    assert "pid=%d," % vkahost.pid not in listening
    sockets = [name for name in os.listdir("/proc/%d/fd" % vkahost.pid)
               if os.readlink("/proc/%d/fd/%s" % (vkahost.pid, name)).startswith("socket:")]
    assert sockets == []


def test_port_in_use_does_not_matter(host, tmp_path):
    other = host()
    vkahost = host("-p", other.port, "-l", tmp_path / "log", "-w", tmp_path / "other",
                   script="exit 7")
    assert vkahost.wait() == 7


def test_input_is_that_of_the_host(host, tmp_path):
    vkahost = host("-l", tmp_path / "log", stdin=subprocess.PIPE)
    vkahost.process.stdin.write(b"say heard\nexit 7\n")
    assert vkahost.wait() == 7
    assert (tmp_path / "log").read_bytes() == b"heard\n"


def test_waiting_takes_no_processor_time(host, tmp_path):
    vkahost = host("-l", tmp_path / "log", script="sleep")
    vkahost.line("vkahost: running, output in .*")
    assert processes.busy_share(vkahost.pid) < 0.05


def test_relative_path_is_one_of_the_directory_where_the_host_was_started(host, tmp_path):
    assert host("-l", "log", cwd=tmp_path, script="say hello;exit 0").wait() == 0
    assert (tmp_path / "log").read_bytes() == b"hello\n"


@pytest.mark.parametrize("name", ["missing/log", ".", "file/log", "fifo"])
def test_file_that_cannot_be_created(host, tmp_path, fifo, marker, name):
    """A FIFO that nobody reads, too."""
    (tmp_path / "file").touch()
    vkahost = host("-l", tmp_path / name, script="touch %s" % marker)
    assert vkahost.wait() == 125
    vkahost.error_line("vkahost: cannot create log file .*: (No such|Is a dir|Not a dir).*")
    assert not marker.exists()


@pytest.mark.skipif(processes.EMULATED, reason="qemu-user handles signals for the program")
def test_signals_are_at_their_defaults(host, tmp_path):
    assert host("-l", tmp_path / "log", script="cat /proc/self/status;exit 0").wait() == 0
    lines = (tmp_path / "log").read_text().splitlines()
    masks = dict(line.split(":\t") for line in lines if line.startswith("Sig"))
    for name in "SigPnd", "SigBlk", "SigIgn", "SigCgt":
        assert int(masks[name], 16) == 0, masks
