# SPDX-License-Identifier: MIT
"""console_dialogue.py VKAHOST ARCHIVE PROMPT INPUT...

Builds and runs ARCHIVE with VKAHOST, types each INPUT at the program's prompt over the TCP console
and prints it all: the log, the dialogue ("> " typed, "< " answered, prompts left out) and how the
program ended. Its exit status is VKAHOST's.
"""
import signal
import socket
import subprocess
import sys
import tempfile

ANSWER_SECONDS = 30
TOTAL_SECONDS = 300
RUNNING = b"vkahost: running, console on port "


def relay_line(host):
    """Prints the host's next line of output; returns it, empty at the end."""
    line = host.stdout.readline()
    print(line.decode(errors="replace"), end="")
    return line


def console_port(host):
    line = relay_line(host)
    while line and not line.startswith(RUNNING):
        line = relay_line(host)
    return int(line[len(RUNNING):]) if line else None


def show_answer(console, prompt):
    """Prints what the program writes up to its prompt, or up to its end for an empty prompt."""
    answer = b""
    while not prompt or not answer.endswith(prompt):
        data = console.recv(4096)
        if not data:
            if prompt:
                raise EOFError("the console was closed before the prompt came")
            break
        answer += data
    for line in answer[:len(answer) - len(prompt)].splitlines():
        print("<", line.decode(errors="replace"))


def talk(port, prompt, inputs):
    with socket.create_connection(("127.0.0.1", port), timeout=ANSWER_SECONDS) as console:
        for text in inputs:
            show_answer(console, prompt)
            print(">", text)
            console.sendall(text.encode() + b"\n")
        show_answer(console, b"")


def main():
    vkahost, archive, prompt, *inputs = sys.argv[1:]
    sys.stdout.reconfigure(line_buffering=True)
    signal.alarm(TOTAL_SECONDS)
    with tempfile.TemporaryDirectory() as work, subprocess.Popen(
            [vkahost, "--port=0", "--workdir=" + work, archive],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE) as host:
        try:
            port = console_port(host)
            if port:
                talk(port, prompt.encode(), inputs)
                while relay_line(host):
                    pass
        except (OSError, EOFError) as error:
            print("console_dialogue.py:", error, file=sys.stderr)
            host.terminate()
            host.communicate()
            return 125
        return host.wait()


sys.exit(main())
