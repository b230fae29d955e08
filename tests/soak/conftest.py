# SPDX-License-Identifier: MIT
"""Endurance tests. They share the helpers and some fixtures of the integration tests."""
import contextlib
import importlib.util
import os
import pathlib
import sys

import pytest

INTEGRATION = pathlib.Path(__file__).resolve().parents[1] / "integration"
sys.path.insert(0, str(INTEGRATION))


def load(path, name):
    """Loads a module under another name than its file's, which is this one's, too."""
    found = importlib.util.spec_from_file_location(name, path)
    module = importlib.util.module_from_spec(found)
    found.loader.exec_module(module)
    return module


integration = load(INTEGRATION / "conftest.py", "integration")
pytest_configure = integration.pytest_configure  # refuses to run outside the sandbox
vkahost = integration.vkahost
tool_archive = integration.tool_archive
fast_make = integration.fast_make
fifo = integration.fifo


def pytest_addoption(parser):
    parser.addoption("--long", action="store_true", help="the full counts")


@pytest.fixture
def choose(request):
    """choose(short, long): what goes with the length of this run."""
    return lambda short, long: long if request.config.getoption("--long") else short


@pytest.fixture
def life(vkahost, tmp_path):
    """Context manager: one life of vkahost, after which nothing may be left of it.

    life(ARCHIVE, OPTION..., env={})
    """
    @contextlib.contextmanager
    def start(archive, *options, env=None):
        host = integration.Host([vkahost, "-w", tmp_path / "wd", *options, archive],
                    env={**os.environ, **(env or {})})
        try:
            yield host
        except BaseException:
            print(host.report())
            host.stop()
            raise
        complaints = host.stop()
        assert not complaints, "\n".join([*complaints, host.report()])

    return start
