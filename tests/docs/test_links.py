# SPDX-License-Identifier: MIT
"""What the pages refer to exists. Links to other places are only looked at, never followed."""
import re
import urllib.parse

import pytest
from markdown_pages import TREE, anchors, inline, pages

DIRECTORIES = [entry.name for entry in TREE.iterdir()
               if entry.is_dir() and entry.name not in ("build", ".git")]


def targets(page):
    for token in inline(page, "link_open"):
        yield token.attrGet("href")
    for token in inline(page, "image"):
        yield token.attrGet("src")


def fault(page, target):
    """What is wrong with a link, or nothing."""
    url = urllib.parse.urlsplit(target)
    if url.scheme:
        good = url.scheme in ("http", "https") and re.fullmatch(r"[\w.-]+(:\d+)?", url.netloc)
        return None if good or url.scheme == "mailto" else "no address"
    path = TREE / page if not url.path else (TREE / page).parent / urllib.parse.unquote(url.path)
    if not path.exists():
        return "no such file"
    if TREE not in path.resolve().parents and path.resolve() != TREE:
        return "outside the tree"
    if url.fragment:
        if path.suffix != ".md":
            return "an anchor in what is no page"
        if url.fragment not in anchors(path.resolve().relative_to(TREE)):
            return "no such heading"
    return None


@pytest.mark.parametrize("page", pages())
def test_links(page):
    faults = {target: fault(page, target) for target in targets(page)}
    assert not {target: text for target, text in faults.items() if text}


# Placeholders in capitals and wildcards stand for something else.
@pytest.mark.parametrize("page", pages())
def test_files_named_in_the_text(page):
    named = {word for token in inline(page, "code_inline") for word in token.content.split()
             if word.split("/")[0] in DIRECTORIES and "/" in word
             and not re.search(r"[A-Z*{<(]", word.split("/")[-1].replace("README", "")
                               .replace("VKA", "").replace("Makefile", ""))}
    assert not [word for word in sorted(named) if not (TREE / word.rstrip(",.:")).exists()]


def test_readme_leads_to_every_page():
    """Directly, or through the pages it leads to."""
    reached, new = set(), {"README.md"}
    while new:
        reached |= new
        new = {str(path.relative_to(TREE)) for page in new for target in targets(page)
               for path in [((TREE / page).parent / target.split("#")[0]).resolve()]
               if path.suffix == ".md" and path.exists()} - reached
    assert reached == set(pages())
