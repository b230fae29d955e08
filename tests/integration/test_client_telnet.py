# SPDX-License-Identifier: MIT
"""telnet speaks a protocol in which byte 255 (IAC) starts a command; the console is plain bytes.

What telnet makes of it is written down here. It does for programs that read lines.
"""
import contextlib
import os

import pytest

from terminals import ADDRESS, ends, in_terminal


IAC, WILL, WONT, DO, IP = b"\xff", b"\xfb", b"\xfc", b"\xfd", b"\xf4"
ECHO, SUPPRESS_GO_AHEAD, TIMING_MARK = b"\x01", b"\x03", b"\x06"
CHARACTER_MODE = IAC + DO + SUPPRESS_GO_AHEAD + IAC + DO + ECHO
INTERRUPT = IAC + IP + IAC + DO + TIMING_MARK
# Ctrl-] leads to telnet's own prompt; so does the same byte with its highest bit set.
PASSING = [value for value in range(256) if value not in (0x1d, 0x9d)]


@contextlib.contextmanager
def telnet(vkahost, home):
    """telnet to a program that says that it is ready."""
    with in_terminal(["telnet", ADDRESS, str(vkahost.port)], home) as client:
        client.expect_exact(b"Escape character is '^]'.\r\n")
        client.expect_exact(b"ready")
        yield client


@pytest.fixture
def client(host, tmp_path):
    """Starts telnet to a program that then follows the script."""
    with contextlib.ExitStack() as opened:
        def start(script, greeting=b""):
            vkahost = host(script=os.fsdecode(b"say ready" + greeting + b";" + script))
            return opened.enter_context(telnet(vkahost, tmp_path))

        yield start


def order(client, command):
    """Gives a command to telnet itself, behind its escape key."""
    client.send(b"\x1d")
    client.expect_exact(b"telnet> ")
    client.send(command + b"\r")
    client.expect_exact(command + b"\r\n")


def interrupt(client):
    """What Ctrl-C makes telnet send may stay there until another key is pressed."""
    client.send(b"\x03")
    client.expect_exact(b"^C")  # what is typed before that is thrown away
    client.send(b"\r")


def hexadecimal(data):
    return data.hex(" ").encode() + b" "


def as_keys(values):
    """What telnet sends for keys in character mode."""
    return b"".join({0x0d: b"\r\0", 0xff: IAC + IAC}.get(value, bytes([value]))
                    for value in values)


def test_lines(client):
    """Before the first line not a byte goes to the program; Enter is CR LF, byte 255 is doubled."""
    telnet = client(b"hex 4;hex 9;sleep")
    telnet.expect_exact(b"\r\n")
    telnet.send(b"old\x7f\x7fn\r")
    telnet.expect_exact(b"old\b \b\b \bn\r\n" + hexadecimal(b"on\r\n"))
    telnet.send("é€".encode() + b"\xff\r")
    telnet.expect_exact(hexadecimal("é€".encode() + b"\xff\xff\r\n"))


def test_keys_when_the_user_asks_for_them(client):
    """The program gets two requests as its first input."""
    script = "hex %d;hex %d;sleep" % (len(CHARACTER_MODE), len(as_keys(PASSING)))
    telnet = client(script.encode())
    order(telnet, b"mode character")
    telnet.expect_exact(hexadecimal(CHARACTER_MODE))
    telnet.send(bytes(PASSING))
    telnet.expect_exact(hexadecimal(as_keys(PASSING)))
    assert telnet.before == b"\n"  # no echo


def test_keys_when_the_program_asks_for_them(client):
    """A program may make telnet send keys; the answers are its first input."""
    telnet = client(b"hex %d;hex 3;sleep" % len(CHARACTER_MODE),
                    IAC + WILL + SUPPRESS_GO_AHEAD + IAC + WILL + ECHO)
    telnet.expect_exact(hexadecimal(CHARACTER_MODE))
    telnet.send(b"a\x03b")
    telnet.expect_exact(hexadecimal(b"a\x03b"))
    assert telnet.before == b"\n"


def test_ctrl_c_hides_all_output_until_the_program_answers(client):
    """telnet tells the program to interrupt itself and waits for it to say that it did."""
    telnet = client(b"hex %d;say hidden%s;say shown;sleep" % (
        len(INTERRUPT), IAC + WONT + TIMING_MARK))
    interrupt(telnet)
    telnet.expect_exact(b"shown")
    assert telnet.before.strip() == b""


def test_ctrl_c_is_five_other_bytes_for_the_program(host, tmp_path):
    """Not knowing them it gives no answer; what is left is to leave telnet."""
    vkahost = host("-d3", script="say ready;sleep")
    with telnet(vkahost, tmp_path) as client:
        interrupt(client)
        vkahost.line("fdconn " + INTERRUPT.hex(" ") + ".*")
        order(client, b"quit")
        ends(client)


@pytest.mark.parametrize("output, screen", [
    (b"caf\xc3\xa9 \x1b[31mred\x1b[0m\t\a|", b"caf\xc3\xa9 \x1b[31mred\x1b[0m\t\a|"),
    (b"a\xffbc", b"ac"),           # 255 and what follows are taken for a command
    (b"a\xff\xffbc", b"a\xffbc"),  # so it has to be doubled
    (b"a\xff\xf1bc", b"abc"),
    (b"a\xff\xfa\x18\1bc\xff\xf0d", b"ad"),
])
def test_output(client, output, screen):
    telnet = client(b"say %s|;sleep" % output)
    telnet.expect_exact(b"|\r\n")
    assert telnet.before == b"\r\n" + screen


def test_answers_to_what_looks_like_a_request_are_input(client):
    telnet = client(b"say a%sb;hex 3;sleep" % (IAC + DO + ECHO))
    telnet.expect_exact(b"ab\r\n" + hexadecimal(IAC + WONT + ECHO))


def test_leaving(host, tmp_path):
    vkahost = host(script="say ready")
    with telnet(vkahost, tmp_path) as client:
        client.expect_exact(b"\r\n")
        order(client, b"quit")
        assert ends(client) == (b"Connection closed.\r\n", 0)
    assert vkahost.client().ask("say still there") == "still there"
