# SPDX-License-Identifier: MIT
"""vkahost --help, the man page and the table of README.md name the same options."""
import re
import subprocess

import pytest
from markdown_pages import TREE, code_in, table


def from_help(vkahost):
    """{long name: (letter, argument, default)}"""
    text = subprocess.run([vkahost, "--help"], check=True, stdout=subprocess.PIPE, text=True).stdout
    return in_text(re.split(r"\n(?=  -)", text.split("\n\nExit status")[0])[1:],
                   r"\(default (\S+)\)|\(.*default (\S+)\)")


def in_text(paragraphs, default):
    options = {}
    for paragraph in paragraphs:
        head = re.match(r"\s*-(\w), --([\w-]+)(?:=(\S+))?", paragraph)
        assert head, "no option: " + paragraph
        value = re.search(default, " ".join(paragraph.split()))
        options[head.group(2)] = (head.group(1), head.group(3),
                                  next(filter(None, value.groups())) if value else None)
    return options


def from_readme():
    options = {}
    for names, _, value in table("README.md", "Options of vkahost"):
        letter, word = code_in(names)
        name, _, argument = word[2:].partition("=")
        options[name] = (letter[1:], argument or None, (code_in(value) or [None])[0])
    return options


def from_man_page():
    text = subprocess.run(["mandoc", "-T", "ascii", "-O", "width=200",
                           TREE / "doc/man/vkahost.1"], check=True, stdout=subprocess.PIPE,
                          text=True).stdout
    text = re.sub(".\b", "", text)
    paragraphs = re.findall(r"^ +-\w, --.*(?:\n .*)*", text, re.M)
    return in_text(paragraphs, r"[Dd]efault is (\S+?)[.,]?(?: |$)")


@pytest.mark.parametrize("options", [from_readme, from_man_page])
def test_options_agree(vkahost, options):
    assert options() == from_help(vkahost)
