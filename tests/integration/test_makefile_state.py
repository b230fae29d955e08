# SPDX-License-Identifier: MIT
"""Results of earlier runs are trusted only in the directory, and with the tools, that made them."""

import os
import shutil
import subprocess
import zipfile

import pytest
from makefile_support import NOTHING, REBUILT_ALL, compiled, made, need

pytest_plugins = ["makefile_fixtures"]

TOOLS = "cat chmod cksum cmp comm cut find grep mkdir mktemp mv rm sed sort stat touch tr xargs".split()


@pytest.mark.parametrize("name", ["a.c.o", "a.c.sum", "program"])
def test_missing_results_are_made_again(built, name):
    (built.state / name).unlink()
    assert made(built.make()) == ([] if name == "program" else ["a.c"], True)


@pytest.mark.parametrize("change, result", [("a.h", (["a.c"], True)), ("added.h", REBUILT_ALL)])
def test_an_interrupted_scan_is_done_again(built, change, result):
    built.write(change, "#define A 2\n")
    tool = built.tool("rm", f'case "$*" in *a.c.o*) exit 1;; esac\nexec {need("rm", "coreutils")} "$@"\n')
    environment = {"PATH": f"{tool.parent}:{os.environ['PATH']}"}
    assert "cannot examine the sources" in built.make_fails(env=environment)
    assert made(built.make()) == result


def poison(state):
    """Makes every result wrong, so that trusting one of them shows."""
    for path in state.glob("*.o"):
        path.write_text("poison")
    shutil.copy(shutil.which("false"), state / "program")


def test_results_in_a_copied_directory_are_not_trusted(built):
    copy = built.top / "copy"
    shutil.copytree(built.src, copy, symlinks=True)
    poison(copy / ".vkabuild")
    built.src.rename(built.top / "original")
    copy.rename(built.src)
    assert made(built.make()) == REBUILT_ALL
    assert built.program_output() == "1 1\n"


def test_results_that_came_with_an_archive_are_not_trusted(built):
    poison(built.state)
    with zipfile.ZipFile(built.top / "x.zip", "w") as archive:
        for path in built.src.rglob("*"):
            archive.write(path, path.relative_to(built.src))
    shutil.rmtree(built.state)
    with zipfile.ZipFile(built.top / "x.zip") as archive:
        archive.extractall(built.src)
    assert made(built.make()) == REBUILT_ALL
    assert built.program_output() == "1 1\n"


def test_a_number_used_again_within_the_same_second_is_told_apart(built):
    """File systems give a removed file's number to the next one at once."""
    status = (built.state / "id").stat()
    moment = f"{status.st_ctime_ns // 10**9 % 60:02}.{status.st_ctime_ns % 10**9:09}"
    identity = (built.state / "identity").read_text()
    assert f":{status.st_ino}:" in identity and f":{moment} " in identity


def test_results_in_a_moved_directory_are_made_again(built):
    built.src = built.src.rename(built.top / "moved")
    assert made(built.make()) == REBUILT_ALL


@pytest.mark.parametrize("kind", ["link", "file", "fifo"])
def test_whatever_stands_in_the_place_of_the_state_is_replaced(built, kind):
    elsewhere = built.state.rename(built.top / "elsewhere")
    before = sorted(path.name for path in elsewhere.iterdir())
    if kind == "link":
        built.state.symlink_to(elsewhere)
    elif kind == "fifo":
        os.mkfifo(built.state)
    else:
        built.state.write_text("")
    assert made(built.make()) == REBUILT_ALL
    assert sorted(path.name for path in elsewhere.iterdir()) == before


@pytest.mark.parametrize("absolute", [True, False])
def test_a_program_among_its_own_sources_is_none_of_them(built, absolute):
    program = str(built.src / "prog") if absolute else "prog"
    built.make(bin=program)
    assert made(built.make(bin=program)) == NOTHING
    built.write("a.h", "#define A 4\n")
    assert made(built.make(bin=program)) == (["a.c"], True)
    assert made(built.make(bin=program)) == NOTHING


def test_nothing_unfinished_is_left_after_success(built):
    assert list(built.state.glob("tmp*")) == []


def test_a_missing_tool_is_an_error_and_not_an_unseen_change(built):
    built.write("a.h", "#define A 2\n")
    tools = built.top / "tools"
    tools.mkdir()
    for name in (*TOOLS, "sh", "echo", "make", "gcc", "as", "ld"):
        (tools / name).symlink_to(need(name, "coreutils"))
    for name in TOOLS:
        (tools / name).rename(built.top / "away")
        assert f"the program {name} is missing" in built.make_fails(env={"PATH": str(tools)})
        (built.top / "away").rename(tools / name)
    assert compiled(built.make(env={"PATH": str(tools)})) == ["a.c"]


def test_busybox_tools_do(built):
    busybox = need("busybox", "busybox-static")
    tools = built.top / "tools"
    tools.mkdir()
    applets = subprocess.run([busybox, "--list"], capture_output=True, text=True, check=True).stdout.split()
    for name in (*TOOLS, "sh", "echo", "make", "gcc", "as", "ld"):
        (tools / name).symlink_to(busybox if name in applets else need(name, "coreutils"))
    shell = f"SHELL={tools}/sh"
    shutil.rmtree(built.state)
    assert made(built.make(shell, env={"PATH": str(tools)})) == REBUILT_ALL
    assert made(built.make(shell, env={"PATH": str(tools)})) == NOTHING
    built.write("a.h", "#define A 2\n")
    (built.prefix / "include/outside.h").write_text("#define OUTSIDE 2\n")
    assert made(built.make(shell, env={"PATH": str(tools)})) == (["a.c", "b.c"], True)
    assert built.program_output() == "2 2\n"
    built.write("x y.c", "")
    assert "source 'x y.c'" in built.make_fails(shell, env={"PATH": str(tools)})
