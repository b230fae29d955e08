# SPDX-License-Identifier: MIT
"""Archives that are refused: a message, status 124, the old sources and program untouched."""
import os
import pty
import subprocess
import zipfile

import pytest

from archives import HELLO, pack
from clients import free_port


@pytest.fixture
def assert_refused(host, old_sources, old_program, tmp_path):
    def start(archive, reason, **options):
        before = sorted(str(path) for path in tmp_path.rglob("*"))
        vkahost = host(archive=archive, fast=False, **options)
        assert vkahost.wait() == 124
        assert vkahost.errors().startswith("vkahost: build failed: archive "), vkahost.errors()
        assert reason in vkahost.errors()
        assert old_program()
        assert old_sources.read_text() == "int old;\n"
        assert sorted(str(path) for path in tmp_path.rglob("*")) == before
        assert "running" not in vkahost.out.so_far().decode()

    return start


def test_missing(assert_refused, tmp_path):
    assert_refused(tmp_path / "missing.zip", "No such file or directory")


def test_missing_though_one_with_a_suffix_exists(assert_refused, tmp_path):
    pack(tmp_path / "hello.zip", HELLO)
    assert_refused(tmp_path / "hello", "No such file or directory")


def test_directory(assert_refused, tmp_path):
    (tmp_path / "directory.zip").mkdir()
    assert_refused(tmp_path / "directory.zip", "not a file")


def test_fifo(assert_refused, fifo):
    assert_refused(fifo, "not a file")


def test_device(assert_refused):
    assert_refused("/dev/zero", "not a file")


def test_dangling_link(assert_refused, tmp_path):
    (tmp_path / "link.zip").symlink_to("nowhere")
    assert_refused(tmp_path / "link.zip", "No such file or directory")


def test_empty_file(assert_refused, tmp_path):
    (tmp_path / "empty.zip").touch()
    assert_refused(tmp_path / "empty.zip", "damaged")


def test_archive_without_members(assert_refused, tmp_path):
    assert_refused(pack(tmp_path / "nothing.zip", {}), "damaged")


def test_text(assert_refused, tmp_path):
    (tmp_path / "text.zip").write_text("int main(void) { return 0; }\n" * 100)
    assert_refused(tmp_path / "text.zip", "damaged")


@pytest.mark.parametrize("share", [0.1, 0.5, 0.9, 0.999])
def test_truncated(assert_refused, tmp_path, share):
    archive = pack(tmp_path / "x.zip", {**HELLO, "random.h": os.urandom(20000).hex()})
    archive.write_bytes(archive.read_bytes()[:int(archive.stat().st_size * share)])
    assert_refused(archive, "damaged")


@pytest.mark.parametrize("compression", [zipfile.ZIP_STORED, zipfile.ZIP_DEFLATED])
def test_member_with_a_wrong_checksum(assert_refused, tmp_path, compression):
    archive = pack(tmp_path / "x.zip", {**HELLO, "random.h": os.urandom(20000)}, compression)
    data = bytearray(archive.read_bytes())
    data[len(data) // 2] ^= 1
    archive.write_bytes(data)
    assert_refused(archive, "damaged")


def test_beginning_cut_off(assert_refused, tmp_path):
    archive = pack(tmp_path / "x.zip", {**HELLO, "random.h": os.urandom(20000).hex()})
    archive.write_bytes(archive.read_bytes()[5000:])
    assert_refused(archive, "damaged")


@pytest.mark.parametrize("name", [
    "/tmp/evil.c", "../evil.c", "../../evil.c", "sub/../../evil.c", "sub/..", "..", "/", "//evil.c",
    "..\\evil.c", "sub\\..\\..\\evil.c", "\\evil.c", "sub/..\\../evil.c", "../src/hello.c",
    "./../evil.c", "a/b/c/../../../../evil.c"])
def test_name_that_leads_outside(assert_refused, tmp_path, name):
    assert_refused(pack(tmp_path / "x.zip", {**HELLO, name: "int evil;\n"}), "member outside")


@pytest.mark.parametrize("name", ["..c.h", "a..b.h", "x...", "...", ".h", "sub/..x/y.h", "-x.h"])
def test_name_that_only_looks_like_it_is_fine(host, tmp_path, name):
    vkahost = host(archive=pack(tmp_path / "x.zip", {**HELLO, name: "int x;\n"}), fast=False)
    assert vkahost.wait() == 7
    assert (tmp_path / "wd" / "src" / name).read_text() == "int x;\n"


def test_nothing_is_written_through_a_link(host, tmp_path):
    outside = tmp_path / "outside"
    outside.mkdir()
    with zipfile.ZipFile(tmp_path / "x.zip", "w") as archive:
        link = zipfile.ZipInfo("link")
        link.create_system = 3
        link.external_attr = 0o120777 << 16
        archive.writestr(link, str(outside))
        archive.writestr("link/evil.c", "int evil;\n")
        archive.writestr("hello.c", HELLO["hello.c"])
    host(archive=tmp_path / "x.zip", fast=False).wait()
    assert list(outside.iterdir()) == []


def test_names_in_the_two_directories_of_an_archive_that_differ(assert_refused, tmp_path):
    """The one before the member's data leads outside, the one in the central directory does not."""
    archive = pack(tmp_path / "x.zip", {"ab/evil.c": "int evil;\n", **HELLO})
    archive.write_bytes(archive.read_bytes().replace(b"ab/evil.c", b"../evil.c", 1))
    assert_refused(archive, 'mismatching "local" filename (../evil.c)')


@pytest.fixture(params=["secret", "x", "y"])
def encrypted(request, tmp_path):
    (tmp_path / "hello.c").write_text(HELLO["hello.c"])
    subprocess.run(["zip", "-q", "-P", request.param, "x.zip", "hello.c"], cwd=tmp_path, check=True)
    return tmp_path / "x.zip"


def test_encrypted(assert_refused, encrypted):
    assert_refused(encrypted, "encrypted")


def test_nobody_is_asked_for_a_password(assert_refused, encrypted):
    """The host has a terminal at which unzip could ask."""
    master, slave = pty.openpty()
    try:
        assert_refused(encrypted, "encrypted", launcher=["setsid", "--ctty"], stdin=slave,
                       start_new_session=False)
    finally:
        os.close(slave)
        os.close(master)


def test_refusal_leaves_the_port_free(host, tmp_path):
    port = free_port()
    assert host("-p", port, archive=tmp_path / "missing.zip").wait() == 124
    assert host("-p", port, script="exit 0").wait() == 0
