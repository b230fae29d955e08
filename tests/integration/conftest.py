# SPDX-License-Identifier: MIT
import os
import pathlib
import platform
import shutil
import stat
import subprocess

import pytest

from archives import PROGRAMS, pack
from hosts import Host
from processes import PROGRAM

# About the device's own compiler; tests/device/run collects it where there is one.
collect_ignore = [] if platform.machine().startswith("armv7") else ["test_arm.py"]

FAST_MAKE = """#!/bin/sh
# Stands in for make where a test is not about building: the program is there already.
[ -z "$MAKE_GATE" ] || cat "$MAKE_GATE"
cp "$PREBUILT" /tmp/vkabin.new && mv -f /tmp/vkabin.new /tmp/vkabin
"""


def pytest_configure():
    if os.environ.get("VKA_SANDBOX") != "1":
        pytest.exit("these tests use /tmp/vkabin and /opt/quorvel; run them with scripts/test.sh, or"
                    " below scripts/sandbox.sh", returncode=2)


def pytest_report_header():
    return [] if os.geteuid() == 0 else ["what another user owns is tried only when root runs this"]


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item):
    report = (yield).get_result()
    if report.failed:
        for host in getattr(item, "hosts", []):
            report.sections.append(("vkahost", host.report()))


@pytest.fixture(scope="session")
def vkahost():
    path = os.environ.get("VKAHOST", "")
    assert os.path.isabs(path) and os.access(path, os.X_OK), \
        "VKAHOST must be the absolute path of vkahost, not %r" % path
    return path


@pytest.fixture(scope="session")
def tool_archive(tmp_path_factory):
    """The sources of the program that does what a test tells it; see programs/tool.c."""
    return pack(tmp_path_factory.mktemp("tool") / "tool.zip",
                {"tool.c": (PROGRAMS / "tool.c").read_bytes()})


@pytest.fixture(scope="session")
def fast_make(tmp_path_factory):
    """Environment in which building the tool takes no time. MAKE_GATE names a FIFO to wait for."""
    directory = tmp_path_factory.mktemp("fast_make")
    subprocess.run(["gcc", "-O2", "-o", directory / "tool", PROGRAMS / "tool.c"], check=True)
    make = directory / "bin" / "make"
    make.parent.mkdir()
    make.write_text(FAST_MAKE)
    make.chmod(0o755)
    return {"PREBUILT": str(directory / "tool"),
            "PATH": "%s:%s" % (make.parent, os.environ["PATH"])}


def remove_program():
    if os.path.isdir(PROGRAM):
        shutil.rmtree(PROGRAM)
    else:
        pathlib.Path(PROGRAM).unlink(missing_ok=True)


@pytest.fixture
def host(request, vkahost, tool_archive, fast_make, tmp_path):
    """Starts vkahost, on port 0 and with a work directory of the test's own.

    host(OPTION..., archive=the tool, script=commands for the tool, fast=False: real make,
         launcher=[command that starts vkahost], env={}, and arguments of subprocess.Popen)
    """
    hosts = request.node.hosts = []
    remove_program()

    def start(*options, archive=tool_archive, script="", fast=True, launcher=(), env=None, **popen):
        command = [*launcher, vkahost, "-p0", "-w", tmp_path / "wd", *options]
        if archive is not None:
            command.append(archive)
        environment = {**os.environ, "SCRIPT": script, **(fast_make if fast else {}), **(env or {})}
        hosts.append(Host(command, env=environment, **popen))
        return hosts[-1]

    yield start
    complaints = [complaint for host in hosts for complaint in host.stop()]
    remove_program()
    assert not complaints, "\n".join(complaints)


@pytest.fixture
def fifo(tmp_path):
    path = tmp_path / "fifo"
    os.mkfifo(path)
    return path


@pytest.fixture
def marker(tmp_path):
    """A path at which the test program can leave a file."""
    return tmp_path / "marker"


@pytest.fixture
def old_program(host, marker):
    """An earlier program at /tmp/vkabin that leaves the marker if somebody runs it."""
    path = pathlib.Path(PROGRAM)
    path.write_text("#!/bin/sh\ntouch %s\n" % marker)
    path.chmod(0o755)
    before = path.stat()

    def is_untouched():
        assert not marker.exists(), "the old program was run"
        assert stat.S_ISREG(path.stat().st_mode)
        return path.stat()[:8] == before[:8] and path.stat().st_mtime_ns == before.st_mtime_ns

    return is_untouched


@pytest.fixture
def old_sources(host, tmp_path):
    """Sources of an earlier build in the work directory of the test."""
    path = tmp_path / "wd" / "src" / "old.c"
    path.parent.mkdir(parents=True)
    path.write_text("int old;\n")
    return path
