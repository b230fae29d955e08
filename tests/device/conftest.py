# SPDX-License-Identifier: MIT
import pytest

from machine import Machine


@pytest.fixture(scope="session")
def large():
    with Machine(1024) as machine:
        yield machine


@pytest.fixture(scope="session")
def small():
    with Machine(384) as machine:
        yield machine
