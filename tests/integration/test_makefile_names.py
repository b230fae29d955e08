# SPDX-License-Identifier: MIT
"""File names of sources either work or are refused by name before anything is compiled."""

import os
import string

import pytest
from makefile_support import compiled

pytest_plugins = ["makefile_fixtures"]

GOOD = string.ascii_letters + string.digits + "._+,@-"
BAD = [chr(code) for code in range(1, 128) if chr(code) not in GOOD + "/"]
MAIN = "int main(void) { return 0; }\n"


def numbered(project, names):
    """Writes one source for each name and a main that needs them all."""
    for i, name in enumerate(names):
        project.write(name, f"int f{i}(void);\nint f{i}(void) {{ return 1; }}\n")
    count = len(names)
    declarations = "".join(f"int f{i}(void);\n" for i in range(count))
    calls = " + ".join(f"f{i}()" for i in range(count))
    project.write("main.c", f"{declarations}int main(void) {{ return {calls} != {count}; }}\n")


def test_every_good_character_works_in_the_middle_and_in_front(project):
    numbered(project, [f"m{c}m.c" for c in GOOD] + [f"{c}f.c" for c in "_+,@-"] + ["f.c"] + ["--.c", "-c.c"])
    project.make()
    assert project.program_output() == ""
    assert compiled(project.make()) == []


@pytest.mark.parametrize("name", ["-x.c", "@x.c", "ü,.c"])
def test_a_change_is_seen_whatever_the_name(project, name):
    project.write(name, MAIN)
    project.write("y.c", "extern int y; int y;\n")
    project.make()
    project.write(name, MAIN + "\n")
    assert compiled(project.make()) == [name]


def test_good_characters_work_for_cxx_sources_too(project):
    project.write("-@+,.cc", "int main() { return 0; }\n")
    project.write("@file.cpp", "extern int file; int file;\n")
    project.make()
    assert project.program_output() == ""


@pytest.mark.parametrize("locale", ["C", "C.UTF-8"])
def test_names_in_utf_8_and_other_bytes_work(project, locale):
    raw = [os.fsdecode(bytes([code])) + ".c" for code in (0x80, 0x81, 0x88, 0xA0, 0xFF)]
    numbered(project, ["grüße.c", "日本.c", "é.c", *raw])
    project.make(env={"LC_ALL": locale})
    assert project.program_output() == ""
    assert compiled(project.make(env={"LC_ALL": locale})) == []


@pytest.mark.parametrize("character", BAD, ids=lambda c: f"0x{ord(c):02x}")
def test_every_other_character_is_refused_by_name(project, character):
    name = f"a{character}b.c"
    project.write("main.c", MAIN)
    project.write(name, "")
    output = project.make_fails()
    shown = name if character.isprintable() else "a?b.c"
    assert f"source '{shown}': a name may only have" in output
    assert not project.state.exists() and project.outputs() == []


@pytest.mark.parametrize(
    "name", [" a.c", "\na.c", "~.cc", "*.cpp", "a b.cxx", "$(shell touch pwned).c", "`touch pwned`.c"]
)
def test_bad_names_are_refused_in_front_and_for_each_suffix(project, name):
    project.write("main.c", MAIN)
    project.write(name, "")
    assert f"source '{name}'".replace("\n", "?") in project.make_fails()
    assert sorted(os.listdir(project.src)) == sorted(["main.c", name])


def test_odd_names_of_other_files_do_no_harm(project):
    project.write("main.c", MAIN)
    for name in ("read me.txt", "a\nb", "$(x)", "back\\slash", "-rf", "'", '"', "tab\t.h", ".c"):
        project.write(name, name)
    assert compiled(project.make()) == ["main.c"]
    assert compiled(project.make()) == []


def test_a_directory_named_like_a_source_is_refused(project):
    project.write("main.c", MAIN)
    (project.src / "foo.c").mkdir()
    assert "source 'foo.c' is not a file" in project.make_fails()


def test_a_dangling_link_is_refused(project):
    project.write("main.c", MAIN)
    (project.src / "foo.cc").symlink_to("nowhere")
    assert "source 'foo.cc' is not a file" in project.make_fails()


def test_a_fifo_is_refused_and_not_read(project):
    project.write("main.c", MAIN)
    os.mkfifo(project.src / "foo.cpp")
    assert "source 'foo.cpp' is not a file" in project.make_fails()


def test_links_to_files_are_sources_and_special_files_are_not_read(project):
    (project.top / "real").write_text(MAIN)
    (project.src / "main.c").symlink_to("../real")
    os.mkfifo(project.src / "fifo.h")
    (project.src / "endless").symlink_to("/dev/zero")
    (project.src / "loop").symlink_to("loop")
    (project.src / "up").symlink_to("..")
    project.make()
    assert project.program_output() == ""


def test_hidden_files_are_no_sources(project):
    project.write("main.c", MAIN)
    project.write("._main.c", "\0 resource fork")
    assert compiled(project.make()) == ["main.c"]
