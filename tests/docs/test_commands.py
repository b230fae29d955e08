# SPDX-License-Identifier: MIT
"""The shell blocks of README.md and CONTRIBUTING.md.

Those marked by a comment are run by test_first_program.py and test_host.py. The others install
packages, take minutes, wait for somebody to type, or need another machine; of them only the words
are looked at: they are shell, and the files of the tree, the presets, and the options of vkahost and
of the tree's scripts that they name exist.
"""
import itertools
import json
import os
import re
import shlex
import subprocess

import pytest
from markdown_pages import TREE, blocks

SHELL = [block for page in ("README.md", "CONTRIBUTING.md") for block in blocks(page)
         if block.language == "sh"]
UNRUN = [block for block in SHELL if not block.mark]
DIRECTORIES = {entry.name for entry in TREE.iterdir() if entry.is_dir()} - {"build"}


def commands(block):
    """The words of each simple command."""
    for line in re.sub(r"\\\n", " ", block.text).splitlines():
        for command in re.split(r"&&|[;|()]", line):
            words = shlex.split(command, comments=True)
            if words:
                yield words


def calls(block, program):
    """The words behind the program's name, wherever it is called."""
    return [words[words.index(program) + 1:] for words in commands(block) if program in words]


def test_blocks_are_marked_as_known():
    marks = [block.mark.split(":")[0] for block in blocks("README.md") if block.mark]
    assert sorted(marks) == ["compiles", "runs", "serves", "session", "types"]
    assert {block.language for block in blocks("README.md")} == {"sh", "", "c++", "cmake"}


@pytest.mark.parametrize("block", SHELL, ids=repr)
def test_block_is_shell(block, tmp_path):
    script = tmp_path / "block.sh"
    script.write_text(block.text)
    subprocess.run(["bash", "-n", script], check=True)
    # SC2046: what pkg-config prints is to be split.
    subprocess.run(["shellcheck", "--shell=bash", "--exclude=SC2046", script], check=True)


@pytest.mark.parametrize("block", UNRUN, ids=repr)
def test_files_exist(block):
    named = [word for words in commands(block) for word in words
             if word.split("/")[0] in DIRECTORIES and "/" in word]
    assert not [word for word in named if not (TREE / word).exists()]


def options_of(program):
    """Those that its help names."""
    return set(re.findall(r"(?<![\w-])(?:--[\w-]+|-\w\b)", subprocess.run(
        [program, "--help"], check=True, stdout=subprocess.PIPE, text=True).stdout))


def given(words):
    """The options in a program's words; behind -- stands another one's command."""
    return {word.split("=")[0] for word in itertools.takewhile(lambda word: word != "--", words)
            if word.startswith("-")}


@pytest.mark.parametrize("block", SHELL, ids=repr)
def test_options_of_vkahost_exist(block, vkahost):
    for words in calls(block, "vkahost"):
        assert given(words) <= options_of(vkahost)


@pytest.mark.parametrize("script", sorted({
    word for block in SHELL for words in commands(block) for word in words
    if word.split("/")[0] in DIRECTORIES and (TREE / word).is_file()
    and os.access(TREE / word, os.X_OK)}))
def test_options_of_scripts_exist(script):
    known = options_of(TREE / script)
    assert known
    assert not [repr(block) for block in SHELL for words in calls(block, script)
                if not given(words) <= known]


@pytest.mark.parametrize("block", UNRUN, ids=repr)
def test_presets_exist(block):
    presets = json.loads((TREE / "CMakePresets.json").read_text())
    for words in calls(block, "cmake"):
        if "--preset" in words:
            kind = "buildPresets" if "--build" in words else "configurePresets"
            name = words[words.index("--preset") + 1]
            assert name in [preset["name"] for preset in presets[kind]]
