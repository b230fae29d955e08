# SPDX-License-Identifier: MIT
"""The console with the programs that people type into, or write scripts for."""
import subprocess
import termios

import pytest

from hosts import Output
from processes import DEADLINE, SLOWNESS, open_gate, wait_until
from terminals import ADDRESS, ends, environment, in_terminal, socat

EVERY_BYTE = bytes(range(256))


def in_raw_terminal(command):
    return ["sh", "-c", "stty raw -echo && exec " + " ".join(command)]


# For programs that read lines: the terminal stays as it is, which echoes and edits.
LINE_CLIENTS = {
    "nc": lambda port: ["nc", ADDRESS, str(port)],
    "plink": lambda port: ["plink", "-raw", "-P", str(port), ADDRESS],
    "socat": lambda port: ["socat", "-", "TCP:%s:%d" % (ADDRESS, port)],
}
# For programs that take each key; and the keys that do not get through. plink makes a terminal cooked
# again, and behind "cat |" takes its output to be non-blocking, which is cat's input, too.
KEY_CLIENTS = {
    "nc": (lambda port: in_raw_terminal(LINE_CLIENTS["nc"](port)), b""),
    "socat": (socat, b"\x1d"),
}
ALL_CLIENTS = {
    **LINE_CLIENTS,
    "nc -N": lambda port: ["nc", "-N", ADDRESS, str(port)],
    "socat raw": socat,
    "telnet": lambda port: ["telnet", ADDRESS, str(port)],
}


@pytest.mark.parametrize("name", LINE_CLIENTS)
def test_every_byte_value_through_pipes(host, tmp_path, name):
    vkahost = host(script="say ready;echo")
    with subprocess.Popen(LINE_CLIENTS[name](vkahost.port), env=environment(tmp_path), bufsize=0,
                          stdin=subprocess.PIPE, stdout=subprocess.PIPE) as client:
        try:
            out = Output(client.stdout)
            client.stdin.write(EVERY_BYTE)
            wait_until(lambda: len(out.so_far()) >= len(b"ready\n" + EVERY_BYTE), "all bytes come")
            assert out.so_far() == b"ready\n" + EVERY_BYTE
        finally:
            client.kill()


def test_answer_to_a_command_from_a_pipe(host, tmp_path):
    """nc without -N goes on listening when its input has ended; -w gives up on a silent program."""
    vkahost = host()
    client = subprocess.run(["nc", "-w", "%d" % (5 * SLOWNESS), ADDRESS, str(vkahost.port)],
                            input=b"say one two\n", stdout=subprocess.PIPE, timeout=DEADLINE,
                            env=environment(tmp_path), check=True)
    assert client.stdout == b"one two\n"
    assert vkahost.client().ask("say still there") == "still there"


@pytest.mark.parametrize("name", KEY_CLIENTS)
def test_every_byte_value_as_a_key(host, tmp_path, name):
    """Neither echoed, nor translated, nor taken as a signal or held back; and so is the answer."""
    command, lost = KEY_CLIENTS[name]
    keys = bytes(set(EVERY_BYTE) - set(lost))
    vkahost = host(script="say ready;hex %d;say ready;echo" % len(keys))
    with in_terminal(command(vkahost.port), tmp_path) as client:
        client.expect_exact(b"ready\n")
        client.send(keys)
        client.expect_exact(b" \nready\n")
        assert client.before.decode() == keys.hex(" ")
        client.send(keys)
        client.expect_exact(keys)
        assert client.before == b""


def test_leaving_socat_by_its_key(host, tmp_path):
    """The terminal is as before, and the program waits for the next client."""
    vkahost = host(script="say ready")
    with in_terminal(["cat"], tmp_path) as untouched:
        usual = termios.tcgetattr(untouched.child_fd)
    with in_terminal(socat(vkahost.port), tmp_path) as client:
        client.expect_exact(b"ready\n")
        assert termios.tcgetattr(client.child_fd) != usual
        client.send(b"\x1d")
        assert ends(client) == (b"", 0)
        assert termios.tcgetattr(client.child_fd) == usual
    assert vkahost.client().ask("say still there") == "still there"


@pytest.mark.parametrize("name", LINE_CLIENTS)
def test_lines_are_edited_and_echoed_by_the_terminal(host, tmp_path, name):
    vkahost = host(script="say ready;hex 6;sleep")
    with in_terminal(LINE_CLIENTS[name](vkahost.port), tmp_path) as client:
        client.expect_exact(b"ready\r\n")
        client.send("old\x7f\x7fn€\r".encode())
        client.expect_exact("on€\n".encode().hex(" ").encode())
        assert client.before == "old\b \b\b \bn€\r\n".encode()


@pytest.mark.parametrize("name, key", [
    ("nc", "\x03"), ("plink", "\x03"), ("socat", "\x03"),
    ("nc -N", "\x04"), ("plink", "\x04"), ("socat", "\x04")])
def test_key_ends_the_client_and_not_the_program(host, tmp_path, name, key):
    """Ctrl-C, or Ctrl-D, in a terminal that is not raw; the program does not hear of it."""
    vkahost = host(script="say ready")
    with in_terminal(ALL_CLIENTS[name](vkahost.port), tmp_path) as client:
        client.expect_exact(b"ready\r\n")
        client.send(key)
        ends(client)
    assert vkahost.client().ask("say still there") == "still there"


def test_ctrl_d_only_ends_what_nc_sends(host, tmp_path, fifo):
    vkahost = host(script="say ready;gate %s;say more" % fifo)
    with in_terminal(ALL_CLIENTS["nc"](vkahost.port), tmp_path) as client:
        client.expect_exact(b"ready\r\n")
        client.send("\x04")
        open_gate(fifo)
        client.expect_exact(b"more\r\n")


@pytest.mark.parametrize("name", ALL_CLIENTS)
def test_window_is_closed(host, tmp_path, name):
    vkahost = host(script="say ready")
    with in_terminal(ALL_CLIENTS[name](vkahost.port), tmp_path) as client:
        client.expect(rb"ready\r?\n")
    assert vkahost.client().ask("say still there") == "still there"


@pytest.mark.parametrize("name, key", [("socat", ""), ("socat raw", ""), ("telnet", ""),
                                       ("nc", "\r"), ("plink", "\x04")])
def test_end_of_the_program(host, tmp_path, name, key):
    """The client ends by itself, or at the user's next Enter, or Ctrl-D."""
    vkahost = host(script="say ready")
    with in_terminal(ALL_CLIENTS[name](vkahost.port), tmp_path) as client:
        client.expect_exact(b"ready")
        client.send(b"exit 5\n")
        assert vkahost.wait() == 5
        client.send(key)
        assert ends(client)[1] == 0


EXPECT = r"""
set timeout %d
set stty_init -echo
spawn -noecho socat - TCP:%s:%d
proc answer {pattern} {
    expect {
        -re $pattern {}
        timeout { puts "no $pattern"; exit 1 }
        eof { puts "the end instead of $pattern"; exit 2 }
    }
}
answer "ready\r\n"
send "say one two\r"
answer "^one two\r\n$"
send "exit 5\r"
expect eof
exit [lindex [wait] 3]
"""


def test_expect(host, tmp_path):
    vkahost = host(script="say ready")
    script = tmp_path / "script"
    script.write_text(EXPECT % (DEADLINE, ADDRESS, vkahost.port))
    expect = subprocess.run(["expect", "-N", "-n", script], env=environment(tmp_path),
                            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, timeout=2 * DEADLINE)
    assert expect.returncode == 0, expect.stdout
    assert vkahost.wait() == 5
