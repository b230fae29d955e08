# SPDX-License-Identifier: MIT
"""An interpreter that knows nothing of the agent is built unchanged and used over its console."""
import os

import pytest

from clients import Client
from hosts import Host
from processes import SLOWNESS

BUILD_DEADLINE = 120 * SLOWNESS


class Interpreter:
    def __init__(self, host):
        self.host = host
        port = host.line(r"vkahost: running, console on port (\d+)", BUILD_DEADLINE)[1]
        self.client = Client(int(port))
        host.clients.append(self.client)
        self.greeting = self.answer(b"> ")

    def answer(self, prompt):
        """What the interpreter writes before its prompt."""
        return self.client.receive_until(prompt)[:-len(prompt)].decode()

    def evaluate(self, line, prompt=b"> "):
        self.client.command(line)
        return self.answer(prompt)


@pytest.fixture(scope="module")
def interpreter(vkahost, tmp_path_factory):
    """One for all tests of the module: building it takes its time."""
    archive = os.environ.get("VKA_LUA_ZIP", "")
    assert os.path.isabs(archive), \
        "VKA_LUA_ZIP must be the archive that fetch_lua.sh makes, not %r" % archive
    host = Host([vkahost, "-p0", "-w", tmp_path_factory.mktemp("lua"), archive],
                env=os.environ)
    try:
        yield Interpreter(host)
    finally:
        print(host.report())
        complaints = host.stop()
    assert not complaints, "\n".join(complaints)


def test_it_finds_a_terminal_and_prompts(interpreter):
    assert interpreter.greeting.startswith("Lua 5.4")


@pytest.mark.parametrize("line, answer", [
    ("1 + 2 * 3", "7\n"),
    ("2^53", "9.007199254741e+15\n"),
    ("7 // 2, 7 % 3", "3\t1\n"),
    ('("ab"):rep(3, "-")', "ab-ab-ab\n"),
    ("#string.rep('x', 300)", "300\n"),
    ("math.maxinteger + 1 == math.mininteger", "true\n"),
    ("string.format('%.3f', math.sin(1))", "0.841\n"),
    ("select('#', table.unpack({1, 2, 3}))", "3\n"),
])
def test_expression_is_evaluated(interpreter, line, answer):
    assert interpreter.evaluate(line) == answer


def test_open_block_asks_for_more(interpreter):
    assert interpreter.evaluate("for i = 1, 3 do", prompt=b">> ") == ""
    assert interpreter.evaluate("print(i * i) end") == "1\n4\n9\n"


def test_error_is_reported_and_survived(interpreter):
    assert "attempt to perform arithmetic on a nil value" in interpreter.evaluate("nothing + 1")
    assert interpreter.evaluate("'alive'") == "alive\n"


def test_a_long_answer_arrives_whole(interpreter):
    answer = interpreter.evaluate("for i = 1, 2000 do print(i) end")
    assert answer.split() == [str(i) for i in range(1, 2001)]


def test_exit_status_is_passed_on(interpreter):
    interpreter.client.command("os.exit(42)")
    assert interpreter.host.wait() == 42
    assert interpreter.host.last_line() == "vkahost: program exited with status 42"
