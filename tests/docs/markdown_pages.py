# SPDX-License-Identifier: MIT
"""The tree's Markdown pages, as a parser sees them."""
import functools
import pathlib
import re
import subprocess

import markdown_it

TREE = pathlib.Path(__file__).resolve().parents[2]


def pages():
    """The paths of all pages, relative to the tree."""
    listed = subprocess.run(
        ["git", "-c", "safe.directory=%s" % TREE, "ls-files", "--cached", "--others",
         "--exclude-standard", "*.md"], cwd=TREE, check=True, stdout=subprocess.PIPE, text=True)
    return [name for name in listed.stdout.splitlines() if (TREE / name).exists()]


@functools.lru_cache(maxsize=None)
def tokens(page):
    return markdown_it.MarkdownIt("commonmark").enable("table").parse((TREE / page).read_text())


def inline(page, kind):
    """The tokens of this kind that stand in the page's running text, tables included."""
    for token in tokens(page):
        for child in token.children or []:
            if child.type == kind:
                yield child


def anchors(page):
    """What a link to a heading of the page may be called."""
    found = []
    parsed = tokens(page)
    for opening, content in zip(parsed, parsed[1:]):
        if opening.type == "heading_open":
            text = "".join(child.content for child in content.children)
            name = re.sub(r"[^\w\- ]", "", text.lower()).replace(" ", "-")
            found.append(name + ("-%d" % found.count(name) if name in found else ""))
    return found


class Block:
    """A fenced block, with what the comment in front of it says about it."""

    def __init__(self, page, token, mark):
        self.page = page
        self.language = token.info
        self.mark = mark
        self.text = token.content
        self.line = token.map[0] + 1

    def __repr__(self):
        return "%s:%d" % (self.page, self.line)


def blocks(page):
    found = []
    mark = ""
    for token in tokens(page):
        if token.type == "fence":
            found.append(Block(page, token, mark))
        comment = re.fullmatch(r"<!-- (.*) -->\s*", token.content) \
            if token.type == "html_block" else None
        mark = comment.group(1) if comment else ""
    return found


def the_block(language="", mark=""):
    """The one block of README.md in this language with this mark."""
    found = [block for block in blocks("README.md")
             if block.language == language and block.mark.split(":")[0] == mark]
    assert len(found) == 1, "not one block: %r %r" % (language, mark)
    return found[0]


def table(page, heading):
    """The rows of all tables below a heading, each a list of its cells' tokens."""
    rows = []
    parsed = tokens(page)
    here = False
    for opening, content in zip(parsed, parsed[1:]):
        if opening.type == "heading_open" and opening.tag == "h2":
            here = content.content == heading
        elif here and opening.type == "tr_open":
            rows.append([])
        elif here and opening.type == "td_open":
            rows[-1].append(content)
    assert rows, "no table below %r in %s" % (heading, page)
    return [row for row in rows if row]


def code_in(cell):
    return [child.content for child in cell.children if child.type == "code_inline"]
