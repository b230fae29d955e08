# SPDX-License-Identifier: MIT
"""Paths of any kind, relative ones and such that a shell, unzip or zip would take apart."""
import os
import zipfile

import pytest

from archives import HELLO, pack

NAMES = ["with blanks  in it", "quote's", 'double"quotes"', "$HOME", "back\\slash", "a;touch x",
         "[a-z]*?", "[!x]", "-w", "--help", "`id`", "&", "line\nfeed", "umläut", "tab\tulator", "#x",
         "~", "(x)", "{a,b}", "x.zip.zip", "%s", "@file", "!", "a=b", "]", "^x$"]


def assert_hello(vkahost):
    assert vkahost.wait() == 7
    assert vkahost.unfetched() == b"hello\n"
    assert vkahost.errors() == ""


def test_relative_paths_start_where_the_host_was_started(host, tmp_path):
    start = tmp_path / "start"
    start.mkdir()
    pack(start / "hello.zip", HELLO)
    vkahost = host("--workdir", "some/wd", "--export=out.zip", archive="hello.zip", cwd=start,
                   fast=False)
    assert_hello(vkahost)
    assert (start / "some" / "wd" / "src" / "hello.c").exists()
    assert zipfile.ZipFile(start / "out.zip").namelist() == ["hello.c"]
    assert sorted(path.name for path in start.iterdir()) == ["hello.zip", "out.zip", "some"]


def test_default_work_directory(host, vkahost, tmp_path):
    pack(tmp_path / "hello.zip", HELLO)
    started = host("-p0", launcher=["sh", "-c", 'cd "$0" && exec "$1" -p0 hello.zip', tmp_path],
                   fast=False)
    assert_hello(started)
    assert (tmp_path / "vka-work" / "src" / "hello.c").exists()


@pytest.mark.parametrize("name", NAMES)
def test_archive_and_its_directory_named(host, tmp_path, name):
    (tmp_path / name).mkdir()
    archive = pack(tmp_path / name / (name + ".zip"), HELLO)
    vkahost = host(archive=archive, script="exit 7")
    assert vkahost.wait() == 7
    assert (tmp_path / "wd" / "src" / "hello.c").read_text() == HELLO["hello.c"]
    assert vkahost.errors() == ""


@pytest.mark.parametrize("name", ["[ab].zip", "*.zip", "?.zip"])
def test_archive_name_is_not_a_pattern(host, tmp_path, name):
    pack(tmp_path / "a.zip", {"other.c": "int main(void) { return 1; }\n"})
    pack(tmp_path / name, HELLO)
    assert_hello(host(archive=tmp_path / name, fast=False))


def test_archive_without_suffix(host, tmp_path):
    pack(tmp_path / "archive.zip", {"other.c": "int main(void) { return 1; }\n"})
    pack(tmp_path / "archive", HELLO)
    assert_hello(host(archive=tmp_path / "archive", fast=False))


@pytest.mark.parametrize("name", ["-x.zip", "--", "-"])
def test_relative_archive_with_a_leading_dash(host, tmp_path, name):
    pack(tmp_path / name, HELLO)
    assert_hello(host("--", archive=name, cwd=tmp_path, fast=False))


@pytest.mark.parametrize("name", NAMES)
def test_work_directory_export_and_working_directory_named(host, tmp_path, name):
    start = tmp_path / name
    start.mkdir()
    pack(start / "hello.zip", HELLO)
    vkahost = host("--workdir=" + name, "--export=%s.zip" % name, archive="hello.zip", cwd=start,
                   fast=False)
    assert_hello(vkahost)
    assert (start / name / "src" / "hello.c").exists()
    assert zipfile.ZipFile(start / (name + ".zip")).namelist() == ["hello.c"]
    assert sorted(path.name for path in start.iterdir()) == sorted(
        [name, name + ".zip", "hello.zip"])


@pytest.mark.parametrize("name", NAMES)
def test_log_file_named(host, tmp_path, name):
    assert host("--log-file=" + name, cwd=tmp_path, script="say hello;exit 7").wait() == 7
    assert (tmp_path / name).read_bytes() == b"hello\n"


def test_path_of_bytes_that_are_no_text(host, tmp_path):
    name = os.fsdecode(b"\xff\xfe-")
    pack(tmp_path / (name + ".zip"), HELLO)
    vkahost = host("--workdir=" + name, archive=name + ".zip", cwd=tmp_path, fast=False)
    assert_hello(vkahost)
