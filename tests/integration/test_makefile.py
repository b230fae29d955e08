# SPDX-License-Identifier: MIT
"""The device Makefile builds one program from whatever sources an archive holds."""

import subprocess

import pytest
from makefile_support import MACHINE, VARIABLES, compiled, linked

pytest_plugins = ["makefile_fixtures"]

MAIN = '#include <stdio.h>\nint main(void) { puts("ready"); return 0; }\n'
CXX_MAIN = '#include <iostream>\nint main() { std::cout << "ready" << std::endl; }\n'


@pytest.mark.parametrize("name", ["x.c", "x.cc", "x.cpp", "x.cxx"])
def test_a_source_of_each_kind_becomes_the_program(project, name):
    project.write(name, MAIN if name == "x.c" else CXX_MAIN)
    output = project.make()
    assert compiled(output) == [name]
    assert project.program_output() == "ready\n"


def test_sources_that_differ_only_in_their_suffix_are_all_linked(project):
    for suffix in ("cc", "cpp", "cxx"):
        project.write(f"x.{suffix}", f'extern "C" int {suffix}() {{ return 1; }}\n')
    declarations = "int cc(void), cpp(void), cxx(void);\n"
    project.write("x.c", declarations + "int main(void) { return cc() + cpp() + cxx() - 3; }\n")
    project.make()
    assert project.program_output() == ""


@pytest.mark.parametrize("name, driver", [("extra.c", "the-cc"), ("extra.cc", "the-cxx")])
def test_the_cxx_driver_links_when_there_is_any_cxx_source(project, name, driver):
    project.write("x.c", MAIN)
    project.write(name, "extern int extra; int extra;\n")
    cc, cxx = project.tool("the-cc", 'exec gcc "$@"'), project.tool("the-cxx", 'exec g++ "$@"')
    output = project.make("V=1", env={"CC": str(cc), "CXX": str(cxx)})
    link = [line for line in output.splitlines() if " -o " in line and " -c " not in line]
    assert [line.split()[0] for line in link] == [str(project.top / "tools" / driver)]


def test_each_language_is_compiled_with_its_flags_in_their_order(project):
    project.write("x.c", MAIN)
    project.write("y.cc", "extern int y; int y;\n")
    accept_all = 'for a; do shift; case $a in -march=*|-m*) ;; *) set -- "$@" "$a";; esac; done; exec %s "$@"'
    cc, cxx = project.tool("cc", accept_all % "gcc"), project.tool("cxx", accept_all % "g++")
    output = project.make("V=1", env={"CC": str(cc), "CXX": str(cxx)})
    for flags in ("VKACFLAGS", "VKACXXFLAGS"):
        expected = " ".join(VARIABLES["VKACPPFLAGS"].split() + VARIABLES[flags].split())
        expected = expected.replace("/opt/quorvel", str(project.prefix))
        assert expected in " ".join(output.split())


def test_warnings_of_the_fixed_flags_fail_the_build(project):
    project.write("x.c", "int main(void) { int unused; return 0; }\n")
    assert "unused-variable" in project.make_fails()
    assert project.outputs() == []


def test_headers_and_libraries_of_the_installation_are_found(project):
    (project.prefix / "include/answer.h").write_text("int answer(void);\n")
    library = project.prefix / "lib/libanswer.so"
    compile_library = ["gcc", "-shared", "-Wl,-soname,libanswer.so", "-o", library, "-x", "c", "-"]
    subprocess.run(compile_library, input=b"int answer(void) { return 42; }\n", check=True)
    project.write("x.c", "#include <answer.h>\nint main(void) { return answer() - 42; }\n")
    project.write("vka.mk", "LDLIBS += -lanswer\n")
    project.make()
    environment = {"LD_LIBRARY_PATH": str(project.prefix / "lib")}
    assert subprocess.run([project.bin], env=environment, timeout=60).returncode == 0


def test_the_archives_own_config_header_is_found(project):
    project.write("config.h", "#define FROM_ARCHIVE 7\n")
    guarded = "#ifdef HAVE_CONFIG_H\n#include <config.h>\n#endif\n"
    project.write("x.c", guarded + "int main(void) { return FROM_ARCHIVE - 7; }\n")
    project.make()
    assert project.program_output() == ""


def test_the_libraries_stand_behind_the_objects(project):
    project.write("x.c", MAIN)
    project.write("vka.mk", "LDLIBS += -lrt\n")
    link = [line for line in project.make("V=1").splitlines() if "-lm" in line]
    assert len(link) == 1
    assert ".vkabuild/x.c.o -lrt -lm -lpthread" in link[0]


def test_mathematics_and_threads_are_linked(project):
    project.write(
        "x.c",
        "#include <math.h>\n#include <pthread.h>\n"
        "static void *run(void *p) { *(double *)p = cos(*(double *)p); return p; }\n"
        "int main(void) { pthread_t t; double x = 0; pthread_create(&t, 0, run, &x); pthread_join(t, 0);"
        " return x != 1; }\n",
    )
    project.make()
    assert project.program_output() == ""


def test_no_sources_is_an_error_that_leaves_the_old_program(project):
    project.bin.write_text("old")
    project.write("sub/x.c", MAIN)
    project.write("x.h", "")
    output = project.make_fails()
    assert "no C or C++ sources" in output and str(project.src) in output
    assert project.bin.read_text() == "old"


@pytest.mark.parametrize("bin", [[], ["BIN="], ["BIN= "]])
def test_the_program_must_be_named_on_the_command_line(project, bin):
    project.write("x.c", MAIN)
    command = [word for word in project.command() if not word.startswith("BIN=")] + bin
    status, output = project.run_make(command, env={"BIN": str(project.bin)})
    assert status == 2
    assert "BIN=PATH must be given on the command line" in output
    assert project.outputs() == []


@pytest.mark.parametrize("option", ["-i", "-t"])
def test_options_that_hide_failures_are_refused(project, option):
    project.write("x.c", "broken\n")
    assert option in project.make_fails(option)
    assert option in project.make_fails(env={"MAKEFLAGS": option})
    assert project.outputs() == []


def test_vka_mk_cannot_change_the_goal_or_our_variables(project):
    project.write("x.c", MAIN)
    variables = "link := false\nobjects := none\nquiet := false\nbin := none\n"
    project.write("vka.mk", "wrong:\n\t@echo wrong goal\n" + variables)
    assert "wrong" not in project.make()
    assert project.program_output() == "ready\n"


def test_libraries_from_the_environment_are_not_linked(project):
    project.write("x.c", MAIN)
    project.make(env={"LDLIBS": "-lnonesuch"})


@pytest.mark.parametrize("name", ["Makefile", "GNUmakefile", "makefile", "all", "link"])
def test_a_file_of_the_archive_does_not_disturb_make(project, name):
    project.write("x.c", MAIN)
    project.write(name, "all:\n\t@echo wrong; false\n")
    assert "wrong" not in project.make()
    assert project.program_output() == "ready\n"


def test_objects_are_not_searched_elsewhere(project):
    project.write("x.c", MAIN)
    elsewhere = project.top / "elsewhere/.vkabuild"
    elsewhere.mkdir(parents=True)
    (elsewhere / "x.c.o").write_text("no object")
    assert compiled(project.make(env={"VPATH": str(elsewhere.parent)})) == ["x.c"]


def test_built_in_rules_are_off(project):
    project.write("x.c", MAIN)
    output = project.make("-p")
    assert "%.o: %.c" not in output and "COMPILE.c =" not in output


def test_one_short_line_for_each_step(project):
    project.write("x.c", MAIN)
    project.write("y.cc", "extern int y; int y;\n")
    steps = [line for line in project.make().splitlines() if MACHINE not in line]
    assert sorted(steps) == ["  CC    x.c", "  CXX   y.cc", "  LD    vkabin"]


@pytest.mark.parametrize("on_command_line", [True, False])
def test_full_commands_under_v_1(project, on_command_line):
    project.write("x.c", MAIN)
    output = project.make("V=1") if on_command_line else project.make(env={"V": "1"})
    commands = [line for line in output.splitlines() if line.startswith("gcc ")]
    assert len(commands) == 2 and "-DHAVE_CONFIG_H" in commands[0] and "-lpthread" in commands[1]
    assert compiled(output) == [] and not linked(output)


# Two compilers that print in turn, each waiting for the other's line: without
# output-sync their lines are sure to alternate.
TALKERS = """
for last; do :; done
case "$*" in *" -c "*) ;; *) exec gcc "$@";; esac
case $last in a.c) other=b.c ;; *) other=a.c ;; esac
for i in 1 2 3 4 5; do
    echo "$last: error $i" >&2
    : >%(dir)s/$last.$i
    tries=0
    until [ -e %(dir)s/$other.$i ]; do
        sleep 0.05; tries=$((tries + 1))
        [ $tries -lt 600 ] || { echo "$last: nobody runs beside" >&2; break; }
    done
done
exit 1
"""


def test_output_of_two_jobs_does_not_interleave(project):
    project.write("a.c", "")
    project.write("b.c", "")
    talker = project.tool("talker", TALKERS % {"dir": project.top})
    output = project.make_fails("-k", env={"CC": str(talker)})
    lines = [line for line in output.splitlines() if ": error " in line]
    blocks = [[f"{name}: error {i}" for i in range(1, 6)] for name in ("a.c", "b.c")]
    assert lines in (blocks[0] + blocks[1], blocks[1] + blocks[0])


def test_two_hundred_sources(project):
    for i in range(199):
        project.write(f"f{i}.c", f"int f{i}(void);\nint f{i}(void) {{ return {i}; }}\n")
    calls = " + ".join(f"f{i}()" for i in range(199))
    declarations = "".join(f"int f{i}(void);\n" for i in range(199))
    project.write("x.c", f"{declarations}int main(void) {{ return {calls} != {sum(range(199))}; }}\n")
    project.make()
    assert project.program_output() == ""
    assert compiled(project.make()) == []


def test_a_source_directory_with_an_unusual_name(project):
    odd = project.src / "it's a (dir) #1; 50%"
    odd.mkdir()
    project.src = odd
    project.write("x.c", MAIN)
    project.make()
    assert project.program_output() == "ready\n"
    assert compiled(project.make()) == []


def test_the_agents_shell_command_works(project):
    project.write("x.c", MAIN)
    def quoted(word):
        return word.replace("=", '="', 1) + '"' if word.startswith("VKA") else word

    line = " ".join(map(quoted, project.command())) + " 2>&1"
    status, output = project.run_make(["/bin/sh", "-c", line])
    assert status == 0, output
    assert project.program_output() == "ready\n"


def test_progress_counts_what_is_compiled(built):
    built.write("a.h", "#define A 2\n")
    told = built.top / "told"
    shell = ["sh", "-c", f'exec "$@" 5>"{told}"', "sh", *built.command()]
    assert built.run_make(shell, env={"VKAPROGRESS": "5"})[0] == 0
    assert told.read_text() == "[1/1] a.c\n"
    built.write("d.cc", "int d;\n")
    built.write("proto.h", "int a(void), b(void), d(void);\n")
    assert built.run_make(shell, env={"VKAPROGRESS": "5"})[0] == 0
    assert sorted(told.read_text().splitlines()) == [
        "[1/4] a.c", "[2/4] b.c", "[3/4] main.c", "[4/4] d.cc"]


@pytest.mark.parametrize("how", ['"$@" 5>&-', '"$@" 5>/dev/full', '"$@" 5>&1 >/dev/null | exec true'])
def test_progress_that_nobody_takes_is_no_failure(built, how):
    built.write("a.h", "#define A 2\n")
    command = ["sh", "-c", how, "sh", *built.command()]
    assert built.run_make(command, env={"VKAPROGRESS": "5"})[0] == 0
    assert built.program_output() == "2 1\n"
