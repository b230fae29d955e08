# SPDX-License-Identifier: MIT
"""What spares a slow device the compiler: a cache, and servers that compile."""
import os
import pathlib
import signal
import socket
import subprocess
import tempfile

import pytest

from archives import EXAMPLES, pack_directory
from clients import free_port
from makefile_support import need
from processes import PROGRAM, wait_until

SOURCES = len(list((EXAMPLES / "stats").glob("*.c*")))


@pytest.fixture(scope="module")
def archive(tmp_path_factory):
    """An example in C and C++."""
    return pack_directory(tmp_path_factory.mktemp("stats") / "stats.zip", EXAMPLES / "stats")


def build(host, archive, environment):
    """Returns the program without its debug information, which names other columns where the
    preprocessor ran apart.
    """
    vkahost = host(archive=archive, fast=False, env=environment)
    assert vkahost.port
    with tempfile.NamedTemporaryFile() as stripped:
        subprocess.run(["objcopy", "--strip-debug", "--remove-section=.note.gnu.build-id",
                        PROGRAM, stripped.name], check=True)
        program = pathlib.Path(stripped.name).read_bytes()
    vkahost.signal(signal.SIGTERM)
    vkahost.wait()
    return program


@pytest.fixture
def server():
    """A distcc server on this machine: its port, and its log."""
    daemon = need("distccd", "distcc")
    port, log = free_port(), pathlib.Path(tempfile.mkstemp()[1])
    log.chmod(0o666)  # the server gives up root's rights, so it is not in the test's own directory
    process = subprocess.Popen(
        [daemon, "--no-detach", "--listen", "127.0.0.1", "--allow", "127.0.0.1", "--port", str(port),
         "--jobs", "2", "--enable-tcp-insecure", "--log-file", log, "--log-level", "info"],
        start_new_session=True)

    def answers():
        with socket.socket() as probe:
            return probe.connect_ex(("127.0.0.1", port)) == 0

    try:
        wait_until(answers, "the server listens")
        yield port, log
    finally:
        os.killpg(process.pid, signal.SIGKILL)
        process.wait()
        log.unlink()


def test_distcc_server_compiles_the_same_program(host, archive, server, tmp_path):
    port, log = server
    alone = build(host, archive, {})
    pathlib.Path(PROGRAM).unlink()
    shared = build(host, archive, {
        "CC": "distcc gcc", "CXX": "distcc g++", "DISTCC_HOSTS": "127.0.0.1:%d" % port,
        "DISTCC_FALLBACK": "0", "DISTCC_DIR": str(tmp_path)})
    assert shared == alone
    wait_until(lambda: log.read_text().count("COMPILE_OK") == SOURCES, "the server compiled all")


def test_ccache_gives_the_same_program(host, archive, tmp_path):
    need("ccache", "ccache")
    environment = {"CC": "ccache gcc", "CXX": "ccache g++", "CCACHE_DIR": str(tmp_path / "cache")}
    first = build(host, archive, environment)
    second = build(host, archive, environment)
    assert second == first
    statistics = subprocess.check_output(["ccache", "--print-stats"], text=True,
                                         env={**os.environ, **environment})
    assert "direct_cache_hit\t%d\n" % SOURCES in statistics, statistics
