# SPDX-License-Identifier: MIT
"""--export packs the sources after a successful build."""
import os
import zipfile

import pytest

from archives import HELLO, pack

SOURCES = {**HELLO, "a.h": "int a;\n", "b.hh": "int b;\n", "c.cc": "int c;\n", "notes.txt": "x\n",
           "sub/deep.h": "int d;\n"}
PACKED = ["a.h", "b.hh", "c.cc", "hello.c"]


def export(host, tmp_path, path, sources=None, **options):
    archive = pack(tmp_path / "sources.zip", SOURCES if sources is None else sources)
    return host("-e", path, archive=archive, fast=False, **options)


def contents(path):
    with zipfile.ZipFile(path) as archive:
        return {name: archive.read(name).decode() for name in sorted(archive.namelist())}


def test_sources_are_packed(host, tmp_path):
    vkahost = export(host, tmp_path, tmp_path / "out.zip")
    assert vkahost.wait() == 7
    assert contents(tmp_path / "out.zip") == {name: SOURCES[name] for name in PACKED}
    lines = vkahost.lines()
    assert lines.index("make log:") < lines.index("zip log:")
    assert vkahost.unfetched() == b"hello\n"


def test_packed_sources_can_be_built_again(host, tmp_path):
    assert export(host, tmp_path, tmp_path / "out.zip").wait() == 7
    assert host(archive=tmp_path / "out.zip", fast=False).wait() == 7


def test_sources_of_one_kind_are_enough(host, tmp_path):
    assert export(host, tmp_path, tmp_path / "out.zip", HELLO).wait() == 7
    assert contents(tmp_path / "out.zip") == HELLO


def test_name_without_suffix_gets_one(host, tmp_path):
    assert export(host, tmp_path, tmp_path / "out").wait() == 7
    assert sorted(contents(tmp_path / "out.zip")) == PACKED


def test_archive_that_exists_is_brought_up_to_date(host, tmp_path):
    pack(tmp_path / "out.zip", {"a.h": "int old;\n", "other.h": "int other;\n"})
    assert export(host, tmp_path, tmp_path / "out.zip").wait() == 7
    assert contents(tmp_path / "out.zip") == {"other.h": "int other;\n",
                                              **{name: SOURCES[name] for name in PACKED}}


def test_nothing_is_packed_when_the_build_fails(host, tmp_path):
    vkahost = export(host, tmp_path, tmp_path / "out.zip", {"x.c": "error\n"})
    assert vkahost.wait() == 124
    assert not (tmp_path / "out.zip").exists()


def assert_failed(vkahost, marker):
    assert vkahost.wait() == 125
    vkahost.error_line("vkahost: cannot export the sources to .*")
    assert not marker.exists(), "the program was run"


@pytest.fixture
def telling(marker):
    """Sources of a program that tells that it runs."""
    return {"x.c": '#include <stdio.h>\nint main(void) { return fopen("%s", "w") == 0; }\n' % marker}


def test_directory_that_does_not_exist(host, tmp_path, marker, telling):
    assert_failed(export(host, tmp_path, tmp_path / "missing" / "out.zip", telling), marker)


def test_file_that_is_no_archive_is_kept(host, tmp_path, marker, telling):
    (tmp_path / "out.zip").write_text("precious")
    assert_failed(export(host, tmp_path, tmp_path / "out.zip", telling), marker)
    assert (tmp_path / "out.zip").read_text() == "precious"


def test_missing_zip_command_is_told_at_once(host, tmp_path, marker, telling, old_sources):
    directory = tmp_path / "bin"
    directory.mkdir()
    for name in "make", "unzip", "gcc":
        (directory / name).symlink_to(next(
            os.path.join(path, name) for path in os.environ["PATH"].split(":")
            if os.path.exists(os.path.join(path, name))))
    vkahost = export(host, tmp_path, tmp_path / "out.zip", telling, env={"PATH": str(directory)})
    assert vkahost.wait() == 125
    assert vkahost.errors() == "vkahost: zip is not installed\n"
    assert not marker.exists()
    assert old_sources.exists()
