# SPDX-License-Identifier: MIT
"""The command line."""
import re
import sys

import pytest

MOST = 2 * sys.maxsize + 1  # that a size can be, in 32 or in 64 bits as this machine has


def assert_refused(vkahost, message):
    assert vkahost.wait(5) == 125
    assert message in vkahost.errors(), vkahost.errors()
    assert "Try 'vkahost --help'." in vkahost.errors()
    assert vkahost.out.so_far() == b""


@pytest.mark.parametrize("option", ["-h", "--help"])
def test_help(host, option):
    vkahost = host(option, archive=None)
    assert vkahost.wait() == 0
    text = vkahost.out.so_far().decode()
    assert text.startswith("Usage: vkahost [OPTION]... ARCHIVE.zip\n")
    for word in ("workdir port buffer log-file size debug export force help version").split():
        assert "--" + word in text
    assert vkahost.errors() == ""


@pytest.mark.parametrize("option", ["-V", "--version"])
def test_version(host, option):
    vkahost = host(option, archive=None)
    assert vkahost.wait() == 0
    assert re.fullmatch(r"vkahost \d+\.\d+\.\d+\n", vkahost.out.so_far().decode())
    assert vkahost.errors() == ""


def test_no_archive(host):
    assert_refused(host(archive=None), "vkahost: no archive given")


def test_two_archives(host, tool_archive):
    assert_refused(host(tool_archive), "vkahost: more than one archive given")


def test_empty_archive_name(host):
    assert_refused(host(archive=""), "vkahost: empty path")


@pytest.mark.parametrize("option", ["-x", "--unknown", "--force=yes", "--help=me", "-fx"])
def test_unknown_option(host, option):
    assert_refused(host(option), "vkahost: ")


@pytest.mark.parametrize("option", ["-w", "-p", "-b", "-l", "-s", "-d", "-e", "--workdir", "--port",
                                    "--buffer", "--log-file", "--size", "--debug", "--export"])
def test_option_without_its_value(host, option):
    assert_refused(host(option, archive=None), "vkahost: ")


@pytest.mark.parametrize("option", ["-w", "-l", "-e"])
def test_empty_path(host, option):
    assert_refused(host(option, ""), "vkahost: empty path")


NO_NUMBERS = ["", " ", "x", "-1", "+1", " 1", "1 ", "1x", "0x10", "1.5", "1e3", "١",
              "%d" % (MOST + 1), "99999999999999999999999999", "-18446744073709551615"]


@pytest.mark.parametrize("value", NO_NUMBERS + ["65536", "1K"])
def test_bad_port(host, value):
    assert_refused(host("--port=" + value), "vkahost: invalid port")


@pytest.mark.parametrize("value", NO_NUMBERS + ["4", "10"])
def test_bad_debug_level(host, value):
    assert_refused(host("--debug=" + value), "vkahost: invalid debug level")


@pytest.mark.parametrize("value", NO_NUMBERS + ["K", "M", "1KK", "1k", "1m", "1G", "1KB", "1 K",
                                                "18014398509481984K", "%dM" % ((MOST >> 20) + 1),
                                                "18446744073709551615K"])
def test_bad_buffer(host, value):
    assert_refused(host("--buffer=" + value), "vkahost: invalid buffer size")


@pytest.mark.parametrize("value", NO_NUMBERS + ["80", "80x", "x24", "x", "80X24", "80x24x1", "80,24",
                                                "0x24", "80x0", "-80x24", "80x-24", "80 x 24",
                                                "65536x1", "1x65536", "80x24 ", "80x24k"])
def test_bad_size(host, value):
    assert_refused(host("--size=" + value), "vkahost: invalid terminal size")


@pytest.mark.parametrize("options", [
    ["-b0"], ["-b", "1"], ["--buffer=1K"], ["--buffer", "16M"], ["-b%d" % MOST],
    ["-b%dM" % (MOST >> 20)], ["--size=1x1"], ["-s200x60"], ["--debug", "0"], ["-d3"], ["--force"],
    ["-fd1"], ["--port=0"], ["-b007"]])
def test_good_options(host, options):
    assert host(*options, script="exit 7").wait() == 7


def test_last_of_repeated_options_counts(host):
    vkahost = host("-s1x1", "-s2x2", "-b0", "-b1K", script="tty;exit 7")
    assert vkahost.wait() == 7
    assert vkahost.unfetched() == b"2x2 raw\n"


def test_option_behind_the_archive(host, tool_archive):
    vkahost = host(tool_archive, "-s2x2", archive=None, script="tty;exit 7")
    assert vkahost.wait() == 7
    assert vkahost.unfetched() == b"2x2 raw\n"


def test_nothing_is_touched_by_a_bad_command_line(host, old_sources, old_program):
    host("--port=x").wait()
    assert old_sources.exists()
    assert old_program()
