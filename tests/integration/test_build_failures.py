# SPDX-License-Identifier: MIT
"""Builds that fail: a message, a status, and nothing is run."""
import os
import shutil
import subprocess

import pytest

import processes
from archives import HELLO, pack
from processes import PROGRAM

BROKEN = {**HELLO, "broken.c": "int broken(void) { return undeclared_name; }\n"}


def assert_failed(vkahost, message, status=124):
    assert vkahost.wait() == status
    assert message in vkahost.errors(), vkahost.errors()
    assert vkahost.errors().splitlines()[-1].startswith("vkahost: ")
    assert "vkahost: running" not in vkahost.out.so_far().decode()
    assert not processes.running()


def path_with(tmp_path, *names):
    """A PATH of which only these commands can be found."""
    directory = tmp_path / "few"
    directory.mkdir()
    for name in names:
        (directory / name).symlink_to(shutil.which(name))
    return {"PATH": str(directory)}


@pytest.fixture
def making(host, tmp_path):
    """Starts vkahost with a make that is a given shell script."""
    def start(script, **options):
        make = tmp_path / "bin" / "make"
        make.parent.mkdir()
        make.write_text("#!/bin/sh\n" + script)
        make.chmod(0o755)
        return host(env={"PATH": "%s:%s" % (make.parent, os.environ["PATH"])}, fast=False,
                    **options)

    return start


def test_sources_that_do_not_compile(host, tmp_path, old_program):
    vkahost = host(archive=pack(tmp_path / "x.zip", BROKEN), fast=False)
    assert_failed(vkahost, "vkahost: build failed: make error\n")
    log = vkahost.out.so_far().decode()
    assert "undeclared_name" in log.partition("make log:")[2], log
    assert old_program()


LACK_OF_MEMORY = ": the compiler has probably run out of memory\n"


@pytest.mark.parametrize("report", [
    "gcc: fatal error: Killed signal terminated program cc1",
    "collect2: fatal error: ld terminated with signal 9 [Killed]",
    "cc1plus: out of memory allocating 65536 bytes after a total of 1 bytes",
    "virtual memory exhausted: Cannot allocate memory",
    "g++: fatal error: cannot execute 'cc1plus': vfork: Cannot allocate memory",
    "make: *** [/opt/quorvel/share/vka/Makefile:190: .vkabuild/a.c.o] Killed",
])
def test_likely_lack_of_memory_is_named(making, report):
    assert_failed(making("echo \"%s\"; exit 2" % report),
                  "vkahost: build failed: make error" + LACK_OF_MEMORY)


@pytest.mark.parametrize("line", ["a.c:1: error: Killed", "make: *** Killed by nobody",
                                  "makeshift] Killed"])
def test_lack_of_memory_is_not_named_without_a_report(making, line):
    assert_failed(making("echo \"%s\"; exit 2" % line), "vkahost: build failed: make error\n")


def test_lack_of_memory_is_named_when_make_ends_without_a_program(making):
    assert_failed(making("echo \"g++: fatal error: Killed signal terminated program cc1plus\""),
                  "vkahost: build failed: make ended without a new program" + LACK_OF_MEMORY)


@pytest.mark.skipif(processes.EMULATED, reason="qemu-user needs all of the address space itself")
def test_compiler_without_memory(host, tmp_path, old_program):
    compiler = tmp_path / "gcc"
    compiler.write_text("#!/bin/sh\ncase \" $* \" in *\" -c \"*) ulimit -v 150000;; esac\n"
                        "exec gcc \"$@\"\n")
    compiler.chmod(0o755)
    sources = {"x.c": "int numbers[] = {%s};\nint main(void) { return 0; }\n" % ("1," * 2000000)}
    vkahost = host(archive=pack(tmp_path / "x.zip", sources), fast=False, env={"CC": str(compiler)})
    assert_failed(vkahost, "vkahost: build failed: make error" + LACK_OF_MEMORY)
    assert old_program()


def test_warnings_are_errors(host, tmp_path, old_program):
    sources = {"x.c": "int main(void) { int unused; return 0; }\n"}
    vkahost = host(archive=pack(tmp_path / "x.zip", sources), fast=False)
    assert_failed(vkahost, "vkahost: build failed: make error\n")
    assert old_program()


def test_program_without_main(host, tmp_path, old_program):
    vkahost = host(archive=pack(tmp_path / "x.zip", {"x.c": "int x;\n"}), fast=False)
    assert_failed(vkahost, "vkahost: build failed: make error\n")
    assert old_program()


def test_archive_without_sources(host, tmp_path, old_program):
    vkahost = host(archive=pack(tmp_path / "x.zip", {"notes.txt": "x\n"}), fast=False)
    assert_failed(vkahost, "vkahost: build failed: make error\n")
    assert "no C or C++ sources" in vkahost.out.so_far().decode()
    assert old_program()


def test_build_after_a_failed_one(host, tmp_path):
    assert host(archive=pack(tmp_path / "x.zip", BROKEN), fast=False).wait() == 124
    assert host(archive=pack(tmp_path / "y.zip", HELLO), fast=False).wait() == 7
    assert not (tmp_path / "wd" / "src" / "broken.c").exists()


@pytest.mark.parametrize("number", ["KILL", "TERM", "SEGV", "PIPE"])
def test_make_that_a_signal_kills(making, old_program, number):
    vkahost = making("echo making\nkill -%s $$\n" % number)
    assert_failed(vkahost, "vkahost: build failed: ")
    assert "making" in vkahost.lines()
    assert old_program()


def test_make_that_its_own_recipe_kills(host, tmp_path, old_program):
    sources = {**HELLO, "vka.mk": "x := $(shell kill -9 $$PPID)\n"}
    vkahost = host(archive=pack(tmp_path / "x.zip", sources), fast=False)
    assert_failed(vkahost, "vkahost: build failed: ")
    assert old_program()


def test_make_that_makes_nothing(making, old_program):
    assert_failed(making("exit 0\n"), "vkahost: build failed: make ended without a new program\n")
    assert old_program()


def test_make_that_makes_nothing_without_an_old_program(making):
    assert_failed(making("exit 0\n"), "vkahost: build failed: make ended without a new program\n")
    assert not os.path.exists(PROGRAM)


@pytest.mark.parametrize("status", [1, 2, 3, 127, 255])
def test_make_that_fails_though_the_program_is_new(making, tmp_path, status, marker):
    vkahost = making("printf '#!/bin/sh\\ntouch %s\\n' >%s\nchmod +x %s\nexit %d\n"
                     % (marker, PROGRAM, PROGRAM, status))
    assert_failed(vkahost, "vkahost: build failed: make error\n")
    assert not marker.exists()


def test_make_that_asks_a_question(making, tmp_path, old_program):
    """It gets no answer instead of waiting for one."""
    vkahost = making("read answer && touch %s; exit 1\n" % (tmp_path / "answered"),
                     stdin=subprocess.PIPE)
    assert_failed(vkahost, "vkahost: build failed: make error\n")
    assert not (tmp_path / "answered").exists()


def test_program_in_the_way_is_a_directory(host, tmp_path):
    os.mkdir(PROGRAM)
    vkahost = host(archive=pack(tmp_path / "x.zip", HELLO), fast=False)
    assert_failed(vkahost, "vkahost: build failed: make error\n")
    assert os.path.isdir(PROGRAM)


@pytest.mark.parametrize("missing, there", [("make", ["unzip"]), ("unzip", ["make"])])
def test_missing_command(host, tmp_path, old_sources, old_program, missing, there):
    vkahost = host(env=path_with(tmp_path, *there), fast=False)
    assert_failed(vkahost, "vkahost: %s is not installed\n" % missing, 125)
    assert old_sources.exists()
    assert old_program()


def test_missing_compiler(host, tmp_path, old_program):
    vkahost = host(env=path_with(tmp_path, "make", "unzip"), fast=False)
    assert_failed(vkahost, "vkahost: build failed: make error\n")
    assert old_program()


def test_port_in_use(host, tmp_path, old_sources, old_program):
    other = host("-w", tmp_path / "other")
    port = other.port
    vkahost = host("-p", port)
    assert vkahost.wait() == 125
    assert vkahost.errors().startswith("vkahost: cannot ")
    assert "Address already in use" in vkahost.errors()
    assert old_sources.exists()
    assert other.client().ask("say still there") == "still there"


def test_work_directory_below_a_file(host, tmp_path, old_program):
    (tmp_path / "file").touch()
    vkahost = host("-w", tmp_path / "file" / "wd")
    assert_failed(vkahost, "vkahost: create src dir %s/file/wd/src: " % tmp_path, 125)
    assert old_program()


def test_source_directory_that_is_a_file(host, tmp_path, old_program):
    (tmp_path / "wd").mkdir()
    (tmp_path / "wd" / "src").write_text("precious")
    assert_failed(host(), "vkahost: create src dir %s/wd/src: " % tmp_path, 125)
    assert (tmp_path / "wd" / "src").read_text() == "precious"
    assert old_program()


def in_mounts_of_its_own(script, *arguments):
    """A launcher that makes mounts, seen by vkahost alone, before it starts it."""
    user = [] if os.geteuid() == 0 else ["--user", "--map-root-user"]
    return ["unshare", *user, "--mount", "sh", "-ec", script + '\nshift %d; exec "$@"'
            % len(arguments), "sh", *arguments]


def test_work_directory_that_is_read_only(host, tmp_path, old_sources, old_program):
    script = 'mount --bind "$1" "$1"; mount -o remount,bind,ro "$1"'
    vkahost = host(launcher=in_mounts_of_its_own(script, tmp_path / "wd"))
    assert_failed(vkahost, "Read-only file system", 125)
    assert old_sources.exists()
    assert old_program()


def test_work_directory_that_cannot_be_created(host, tmp_path, old_program):
    script = 'mount --bind "$1" "$1"; mount -o remount,bind,ro "$1"'
    (tmp_path / "above").mkdir()
    vkahost = host("-w", tmp_path / "above" / "wd",
                   launcher=in_mounts_of_its_own(script, tmp_path / "above"))
    assert_failed(vkahost, "vkahost: create src dir %s/above/wd/src: Read-only file system"
                  % tmp_path, 125)
    assert old_program()


@pytest.mark.parametrize("size", ["16k", "64k"])
def test_disk_that_is_full(host, tmp_path, old_program, size):
    """unzip must not wait for somebody who says whether to go on."""
    (tmp_path / "wd").mkdir()
    sources = {**HELLO, "big.h": "/* %s */\n" % ("x" * 2000000)}
    vkahost = host(archive=pack(tmp_path / "x.zip", sources), fast=False, stdin=subprocess.PIPE,
                   launcher=in_mounts_of_its_own('mount -t tmpfs -o size=%s tmpfs "$1"' % size,
                                                 tmp_path / "wd"))
    assert_failed(vkahost, "vkahost: build failed: ")
    assert old_program()


def test_program_that_may_not_be_executed(host, tmp_path):
    script = 'mount --bind /tmp /tmp; mount -o remount,bind,noexec /tmp'
    vkahost = host(launcher=in_mounts_of_its_own(script))
    assert vkahost.wait() == 1
    assert vkahost.unfetched() == b"cannot exec: Permission denied\n"
    assert vkahost.last_line() == "vkahost: program exited with status 1"
