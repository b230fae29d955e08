# SPDX-License-Identifier: MIT
"""Archives made to do harm when they are unpacked and built: each is refused, or its members lie in
the source directory, and nothing around that has changed.

What a program does once it runs is another matter: whatever the host's user may do.
"""
import os
import pathlib
import shutil
import stat

import pytest

import hostile_cases
from hostile import Member, archive_of, surroundings, unpacked
from processes import PROGRAM

VICTIM = pathlib.Path(hostile_cases.VICTIM)


@pytest.fixture
def victim(host):
    """What archives aim at, directly and through links."""
    (VICTIM / "directory").mkdir(parents=True)
    (VICTIM / "file").write_text("precious\n")
    (VICTIM / "file.h").write_text("precious\n")
    (VICTIM / "file").chmod(0o640)
    yield VICTIM
    shutil.rmtree(VICTIM)
    pathlib.Path(hostile_cases.PWNED).unlink(missing_ok=True)


@pytest.fixture
def attack(host, victim, old_sources, old_program, tmp_path):
    """Runs vkahost with an archive; returns it, ended, and whether the old program was left."""
    start = tmp_path / "start"
    start.mkdir()
    (start / "file").write_text("precious\n")
    (tmp_path / "wd" / "beside").write_text("precious\n")
    source_directory = str(tmp_path / "wd" / "src")

    def around():
        return {"/": sorted(os.listdir("/")), "/opt": surroundings("/opt"),
                **surroundings("/tmp", PROGRAM, source_directory)}

    def run(archive, **options):
        path = tmp_path / "x.zip"
        path.write_bytes(archive)
        before = around()
        vkahost = host(archive=path, cwd=start, script="exit 7", **options)
        vkahost.wait()
        assert around() == before
        info = os.lstat(source_directory)
        assert stat.S_ISDIR(info.st_mode)
        return vkahost

    return run


@pytest.mark.parametrize("name", hostile_cases.REFUSED)
def test_refused(attack, old_sources, old_program, tmp_path, name):
    reason, archive = hostile_cases.REFUSED[name]
    vkahost = attack(archive())
    assert vkahost.process.returncode == 124, vkahost.report()
    assert vkahost.errors().startswith("vkahost: build failed: archive %s/x.zip: " % tmp_path)
    assert reason in vkahost.errors()
    assert old_program()
    assert unpacked(tmp_path / "wd" / "src") == {"old.c": "int old;\n"}


@pytest.mark.parametrize("name", hostile_cases.BUILT)
def test_unpacked_literally_and_run(attack, tmp_path, name):
    files, real_make, archive = hostile_cases.BUILT[name]
    vkahost = attack(archive(), fast=not real_make)
    assert vkahost.process.returncode == 7, vkahost.report()
    assert vkahost.last_line() == "vkahost: program exited with status 7"
    assert stat.S_IMODE(os.lstat(PROGRAM).st_mode) == 0o755
    assert unpacked(tmp_path / "wd" / "src", ".vkabuild") == files


@pytest.mark.parametrize("name", hostile_cases.NOT_BUILT)
def test_unpacked_but_not_built(attack, old_program, tmp_path, name):
    files, complaint, archive = hostile_cases.NOT_BUILT[name]
    vkahost = attack(archive(), fast=False)
    assert vkahost.process.returncode == 124, vkahost.report()
    assert vkahost.errors().endswith("vkahost: build failed: make error\n")
    assert complaint in vkahost.out.so_far().decode(errors="replace"), vkahost.report()
    assert old_program()
    assert unpacked(tmp_path / "wd" / "src", ".vkabuild") == files


@pytest.mark.parametrize("name, mode", hostile_cases.MODES.items())
def test_only_permissions_come_out_of_an_archive(attack, tmp_path, name, mode):
    """No device, no FIFO, no program that runs as its owner."""
    member = Member("x.h", mode=mode)
    vkahost = attack(archive_of([Member("hello.c", hostile_cases.RUN_IT), member]))
    assert vkahost.process.returncode == 7, vkahost.report()
    info = os.lstat(tmp_path / "wd" / "src" / "x.h")
    assert stat.S_ISREG(info.st_mode)
    assert stat.S_IMODE(info.st_mode) & ~0o777 == 0
    assert (info.st_uid, info.st_gid) == (os.geteuid(), os.getegid())


def test_there_are_enough_of_them():
    tables = (hostile_cases.REFUSED, hostile_cases.BUILT, hostile_cases.NOT_BUILT,
              hostile_cases.MODES)
    assert sum(len(table) for table in tables) >= 40


DAMAGES = {"new file": lambda: pathlib.Path(hostile_cases.PWNED).touch(),
           "content": lambda: (VICTIM / "file").write_text("spoiled!\n"),
           "mode": lambda: (VICTIM / "file").chmod(0o644),
           "missing": lambda: (VICTIM / "directory").rmdir(),
           "link": lambda: ((VICTIM / "file").unlink(), (VICTIM / "file").symlink_to("file.h"))}


@pytest.mark.parametrize("damage", DAMAGES)
def test_damage_around_is_seen(victim, damage):
    before = surroundings("/tmp", PROGRAM)
    DAMAGES[damage]()
    assert surroundings("/tmp", PROGRAM) != before


@pytest.mark.parametrize("variable", ["UNZIP", "UNZIPOPT"])
@pytest.mark.parametrize("name", [
    "up, in control characters", "up, in deleted characters", "up, in bytes that no text has"])
def test_environment_cannot_allow_to_leave_the_source_directory(attack, tmp_path, variable, name):
    files, _, archive = hostile_cases.BUILT[name]
    assert attack(archive(), env={variable: "-:"}).process.returncode == 7
    assert unpacked(tmp_path / "wd" / "src") == files


def test_commands_in_vka_mk_run_while_building(attack, tmp_path):
    """Who trusts an archive enough to run it trusts it to build; this is no border."""
    archive = archive_of([Member("hello.c", hostile_cases.RUN_IT),
                          Member("vka.mk", "$(shell echo yes >ran)\n")])
    assert attack(archive, fast=False).process.returncode == 7
    assert (tmp_path / "wd" / "src" / "ran").read_text() == "yes\n"
