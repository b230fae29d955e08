# SPDX-License-Identifier: MIT
"""What README.md shows of the first minutes is what happens."""
import os
import re
import subprocess
import sys

from conftest import SECONDS
from markdown_pages import TREE, the_block


def test_first_program(first_program, started):
    host = started("bash", "-c", "exec " + the_block("sh", "serves").text, cwd=first_program)
    for line in host.stdout:
        if line.startswith("vkahost: running, console on port 2323"):
            break
    client = the_block("sh", "types")
    typed, answer = re.fullmatch(r"types: (\w+); answer: (.*)", client.mark).groups()
    talk = subprocess.run(["bash", "-c", client.text], input=typed + "\n", timeout=SECONDS,
                          stdout=subprocess.PIPE, text=True)
    assert answer in talk.stdout
    assert host.wait(SECONDS) == 0


def test_session_of_the_demonstration(tmp_path):
    """The session leaves out some lines, and its port is another."""
    demo = (TREE / "scripts/demo.sh").read_text()
    build = tmp_path / "build"
    build.mkdir()
    subprocess.run("zip -q -j build/demo.zip %s/examples/calculator/*" % TREE, shell=True,
                   check=True, cwd=tmp_path)
    inputs = ["1 + 2 * 3", "side = 12.5", "quit 7"]
    assert all("'%s'" % text in demo for text in inputs)
    shown = [line.rstrip() for line in the_block(mark="session").text.splitlines() if line.strip()]
    run = subprocess.run(
        [sys.executable, TREE / "scripts/console_dialogue.py", os.environ["VKAHOST"],
         "build/demo.zip", "> ", *inputs], cwd=tmp_path, timeout=SECONDS, stdout=subprocess.PIPE,
        text=True)
    assert run.returncode == 7
    said = iter(comparable(run.stdout.replace(str(tmp_path) + "/", "").splitlines()))
    assert not [line for line in comparable(shown) if line not in said]


def comparable(lines):
    return [re.sub(r"port \d+", "port N", line.rstrip()) for line in lines]
