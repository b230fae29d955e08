# SPDX-License-Identifier: MIT
"""scripts/sandbox.sh, run once more inside itself."""
import os
import pathlib
import pty
import re
import signal
import subprocess
import sys
import tempfile

import pytest

from archives import TREE
from processes import DEADLINE, EMULATED

SANDBOX = str(TREE / "scripts/sandbox.sh")
NO_MORE_NAMESPACES = ["unshare", "--user", "--map-root-user", "sh", "-c",
                      "echo 0 >/proc/sys/user/max_user_namespaces &&"
                      ' exec setpriv --inh-caps=-all --bounding-set=-all -- "$@"', "sh"]
COUNT_INTERRUPTS = """
import signal, sys, time
count = 0
def interrupted(*unused):
    global count
    count += 1
signal.signal(signal.SIGINT, interrupted)
print("ready", flush=True)
end = time.monotonic() + 20
while count == 0 and time.monotonic() < end:
    time.sleep(0.01)
time.sleep(0.5)  # for a second one, if there is any
print("interrupts:", count, flush=True)
sys.exit(9)
"""


def run(*command, **options):
    options.setdefault("stdin", subprocess.DEVNULL)
    return subprocess.run(command, capture_output=True, text=True, timeout=DEADLINE, **options)


def sandbox(*command, **options):
    return run(SANDBOX, *command, **options)


class Started:
    """A command in a sandbox that said "ready"; its output ends when nothing is left of it."""

    def __init__(self, script):
        self.process = subprocess.Popen([SANDBOX, "--", "sh", "-c", script],
                                        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
        assert self.process.stdout.readline() == "ready\n"

    def signal(self, number):
        """Returns what else was written, and the exit status, negative for a signal."""
        self.process.send_signal(number)
        try:
            return self.process.communicate(timeout=DEADLINE)[0], self.process.returncode
        finally:
            self.process.kill()


@pytest.mark.parametrize("status", [0, 1, 7, 255])
def test_exit_status_is_passed_on(status):
    assert sandbox("--", "sh", "-c", "exit %d" % status).returncode == status


@pytest.mark.parametrize("name", ["SEGV", "KILL", "TERM", "INT", "PIPE"])
def test_death_by_a_signal_is_passed_on(name):
    result = sandbox("--", "sh", "-c", "kill -%s $$" % name)
    assert result.returncode == -getattr(signal, "SIG" + name)


def test_missing_command_gives_127():
    result = sandbox("/no/such/command")
    assert result.returncode == 127
    assert "/no/such/command" in result.stderr


def test_standard_streams_are_the_commands_own():
    result = sandbox("--", "sh", "-c", "cat; echo bad >&2", input="good\n", stdin=None)
    assert (result.stdout, result.stderr) == ("good\n", "bad\n")


@pytest.mark.parametrize("name", ["TERM", "INT", "HUP", "USR1"])
def test_signal_to_the_wrapper_reaches_the_command(name):
    started = Started("trap 'echo got %s; exit 5' %s; echo ready; while :; do sleep 0.1; done"
                      % (name, name))
    assert started.signal(getattr(signal, "SIG" + name)) == ("got %s\n" % name, 5)


def test_wrapper_dies_of_the_signal_that_the_command_dies_of():
    assert Started("echo ready; exec sleep 1000").signal(signal.SIGTERM) == ("", -signal.SIGTERM)


def test_killing_the_wrapper_leaves_nothing_running():
    started = Started("setsid sleep 1000 & echo ready; exec sleep 1000")
    assert started.signal(signal.SIGKILL) == ("", -signal.SIGKILL)


def test_end_of_the_command_leaves_nothing_running():
    assert sandbox("--", "sh", "-c", "setsid sleep 1000 & exit 3").returncode == 3


def test_orphans_are_reaped():
    script = "(sleep 0 &); i=0; while [ $((i += 1)) -le 100 ]; do set -- /proc/[0-9]*; echo $#; " \
             "sleep 0.05; done"
    counts = sandbox("--", "sh", "-c", script).stdout.split()
    assert counts[-1] == "2", "not only the namespace's init and the shell"


def test_interrupt_key_arrives_exactly_once():
    pid, terminal = pty.fork()
    if pid == 0:
        os.execv(SANDBOX, [SANDBOX, "--", sys.executable, "-c", COUNT_INTERRUPTS])
    shown = b""
    try:
        while b"ready" not in shown:
            shown += os.read(terminal, 1000)
        os.write(terminal, b"\x03")
        while not re.search(rb"interrupts: \d+\r\n", shown):
            shown += os.read(terminal, 1000)
    finally:
        status = os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1])
        os.close(terminal)
    assert b"interrupts: 1\r\n" in shown
    assert status == 9


@pytest.mark.parametrize("directory", ["/tmp", "/opt", "/opt/quorvel/lib"])
def test_directory_is_private(directory):
    outside, inside = (pathlib.Path(directory) / name for name in ("outside", "inside"))
    outside.touch()
    try:
        assert sandbox("--", "sh", "-c", "! [ -e %s ] && touch %s" % (outside, inside),
                       cwd="/").returncode == 0
        assert not inside.exists()
    finally:
        outside.unlink()


def test_makefile_is_the_trees():
    result = sandbox("cat", "/opt/quorvel/share/vka/Makefile")
    assert result.stdout == (TREE / "share/vka/Makefile").read_text()


def test_kept_directory_is_the_same_one(tmp_path):
    (tmp_path / "before").touch()
    result = sandbox("--keep", str(tmp_path), "--", "sh", "-c", "ls; touch inside", cwd=tmp_path)
    assert (result.stdout, result.returncode) == ("before\n", 0)
    assert (tmp_path / "inside").exists()


def test_hidden_working_directory_is_refused():
    with tempfile.TemporaryDirectory(dir="/tmp") as hidden:
        result = sandbox("true", cwd=hidden)
    assert result.returncode == 1
    assert "--keep" in result.stderr


def test_command_keeps_its_user():
    assert sandbox("id", "-u").stdout == "%d\n" % os.geteuid()


@pytest.mark.skipif(EMULATED, reason="qemu-user has threads, and no user namespace can be had then")
def test_nothing_is_run_where_namespaces_are_not_permitted():
    marker = pathlib.Path("/tmp/not-protected")
    result = run(*NO_MORE_NAMESPACES, SANDBOX, "touch", str(marker), cwd="/")
    assert result.returncode == 1
    assert "namespace" in result.stderr
    assert '"touch" was not started' in result.stderr
    assert not marker.exists()
