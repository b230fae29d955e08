# SPDX-License-Identifier: MIT
"""README.md explains each message that vkahost can print, in its words."""
import re

import pytest
from markdown_pages import TREE, code_in, table

SOURCES = sorted([*TREE.glob("host/*.cc"), *TREE.glob("libvka/client/*.cc"),
                  *TREE.glob("libq*/*.cc")])
MAKEFILE = (TREE / "share/vka/Makefile").read_text()
# A statement with one of these words says what went wrong.
RAISES = r"(?:throw|failure|fail|refuse|report|cerr|stderr|addFdFlag|any_of|string what|Number)\b"
# Parts of messages that stand in other words, or explain nothing.
NO_MESSAGES = {": ", "", "build failed: ", "[ERROR] ", "Try 'vkahost --help'.", "invalid ",
               "VKAClient", "::", "() ", " (errno ", "UNZIP", "/dev/null"}


def messages_of_sources():
    found = set()
    for source in SOURCES:
        for statement in re.findall(RAISES + r"[^;{}]*;", source.read_text()):
            for literal in re.findall(r'"((?:[^"\\]|\\.)*)"', statement):
                text = re.sub(r"\\n|^vkahost: (build failed: )?", "", literal)
                found.add("invalid " + text if re.search(r"Number\(", statement) else text)
    return sorted(text for text in found - NO_MESSAGES if len(text) > 3)


def messages_of_makefile():
    found = re.findall(r"\$\(error ([^$)]*(?:\([^)]*\)[^$)]*)?)", MAKEFILE)
    found += re.findall(r"echo ([^;|]*); exit 1", MAKEFILE)
    found += re.findall(r"\$\(info ([^$]*)", MAKEFILE)
    return sorted(text for text in found if text)


def explained():
    return [text for row in table("README.md", "Troubleshooting") for text in code_in(row[0])]


def pieces(text):
    """The fixed text between names, numbers and reasons."""
    split = re.split(r"…|%\w|\$\$?\w+|\$\(\w+\)|\"", text)
    return [piece.strip(" :'") for piece in split if len(piece.strip(" :'")) > 3]


def test_there_are_messages():
    assert len(messages_of_sources()) > 50 and len(messages_of_makefile()) > 7


@pytest.mark.parametrize("message", messages_of_sources() + messages_of_makefile())
def test_message_is_explained(message):
    assert not [piece for piece in pieces(message)
                if not any(piece in text for text in explained())]


# What the sources put together while running, or the system says.
COMPOSED = [*messages_of_sources(), "cannot bind socket to ",
            "] VKAClient::run() Bad file descriptor (errno 9)",
            "/opt/quorvel/share/vka/Makefile: No such file or directory"]


@pytest.mark.parametrize("message", explained())
def test_explained_message_exists(message):
    said = MAKEFILE + "".join(source.read_text() for source in SOURCES) + "\n".join(COMPOSED)
    assert not [piece for piece in pieces(message.replace("[ERROR", "")) if piece not in said]
