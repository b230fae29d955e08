# SPDX-License-Identifier: MIT
"""Calling make again rebuilds just what changed, judged by contents and never by dates."""

import os
import shutil
import subprocess

import pytest
from makefile_support import NOTHING, REBUILT_ALL, compiled, linked, made

pytest_plugins = ["makefile_fixtures"]

PAST, FUTURE = 315532800, 2145916800  # 1980 and 2038, which 32 bits can tell


def replace_keeping_dates(path, old, new):
    """Changes the contents but neither the size nor the dates."""
    before = path.stat()
    assert len(old) == len(new) and old in path.read_text()
    path.write_text(path.read_text().replace(old, new))
    os.utime(path, ns=(before.st_atime_ns, before.st_mtime_ns))


def test_nothing_is_rebuilt_without_a_change(built):
    before = built.installed()
    assert made(built.make()) == NOTHING
    assert built.installed() == before


@pytest.mark.parametrize("date", [PAST, FUTURE])
def test_dates_alone_rebuild_nothing(built, date):
    for path in [*built.src.iterdir(), *built.state.glob("*.c.*")]:
        os.utime(path, (date, date))
    os.utime(built.state / "program", (PAST, PAST))
    output = built.make()
    assert made(output) == NOTHING
    assert "Clock skew" not in output


@pytest.mark.parametrize("of_sources, of_objects", [(PAST, FUTURE), (FUTURE, PAST)])
def test_a_changed_source_is_compiled_whatever_the_dates(built, of_sources, of_objects):
    built.write("a.c", '#include "proto.h"\nint a(void) { return 5; }\n')
    for path in built.src.glob("*.[ch]"):
        os.utime(path, (of_sources, of_sources))
    for path in [*built.state.glob("*.o"), built.state / "program", built.bin]:
        os.utime(path, (of_objects, of_objects))
    assert made(built.make()) == (["a.c"], True)
    assert built.program_output() == "5 1\n"


def test_a_change_of_contents_alone_is_seen(built):
    replace_keeping_dates(built.src / "a.h", "A 1", "A 2")
    assert made(built.make()) == (["a.c"], True)
    assert built.program_output() == "2 1\n"


def test_a_changed_header_rebuilds_those_that_include_it(built):
    built.write("proto.h", "int a(void), b(void), c(void);\n")
    assert made(built.make()) == REBUILT_ALL
    built.write("a.h", "#define A 7\n")
    assert made(built.make()) == (["a.c"], True)
    assert built.program_output() == "7 1\n"


def test_an_installed_header_is_tracked_from_the_first_build_on(built):
    replace_keeping_dates(built.prefix / "include/outside.h", "1", "3")
    assert made(built.make()) == (["b.c"], True)
    assert built.program_output() == "1 3\n"
    assert made(built.make()) == NOTHING


def test_headers_below_a_system_header_are_tracked(built):
    built.write("system.h", '#pragma GCC system_header\n#include "deep.h"\n')
    built.write("deep.h", "#define DEEP 1\n")
    built.write("a.c", '#include "system.h"\n#include "proto.h"\nint a(void) { return DEEP; }\n')
    built.write("b.c", '#include "deep.h"\n#include "proto.h"\nint b(void) { return DEEP; }\n')
    built.make()
    built.write("deep.h", "#define DEEP 6\n")
    assert made(built.make()) == (["a.c", "b.c"], True)
    assert built.program_output() == "6 6\n"


ODD_NAMES = ["my header.h", "a#b.h", "a$b.h", "a$$b.h", "a\\ b.h", "-a.h", "ü.h", "sub/./a.h", "sub/../sub/a.h"]


@pytest.mark.parametrize("name", ODD_NAMES)
def test_headers_with_odd_names_are_tracked(built, name):
    (built.src / "sub").mkdir()
    built.write(name, "#define ODD 1\n")
    built.write("a.c", f'#include "{name}"\n#include "proto.h"\nint a(void) {{ return ODD; }}\n')
    built.make()
    assert made(built.make()) == NOTHING
    built.write(name, "#define ODD 8\n")
    assert "a.c" in compiled(built.make())
    assert built.program_output() == "8 1\n"


@pytest.mark.parametrize("name", ["a'b.h", "a\\b.h"])
def test_a_header_that_cannot_be_tracked_compiles_its_user_each_time(built, name):
    header = built.prefix / "include" / name
    header.write_text("#define ODD 1\n")
    built.write("a.c", f'#include <{name}>\n#include "proto.h"\nint a(void) {{ return ODD; }}\n')
    built.make()
    header.write_text("#define ODD 8\n")
    assert made(built.make()) == (["a.c"], True)
    assert built.program_output() == "8 1\n"
    assert made(built.make()) == (["a.c"], True)


def test_an_added_source_is_compiled_alone(built):
    built.write("c.c", "extern int c; int c;\n")
    assert made(built.make()) == (["c.c"], True)


def test_a_removed_source_leaves_the_program(built):
    (built.src / "b.c").unlink()
    assert "undefined reference to `b'" in built.make_fails()
    built.write("b2.c", '#include "proto.h"\nint b(void) { return 9; }\n')
    assert made(built.make()) == (["b2.c"], True)
    assert built.program_output() == "1 9\n"


def test_a_source_that_comes_back_is_compiled_again(built):
    old = (built.src / "b.c").rename(built.top / "b.c")
    built.make_fails()
    built.write("b.c", old.read_text().replace("OUTSIDE;", "4;"))
    assert made(built.make()) == (["b.c"], True)
    assert built.program_output() == "1 4\n"


def test_an_added_header_that_hides_another_is_found(built):
    built.write("outside.h", "#define OUTSIDE 2\n")
    assert made(built.make()) == REBUILT_ALL
    assert built.program_output() == "1 2\n"


def test_a_removed_header_is_missed(built):
    (built.src / "a.h").unlink()
    assert "a.h" in built.make_fails()


def test_a_removed_header_uncovers_another(built):
    built.write("outside.h", "#define OUTSIDE 2\n")
    built.make()
    (built.src / "outside.h").unlink()
    built.make()
    assert built.program_output() == "1 1\n"


def test_a_header_that_was_only_asked_for_counts_when_it_goes(built):
    built.write("option.h", "")
    built.write(
        "a.c",
        '#include "proto.h"\n#if __has_include("option.h")\nint a(void) { return 2; }\n'
        "#else\nint a(void) { return 3; }\n#endif\n",
    )
    built.make()
    assert built.program_output() == "2 1\n"
    (built.src / "option.h").unlink()
    built.make()
    assert built.program_output() == "3 1\n"


def test_a_file_that_no_dependency_list_names_is_tracked(built):
    built.write("data.txt", "4")
    built.write(
        "a.c",
        '#include "proto.h"\nextern const char data[];\n'
        '__asm__(".section .rodata\\n.globl data\\ndata: .incbin \\"data.txt\\"\\n.previous");\n'
        "int a(void) { return data[0] - '0'; }\n",
    )
    built.make()
    assert built.program_output() == "4 1\n"
    built.write("data.txt", "5")
    built.make()
    assert built.program_output() == "5 1\n"


def test_what_a_removed_source_included_explains_no_later_change(built):
    text = (built.src / "b.c").read_text()
    built.write("b.c", '#include "data.h"\n' + text)
    built.write("data.h", "// 4")
    built.write(
        "a.c",
        '#include "proto.h"\nextern const char data[];\n'
        '__asm__(".section .rodata\\n.globl data\\ndata: .incbin \\"data.h\\"\\n.previous");\n'
        "int a(void) { return data[3] - '0'; }\n",
    )
    built.make()
    (built.src / "b.c").unlink()
    built.write("b2.c", text)
    built.make()
    built.write("data.h", "// 5")
    built.make()
    assert built.program_output() == "5 1\n"


def test_dependency_lists_may_name_files_from_the_current_directory_on(built):
    """As Clang does for sources that are given so."""
    change = 'for a; do [ "$last" = -MF ] && sed -i "s| \\([^ ]\\)| ./\\1|g" "$a"; last=$a; done\n'
    compiler = {"CC": str(built.tool("cc", 'gcc "$@" || exit\n' + change))}
    built.make(env=compiler)
    assert " ./" not in (built.state / "a.c.sum").read_text()
    built.write("a.c", '#include "proto.h"\nint a(void) { return 6; }\n')
    built.write("b.c", '#include "proto.h"\nint b(void) { return 6; }\n')
    assert made(built.make(env=compiler)) == (["a.c", "b.c"], True)


@pytest.mark.parametrize("variable", ["VKACPPFLAGS", "VKACFLAGS"])
def test_changed_flags_compile_everything(built, variable):
    flags = {variable: "-O1 -I" + str(built.prefix / "include")}
    assert made(built.make(**flags)) == REBUILT_ALL
    assert made(built.make(**flags)) == NOTHING


def test_changed_link_flags_only_link(built):
    assert made(built.make(VKALDFLAGS="-Wl,-O1")) == ([], True)


def test_changed_libraries_in_vka_mk_link(built):
    built.write("vka.mk", "")
    built.make()
    built.write("vka.mk", "LDLIBS += -lrt\n")
    assert linked(built.make())
    assert made(built.make()) == NOTHING


def test_another_version_of_the_compiler_compiles_everything(built):
    script = 'if [ "$1" = --version ]; then echo version %d; else exec gcc "$@"; fi'
    compiler = {"CC": str(built.tool("cc", script % 1))}
    assert made(built.make(env=compiler)) == REBUILT_ALL
    assert made(built.make(env=compiler)) == NOTHING
    built.tool("cc", script % 2)
    assert made(built.make(env=compiler)) == REBUILT_ALL


def test_search_paths_of_the_environment_count(built):
    assert made(built.make(env={"CPATH": str(built.top)})) == REBUILT_ALL
    assert made(built.make(env={"CPATH": str(built.top), "LIBRARY_PATH": str(built.top)})) == ([], True)


def test_another_makefile_compiles_everything(built):
    newer = built.top / "Makefile"
    command = built.command()
    shutil.copy(command[2], newer)
    command[2] = str(newer)
    assert made(built.run_make(command)[1]) == NOTHING
    newer.write_text(newer.read_text() + "\n# newer\n")
    assert made(built.run_make(command)[1]) == REBUILT_ALL


def test_a_changed_static_library_links_again(built):
    def make_library(value):
        member = built.top / "l.o"
        compile_member = ["gcc", "-c", "-o", member, "-x", "c", "-"]
        subprocess.run(compile_member, input=f"int l = {value};", text=True, check=True)
        subprocess.run(["ar", "rc", built.prefix / "lib/libl.a", member], check=True)

    make_library(1)
    built.write("a.c", '#include "proto.h"\nextern int l;\nint a(void) { return l; }\n')
    built.write("vka.mk", "LDLIBS += -ll\n")
    built.make()
    make_library(2)
    assert made(built.make()) == ([], True)
    assert built.program_output() == "2 1\n"


def test_a_failed_compilation_is_done_again_alone(built):
    built.write("a.h", "broken\n")
    built.make_fails()
    assert built.program_output() == "1 1\n"
    built.write("a.h", "#define A 3\n")
    assert made(built.make()) == (["a.c"], True)
    built.write("b.c", "broken\n")
    built.make_fails()
    built.make_fails()
    built.write("b.c", '#include "proto.h"\nint b(void) { return 3; }\n')
    assert made(built.make()) == (["b.c"], True)
    assert built.program_output() == "3 3\n"


def test_a_user_of_a_header_is_not_compiled_again_while_another_fails(built):
    built.write("proto.h", "int a(void), b(void), broken;\n")
    built.write("a.c", '#include "proto.h"\nint a(void) { return broken_too; }\n')
    assert "b.c" in compiled(built.make_fails("-k"))
    assert compiled(built.make_fails("-k")) == ["a.c"]


def test_a_source_that_changes_while_it_is_compiled_is_compiled_again(built):
    old = '#include "proto.h"\nint a(void) { return 2; }\n'
    new = built.write("new", old.replace("2", "8"))
    built.write("a.c", old)
    save = f'case "$*" in *" -c "*a.c) cat {new} >{built.src}/a.c;; esac\n'
    saving = built.tool("cc", 'gcc "$@" || exit\n' + save)
    built.make(env={"CC": str(saving)})
    assert built.program_output() == "2 1\n"
    assert "a.c" in compiled(built.make(env={"CC": str(saving)}))
    assert built.program_output() == "8 1\n"
