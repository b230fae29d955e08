# SPDX-License-Identifier: MIT
"""The file map of doc/design.md is complete, and names nothing that is gone."""
import pathlib
import subprocess

import pytest
from markdown_pages import TREE, code_in, table

# Of these each file or its directory is named, of tests each directory.
BY_FILE = (".ci", "cmake", "host", "libqvio", "libqvproc", "libqvutil", "libvka", "packaging",
           "scripts", "share")
UNTOLD = {"CMakeLists.txt"}


def files():
    listed = subprocess.run(
        ["git", "-c", "safe.directory=%s" % TREE, "ls-files", "--cached", "--others",
         "--exclude-standard"], cwd=TREE, check=True, stdout=subprocess.PIPE, text=True)
    return [pathlib.Path(name) for name in listed.stdout.splitlines() if (TREE / name).exists()]


def file_map():
    """(directory, [name]) for each row; the directory stands in the first of its rows only."""
    directory = None
    for row in table("doc/design.md", "Files"):
        directory = (code_in(row[0]) or [directory])[0]
        yield directory, code_in(row[1]) + code_in(row[2])


def told():
    return {(directory.split("/")[0], name) for directory, names in file_map() for name in names}


@pytest.mark.parametrize("top", sorted({path.parts[0] for path in files() if len(path.parts) > 1}))
def test_map_is_complete(top):
    names = {name for directory, name in told() if directory == top}
    assert top in {directory.split("/")[0] for directory, _ in file_map()}
    missing = set()
    for path in files():
        if path.parts[0] != top or path.name in UNTOLD:
            continue
        if top in BY_FILE:
            if not {path.stem, *path.parts[1:]} & names:
                missing.add(str(path))
        elif len(path.parts) > 2 and top == "tests" and path.parts[1] not in names:
            missing.add(str(path.parent))
    assert not missing


@pytest.mark.parametrize("directory,names", file_map())
def test_map_names_what_exists(directory, names):
    below = [path for path in files() if str(path).startswith(directory + "/")]
    assert below
    known = {part for path in below for part in (*path.parts, path.stem)}
    assert not [name for name in names
                if name[0].islower() and "." in name and "*" not in name
                and name not in known and not (TREE / name).exists()]
