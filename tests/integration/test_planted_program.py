# SPDX-License-Identifier: MIT
"""What others may have put at /tmp/vkabin beforehand is replaced, or stops the build; it is never
written to and never run."""
import os
import pathlib
import shutil
import socket

import pytest

from archives import HELLO, pack
from hostile import described
from processes import PROGRAM

OTHER = 65534  # a user who is not the one of the tests
AS_OTHER = ["setpriv", "--reuid=%d" % OTHER, "--regid=%d" % OTHER, "--clear-groups"]


@pytest.fixture
def victim(host):
    """A program that leaves a file in the directory beside if it is run."""
    directory = pathlib.Path("/tmp/victim")
    (directory / "directory").mkdir(parents=True)
    program = directory / "program"
    program.write_text("#!/bin/sh\ntouch /tmp/victim/directory/ran\n")
    program.chmod(0o755)
    yield program
    shutil.rmtree(directory)


def plant_socket(_):
    with socket.socket(socket.AF_UNIX) as made:
        made.bind(PROGRAM)


def plant_unreadable(victim):
    shutil.copy(victim, PROGRAM)
    os.chmod(PROGRAM, 0)


PLANTS = {"link to a program": lambda victim: os.symlink(victim, PROGRAM),
          "hard link to a program": lambda victim: os.link(victim, PROGRAM),
          "dangling link": lambda victim: os.symlink(victim.parent / "new", PROGRAM),
          "link to itself": lambda victim: os.symlink(PROGRAM, PROGRAM),
          "link to a device": lambda victim: os.symlink("/dev/full", PROGRAM),
          "FIFO": lambda victim: os.mkfifo(PROGRAM, 0o777),
          "socket": plant_socket,
          "unreadable program": plant_unreadable}


def state(victim):
    return {path: described(path) for path in [victim.parent, *victim.parent.rglob("*")]}


@pytest.mark.parametrize("plant", PLANTS)
def test_is_replaced(host, victim, tmp_path, plant):
    PLANTS[plant](victim)
    before = state(victim)
    vkahost = host(archive=pack(tmp_path / "x.zip", HELLO), fast=False)
    assert vkahost.wait() == 7
    assert vkahost.unfetched() == b"hello\n"
    assert os.path.isfile(PROGRAM) and not os.path.islink(PROGRAM)
    assert state(victim) == before


def test_link_to_a_directory_stops_the_build(host, victim, tmp_path):
    os.symlink(victim.parent / "directory", PROGRAM)
    before = state(victim)
    vkahost = host(archive=pack(tmp_path / "x.zip", HELLO), fast=False)
    assert vkahost.wait() == 124
    assert "/tmp/vkabin is a directory" in vkahost.out.so_far().decode()
    assert os.readlink(PROGRAM) == str(victim.parent / "directory")
    assert state(victim) == before


@pytest.fixture
def others_host(host, vkahost):
    """Starts vkahost as an ordinary user, who may not touch what is ours in the sticky /tmp."""
    assert os.lstat("/tmp").st_mode & 0o1000
    directory = pathlib.Path("/tmp/other")
    directory.mkdir()
    program = shutil.copy(vkahost, directory)
    archive = pack(directory / "x.zip", HELLO)
    os.chown(directory, OTHER, OTHER)
    # The shell's $1 is the tests' own vkahost, in a directory that not everybody may enter.
    launcher = [*AS_OTHER, "sh", "-c", 'shift; exec "$0" "$@"', program]
    yield lambda: host("-w", directory / "wd", archive=archive, fast=False, launcher=launcher,
                       cwd=directory)
    shutil.rmtree(directory)


# Only root can own what another user meets. The same without anything planted comes first.
if os.geteuid() == 0:
    def test_ordinary_user_builds_where_nothing_is_planted(others_host):
        vkahost = others_host()
        assert vkahost.wait() == 7
        assert os.lstat(PROGRAM).st_uid == OTHER

    @pytest.mark.parametrize("plant", PLANTS)
    def test_what_may_not_be_replaced_stops_the_build(others_host, victim, plant):
        PLANTS[plant](victim)
        before, planted = state(victim), described(PROGRAM)
        vkahost = others_host()
        assert vkahost.wait() == 124
        assert vkahost.errors().endswith("vkahost: build failed: make error\n")
        assert "Operation not permitted" in vkahost.out.so_far().decode()
        assert "vkahost: running" not in vkahost.out.so_far().decode()
        assert described(PROGRAM) == planted
        assert state(victim) == before
        assert [name for name in os.listdir("/tmp") if name.startswith("vkabin")] == ["vkabin"]

    def test_program_that_another_user_touches_meanwhile_is_none_that_was_built(
            host, victim, tmp_path):
        shutil.copy(victim, PROGRAM)
        os.chown(PROGRAM, OTHER, OTHER)
        make = tmp_path / "bin" / "make"
        make.parent.mkdir()
        make.write_text("#!/bin/sh\ntouch %s; kill -KILL $PPID\n" % PROGRAM)
        make.chmod(0o755)
        before = state(victim)
        vkahost = host(fast=False, env={"PATH": "%s:%s" % (make.parent, os.environ["PATH"])})
        assert vkahost.wait() == 124
        assert "make ended without a new program" in vkahost.errors()
        assert state(victim) == before
