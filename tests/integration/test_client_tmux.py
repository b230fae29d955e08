# SPDX-License-Identifier: MIT
"""The console in a terminal that is driven by keys: what its user sees on the screen."""
import subprocess

import pytest

from archives import EXAMPLES
from terminals import Tmux, socat


@pytest.fixture
def terminal(host, tmp_path):
    """Starts vkahost and, in a terminal, a client of it."""
    opened = []

    def start(script, *options):
        vkahost = host(*options, script=script)
        opened.append(Tmux(socat(vkahost.port), tmp_path))
        return opened[-1]

    yield start
    for terminal in opened:
        terminal.close()


def test_line_editing_of_the_program(terminal):
    screen = terminal("edit > ;edit > ;sleep")
    screen.shows(">\n")
    screen.type("naïvete")
    screen.shows("> naïvete\n")
    screen.press("BSpace")
    screen.shows("> naïvet\n")
    screen.press(*["BSpace"] * 4)
    screen.shows("> na\n")
    screen.press("BSpace", *["BSpace"] * 5)
    screen.shows(">\n")
    screen.type("für 5 €")
    screen.press("Enter")
    screen.shows("> für 5 €\nread: für 5 €\n>\n")
    screen.type("wrong")
    screen.press("C-c")
    screen.shows("> wrong^C\n>\n")
    screen.type("right")
    screen.press("Enter")
    screen.shows("> right\nread: right\n")


def test_colours(terminal):
    screen = terminal("say \x1b[31mred\x1b[0m \x1b[1m\x1b[44mbold on blue\x1b[0m plain;sleep")
    screen.shows("red bold on blue plain\n")
    screen.shows("\x1b[31mred\x1b[39m \x1b[1m\x1b[44mbold on blue\x1b[0m", "-e")


def test_positions_and_erasing(terminal):
    screen = terminal("say junk;say \x1b[2J\x1b[3d\x1b[5Gthird\x1b[Hfirst;sleep")
    screen.shows("first\n\n    third\n")
    assert "junk" not in screen.screen()


def test_utf_8(terminal):
    screen = terminal("say äöü €uro 日本 |;sleep")
    screen.shows("äöü €uro 日本 |\n")


def test_every_byte_value_that_is_typed(terminal):
    data = bytes(value for value in range(256) if value != 0x1d)  # which leaves the client
    screen = terminal("say ready;hex %d;sleep" % len(data))
    screen.shows("ready")
    screen.send_bytes(data)
    screen.shows(data.hex(" "), "-J")


def test_keys_are_the_programs(terminal):
    """Those, too, with which a terminal would otherwise end, stop or hold something."""
    screen = terminal("say ready;hex 14;sleep")
    screen.shows("ready")
    screen.press("C-c", "C-z", "C-\\", "C-d", "C-s", "C-q", "C-v", "C-u", "Enter", "BSpace", "Tab",
                 "Up")
    screen.shows("03 1a 1c 04 13 11 16 15 0d 7f 09 1b 5b 41")


def test_size_of_the_client_is_asked_of_its_terminal(terminal):
    """The stream carries no size: the program's own terminal keeps the one of the command line."""
    cursor_in_the_corner = b"query \x1b[999;999H\x1b[6n\n"  # and where is it?
    screen = terminal("say ready", "-s99x33")
    screen.shows("ready")
    for columns, rows in (80, 24), (120, 40), (50, 10):
        screen.resize(columns, rows)
        screen.send_bytes(cursor_in_the_corner)
        screen.shows("answer: [%d;%dR\n" % (rows, columns))
        screen.send_bytes(b"tty\n")
        screen.shows("R\n99x33 raw\n")
        screen.send_bytes(b"say \x1b[2J\x1b[H\n")


def test_maze_is_walked_by_arrow_keys(host, tmp_path):
    program = tmp_path / "maze"
    subprocess.run(["g++", "-o", program, *(EXAMPLES / "maze").glob("*.cc")], check=True)
    vkahost = host(env={"PREBUILT": str(program)})
    with Tmux(socat(vkahost.port), tmp_path) as screen:
        screen.shows("steps: 0")
        maze = screen.screen().splitlines()[:17]
        assert maze[0] == maze[16] == "#" * 33
        assert maze[1].startswith("#@") and maze[15].endswith("X#")
        maze[1] = maze[1].replace("@", " ")
        key, row, column = ("Right", 1, 2) if maze[1][2] == " " else ("Down", 2, 1)
        maze[row] = maze[row][:column] + "@" + maze[row][column + 1:]
        screen.press(key)
        screen.shows("\n".join(maze) + "\nsteps: 1 ")
        screen.press("q")
        assert vkahost.wait() == 1
