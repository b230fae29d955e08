# SPDX-License-Identifier: MIT
"""The pictures in doc belong to their texts. Where things stand in them depends on the machine's
fonts, so that what they say is compared, and the checksum that scripts/draw.sh leaves."""
import hashlib
import subprocess
import xml.etree.ElementTree as tree_of_elements

import pytest
from markdown_pages import TREE

TEXTS = sorted(TREE.glob("doc/*.dot"))


def said(svg):
    """The texts, and the names of the nodes and edges."""
    return sorted((element.tag, element.text) for element in tree_of_elements.fromstring(svg).iter()
                  if (element.text or "").strip())


def test_there_are_pictures():
    assert TEXTS


@pytest.mark.parametrize("text", TEXTS, ids=lambda text: text.name)
def test_picture_belongs_to_its_text(text):
    drawn = subprocess.run(["dot", "-Tsvg", text], check=True, stdout=subprocess.PIPE).stdout
    kept = text.with_suffix(".svg").read_bytes()
    assert said(kept) == said(drawn)
    assert hashlib.sha256(text.read_bytes()).hexdigest() in kept.decode(), "run scripts/draw.sh"
