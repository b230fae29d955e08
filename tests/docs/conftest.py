# SPDX-License-Identifier: MIT
"""Checks of the documentation; scripts/check-docs.sh runs them in a sandbox with a network of its
own and an installation of the tree in /usr/local."""
import os
import socket
import subprocess
import time

import pytest
from markdown_pages import the_block

SECONDS = 120  # for what takes one or two, on a busy machine ten times as much


@pytest.fixture(scope="session")
def vkahost():
    return os.environ["VKAHOST"]


@pytest.fixture(scope="session", autouse=True)
def own_network():
    """README.md names the port 2323; another program may use that one in the machine's network."""
    with open("/proc/self/net/dev") as table:
        links = [line.split(":")[0].strip() for line in table if ":" in line]
    assert links == ["lo"] and os.environ.get("VKA_SANDBOX") == "1", "run scripts/check-docs.sh"


@pytest.fixture(scope="session")
def first_program(tmp_path_factory):
    """The directory in which the block that makes the first program was run."""
    directory = tmp_path_factory.mktemp("first")
    subprocess.run(["bash", "-eu", "-c", the_block("sh", "runs").text], cwd=directory, check=True)
    return directory


@pytest.fixture
def started():
    """Starts processes, which are ended with the test."""
    processes = []

    def start(*command, **settings):
        processes.append(subprocess.Popen(command, stdout=subprocess.PIPE,
                                          stderr=subprocess.STDOUT, text=True, **settings))
        return processes[-1]
    yield start
    for process in processes:
        if process.poll() is None:
            process.kill()
        process.communicate()


@pytest.fixture
def connected():
    """Connects to the console on port 2323 as soon as somebody listens there."""
    sockets = []

    def connect():
        end = time.monotonic() + SECONDS
        while True:
            try:
                sockets.append(socket.create_connection(("127.0.0.1", 2323), timeout=SECONDS))
                return sockets[-1]
            except ConnectionRefusedError:
                assert time.monotonic() < end, "nobody listens on port 2323"
                time.sleep(0.02)
    yield connect
    for client in sockets:
        client.close()
