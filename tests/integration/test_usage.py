# SPDX-License-Identifier: MIT
"""The command line."""
import os
import re
import shutil
import sys

import pytest

from processes import PROGRAM

MOST = 2 * sys.maxsize + 1  # that a size can be, in 32 or in 64 bits as this machine has


HINT = "Try 'vkahost --help'.\n"


@pytest.fixture
def refused(host, tmp_path):
    """refused(MESSAGE, ARGUMENT..., and arguments of host): nothing is done but to say so."""
    def check(message, *arguments, **options):
        place = tmp_path / "place"
        place.mkdir()
        vkahost = host(*arguments, cwd=place, **options)
        assert vkahost.wait() == 125
        assert vkahost.errors() == message + HINT
        assert vkahost.out.so_far() == b""
        assert list(tmp_path.iterdir()) == [place] and not list(place.iterdir())
        assert not os.path.lexists(PROGRAM)

    return check


@pytest.fixture
def misread(refused, vkahost):
    """misread(COMPLAINT, ...): what getopt refuses, in its words."""
    def check(complaint, *arguments, **options):
        refused("%s: %s\nvkahost: invalid command line\n" % (vkahost, complaint),
                *arguments, **options)

    return check


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


@pytest.mark.parametrize("arguments", [["--help", "--port=x"], ["-h", "-x"], ["-hx"], ["--he"],
                                       ["one.zip", "two.zip", "--help"]])
def test_help_is_given_whatever_comes_behind(host, arguments):
    vkahost = host(*arguments, archive=None)
    assert vkahost.wait() == 0
    assert vkahost.out.so_far().startswith(b"Usage: ")
    assert vkahost.errors() == ""


@pytest.mark.parametrize("arguments", [[], ["--"], ["--force"], ["--workdir", "one.zip"],
                                       ["-W"], ["--watch"]])
def test_no_archive(refused, arguments):
    refused("vkahost: no archive given\n", *arguments, archive=None)


@pytest.mark.parametrize("arguments", [
    ["one.zip", "two.zip"], ["one.zip", "one.zip"], ["one.zip", "-f", "two.zip"],
    ["one.zip", "--", "two.zip"], ["--", "one.zip", "-f"], ["one.zip", ""]])
def test_two_archives(refused, arguments):
    refused("vkahost: more than one archive given\n", *arguments, archive=None)


def test_option_behind_the_archive_where_posix_order_is_asked_for(refused):
    refused("vkahost: more than one archive given\n", "one.zip", "-f", archive=None,
            env={"POSIXLY_CORRECT": "1"})


def test_empty_archive_name(refused):
    refused("vkahost: empty path\n", archive="")


@pytest.mark.parametrize("option, complaint", [
    ("-x", "invalid option -- 'x'"),
    ("-fx", "invalid option -- 'x'"),
    ("-f-", "invalid option -- '-'"),
    ("-?", "invalid option -- '?'"),
    ("-:", "invalid option -- ':'"),
    ("-1", "invalid option -- '1'"),
    ("---", "unrecognized option '---'"),
    ("--unknown", "unrecognized option '--unknown'"),
    ("--unknown=1", "unrecognized option '--unknown=1'"),
    ("--Port=0", "unrecognized option '--Port=0'"),
    ("--ports=0", "unrecognized option '--ports=0'"),
    ("--force=", "option '--force' doesn't allow an argument"),
    ("--force=yes", "option '--force' doesn't allow an argument"),
    ("--fo=yes", "option '--force' doesn't allow an argument"),
    ("--watch=x", "option '--watch' doesn't allow an argument"),
    ("--watch=", "option '--watch' doesn't allow an argument"),
    ("--wat=1", "option '--watch' doesn't allow an argument"),
    ("-Wx", "invalid option -- 'x'"),
    ("--w=x", "option '--w=x' is ambiguous; possibilities: '--workdir' '--watch'"),
    ("--w", "option '--w' is ambiguous; possibilities: '--workdir' '--watch'"),
    ("--help=me", "option '--help' doesn't allow an argument"),
    ("--version=1", "option '--version' doesn't allow an argument"),
])
def test_unknown_option(misread, option, complaint):
    misread(complaint, option)


@pytest.mark.parametrize("letter", "wpblsed")
def test_letter_without_its_value(misread, tool_archive, letter):
    misread("option requires an argument -- '%s'" % letter, tool_archive, "-" + letter,
            archive=None)


@pytest.mark.parametrize("name", "workdir port buffer log-file size export debug".split())
def test_name_without_its_value(misread, tool_archive, name):
    misread("option '--%s' requires an argument" % name, tool_archive, "--" + name, archive=None)


@pytest.mark.parametrize("option", ["-w", "-l", "-e", "--workdir", "--log-file", "--export"])
def test_empty_path(refused, option):
    refused("vkahost: empty path\n", option, "")


@pytest.mark.parametrize("option, status, message", [
    ("-w", 125, "create src dir"), ("-l", 125, "cannot create log file"),
    ("-e", 125, "cannot export the sources to"), ("--", 124, "build failed: archive")])
def test_path_that_is_too_long(host, tmp_path, option, status, message):
    path = str(tmp_path / ("x" * 5000))
    vkahost = host(option, path, **({"archive": None} if option == "--" else {}))
    assert vkahost.wait() == status
    assert vkahost.errors().startswith("vkahost: %s %s" % (message, path))


NO_NUMBERS = ["", " ", "x", "-1", "+1", " 1", "1 ", "1x", "0x10", "1.5", "1e3", "١",
              "%d" % (MOST + 1), "99999999999999999999999999", "-18446744073709551615"]


@pytest.mark.parametrize("value", NO_NUMBERS + ["65536", "1K", "http", "0,1", "127.0.0.1:2323"])
def test_bad_port(refused, value):
    refused("vkahost: invalid port\n", "--port=" + value)


@pytest.mark.parametrize("value", NO_NUMBERS + ["4", "10"])
def test_bad_debug_level(refused, value):
    refused("vkahost: invalid debug level\n", "--debug=" + value)


@pytest.mark.parametrize("value", NO_NUMBERS + ["K", "M", "1KK", "1k", "1m", "1G", "1KB", "1 K",
                                                "18014398509481984K", "%dM" % ((MOST >> 20) + 1),
                                                "18446744073709551615K"])
def test_bad_buffer(refused, value):
    refused("vkahost: invalid buffer size\n", "--buffer=" + value)


@pytest.mark.parametrize("value", NO_NUMBERS + ["80", "80x", "x24", "80X24", "80x24x1", "80,24",
                                                "0x24", "80x0", "0x0", "-80x24", "80x-24", "+80x24",
                                                "80x+24", "80 x 24", "80x 24", "65536x1", "1x65536",
                                                "80x24 ", " 80x24", "80x24\n", "80x24k", "8e1x24"])
def test_bad_size(refused, value):
    refused("vkahost: invalid terminal size\n", "--size=" + value)


@pytest.mark.parametrize("arguments, message", [
    (["--port=x", "--port=0"], "invalid port"),
    (["--port=0", "--port=x"], "invalid port"),
    (["-b1", "-bx"], "invalid buffer size"),
    (["-l", "", "-l", "log"], "empty path"),
    (["-d4", "--help"], "invalid debug level"),
    (["-sx", "-px"], "invalid terminal size"),
    (["-W", "-px"], "invalid port"),
    (["-Wpx"], "invalid port"),
    (["-w", "", "-w", "other"], "empty path"),
])
def test_each_of_several_values_counts(refused, arguments, message):
    """The first one that is wrong is told of; a good one does not make up for it."""
    refused("vkahost: %s\n" % message, *arguments)


@pytest.mark.parametrize("options", [
    ["-b0"], ["-b", "1"], ["--buffer=1K"], ["--buffer", "16M"], ["-b%d" % MOST],
    ["-b%dM" % (MOST >> 20)], ["--size=1x1"], ["-s200x60"], ["--debug", "0"], ["-d3"], ["--force"],
    ["-fd1"], ["--port=0"], ["-b007"], ["-p", "00000"], ["-ff"], ["--fo"], ["--bu", "1K"],
    ["--deb=1"], ["--si=80x24"], ["--work=other"], ["--"]])
def test_good_options(host, options, tmp_path):
    """Long ones may be abbreviated."""
    assert host(*options, script="exit 7", cwd=tmp_path).wait() == 7


def test_last_of_repeated_options_counts(host):
    vkahost = host("-s1x1", "-s2x2", "-b0", "-b1K", script="tty;exit 7")
    assert vkahost.wait() == 7
    assert vkahost.unfetched() == b"2x2 raw\n"


def test_option_behind_the_archive(host, tool_archive):
    vkahost = host(tool_archive, "-s2x2", archive=None, script="tty;exit 7")
    assert vkahost.wait() == 7
    assert vkahost.unfetched() == b"2x2 raw\n"


@pytest.mark.parametrize("name", ["archive.zip", "./archive.zip", "link"])
def test_log_file_that_is_the_archive(host, tool_archive, tmp_path, name):
    archive = shutil.copy(tool_archive, tmp_path / "archive.zip")
    (tmp_path / "link").symlink_to(archive)
    vkahost = host("-l", name, archive="archive.zip", cwd=tmp_path)
    assert vkahost.wait() == 125
    assert vkahost.errors() == "vkahost: the log file is the archive\n" + HINT
    assert archive.read_bytes() == tool_archive.read_bytes()


@pytest.mark.parametrize("name", ["archive.zip", "./archive.zip", "link.zip", "archive"])
def test_export_to_the_archive_that_is_watched(host, tool_archive, tmp_path, name):
    """It would be built again and again."""
    archive = shutil.copy(tool_archive, tmp_path / "archive.zip")
    (tmp_path / "link.zip").symlink_to(archive)
    vkahost = host("-W", "-e", name, archive="archive.zip", cwd=tmp_path)
    assert vkahost.wait() == 125
    assert vkahost.errors() == \
        "vkahost: cannot export the sources to the archive that is watched\n" + HINT
    assert archive.read_bytes() == tool_archive.read_bytes()


@pytest.mark.parametrize("option", ["--help", "--version"])
def test_text_that_cannot_be_written(host, option):
    with open("/dev/full", "wb") as full:
        vkahost = host(option, archive=None, stdout=full)
    assert vkahost.wait() == 125
    assert vkahost.errors() == "vkahost: cannot write to standard output\n"


@pytest.mark.parametrize("name", ["-f.zip", "--help", "-"])
def test_archive_with_the_name_of_an_option(host, tool_archive, tmp_path, name):
    shutil.copy(tool_archive, tmp_path / name)
    assert host("--", archive=name, cwd=tmp_path, script="exit 7").wait() == 7


def test_nothing_is_touched_by_a_bad_command_line(host, old_sources, old_program):
    host("--port=x").wait()
    assert old_sources.exists()
    assert old_program()
