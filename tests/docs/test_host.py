# SPDX-License-Identifier: MIT
"""The host in README.md compiles in each way that is told there, and serves clients that come and
go."""
import socket
import subprocess

import pytest
from conftest import SECONDS
from markdown_pages import the_block

LIBRARIES = ["/usr/local/lib/lib%s.a" % name for name in ("vka", "qvproc", "qvio", "qvutil")]
FLOOD = r"""
#include <stdio.h>
#include <string.h>

int main(void) {
    char line[80];
    int i;
    while (fgets(line, sizeof(line), stdin)) {
        if (strcmp(line, "flood\n") == 0)
            for (i = 0; i < 5000; ++i)
                printf("line %d\n", i);
        printf("you said %s", line);
        fflush(stdout);
        if (strcmp(line, "quit\n") == 0)
            return 0;
    }
    return 1;
}
"""


@pytest.fixture
def directory(tmp_path):
    (tmp_path / "host.cc").write_text(the_block("c++").text)
    (tmp_path / "CMakeLists.txt").write_text(the_block("cmake").text)
    return tmp_path


def call(*command, cwd):
    subprocess.run(command, check=True, cwd=cwd, timeout=SECONDS)


def assert_starts(host):
    run = subprocess.run([host], stderr=subprocess.PIPE, text=True, timeout=SECONDS,
                         env={"LD_LIBRARY_PATH": "/usr/local/lib"})
    assert run.stderr == "host: usage: host ZIP WORKDIR\n" and run.returncode == 1


@pytest.mark.parametrize("standard", [11, 20])
def test_compiles_without_warning_and_serves(directory, standard, started, connected):
    call("g++", "-std=c++%d" % standard, "-Wall", "-Wextra", "-Werror", "host.cc", "-o", "host",
         "-I/usr/local/include", *LIBRARIES, "-pthread", cwd=directory)
    (directory / "main.c").write_text(FLOOD)
    call("zip", "-q", "flood.zip", "main.c", cwd=directory)
    host = started(directory / "host", directory / "flood.zip", directory / "work")

    first = connected()
    first.sendall(b"one\n")
    assert receive_until(first, b"you said one\n")
    first.close()

    # A client that leaves while there is output for it: what ends a host that does not look.
    for _ in range(5):
        leaving = connected()
        leaving.sendall(b"flood\n")
        assert receive_until(leaving, b"line ")
        leaving.close()
    half = connected()
    half.sendall(b"two\n")
    half.shutdown(socket.SHUT_WR)
    while half.recv(65536):
        pass  # up to the end of the stream: the host has closed its side, too

    last = connected()
    last.sendall(b"quit\n")
    assert receive_until(last, b"you said quit\n")
    assert host.wait(SECONDS) == 0


def receive_until(client, end):
    received = b""
    while end not in received[-100000:]:
        data = client.recv(65536)
        if not data:
            return False
        received += data
    return True


def test_cmake_lines(directory):
    call("cmake", "-S", ".", "-B", "build", cwd=directory)
    call("cmake", "--build", "build", cwd=directory)
    assert_starts(directory / "build/host")


def test_pkg_config_line(directory):
    call("bash", "-eu", "-c", the_block("sh", "compiles").text, cwd=directory)
    assert_starts(directory / "host")
