# SPDX-License-Identifier: MIT
"""CC and CXX are honoured, and the processor flags fit the compiler they name."""

import os
import re
import subprocess

import pytest
from makefile_support import FPU, MACHINE, compiled, need

pytest_plugins = ["makefile_fixtures"]

C_MAIN = "int main(void) { return 0; }\n"
CXX_MAIN = "#include <string>\nint main(int, char** argv) { return std::string(argv[0]).empty(); }\n"
LEFT_OUT = f"not an ARM compiler, leaving out {MACHINE}"
# Takes the options that an ARM compiler without the FPU question takes.
ACCEPTS_PLAIN = 'for a; do shift; [ "$a" = -march=armv7-a ] || set -- "$@" "$a"; done\nexec %s "$@"\n'
# $1 machine, $2 the option that is always refused, $3 the compiler behind.
REFUSES = """
case "$*" in -dumpmachine) echo %s; exit;; *%s*) echo "refused: $*" >&2; exit 1;; esac
exec %s "$@"
"""


def arm(language):
    package = {"gcc": "gcc-arm-linux-gnueabihf", "g++": "g++-arm-linux-gnueabihf"}[language]
    return need(f"arm-linux-gnueabihf-{language}", package)


def commands(output):
    return [line for line in output.splitlines() if " -o " in line]


def write_both(project):
    project.write("x.c", "extern int x; int x;\n")
    project.write("main.cc", CXX_MAIN)


def is_hard_float_arm(program):
    header = subprocess.check_output(["readelf", "-h", "-A", program], text=True)
    patterns = ("Machine: +ARM", "hard-float ABI", "Tag_CPU_arch: v7", "Tag_ABI_VFP_args: VFP registers")
    return all(re.search(pattern, header) for pattern in patterns)


def test_a_cross_compiler_builds_a_hard_float_program(project):
    write_both(project)
    output = project.make("V=1", env={"CC": arm("gcc"), "CXX": arm("g++")})
    assert is_hard_float_arm(project.bin)
    assert len(commands(output)) == 3
    assert all(MACHINE in line for line in commands(output))


def test_the_fpu_is_named_where_the_plain_flags_are_refused(project):
    for tool, language in ((arm("gcc"), "c"), (arm("g++"), "c++")):
        plain = [tool, *MACHINE.split(), "-E", "-x", language, "/dev/null"]
        assert subprocess.run(plain, capture_output=True).returncode, "this compiler proves nothing"
    write_both(project)
    output = project.make("V=1", env={"CC": arm("gcc"), "CXX": arm("g++")})
    assert all(FPU in line for line in commands(output)) and LEFT_OUT not in output


def test_no_fpu_is_named_where_the_plain_flags_are_accepted(project):
    write_both(project)
    plain = {"CC": str(project.tool("cc", ACCEPTS_PLAIN % arm("gcc")))}
    plain["CXX"] = str(project.tool("cxx", ACCEPTS_PLAIN % arm("g++")))
    output = project.make("V=1", env=plain)
    assert len(commands(output)) == 3
    assert all(MACHINE in line and FPU not in line for line in commands(output))
    assert is_hard_float_arm(project.bin)


def test_each_compiler_is_judged_for_itself(project):
    write_both(project)
    plain = str(project.tool("cc", ACCEPTS_PLAIN % arm("gcc")))
    c, cxx, link = commands(project.make("V=1", "-j1", env={"CC": plain, "CXX": arm("g++")}))
    assert (FPU in c, FPU in cxx, FPU in link) == (False, True, True)


def test_a_compiler_for_another_processor_goes_without_the_machine_flags(project):
    write_both(project)
    for name, behind in (("cc", "gcc"), ("cxx", "g++")):
        project.tool(name, REFUSES % ("riscv64-linux-gnu", "-march=armv7-a", behind))
    tools = {"CC": str(project.top / "tools/cc"), "CXX": str(project.top / "tools/cxx")}
    output = project.make("V=1", env=tools)
    assert output.splitlines().count(LEFT_OUT) == 1
    for line in commands(output):
        assert not any(flag in line.split() for flag in (*MACHINE.split(), FPU))
        assert "-O3" in line and "-Werror" in line


def test_an_arm_compiler_never_loses_the_machine_flags(project):
    project.write("main.c", C_MAIN)
    stubborn = project.tool("cc", REFUSES % ("arm-none-eabi", "-mthumb", "gcc"))
    output = project.make_fails(env={"CC": str(stubborn)})
    assert f"the compiler '{stubborn}' does not work: refused: {MACHINE}" in output
    assert compiled(output) == []


@pytest.mark.parametrize("broken", ["nonesuch", "false"])
def test_a_compiler_that_does_not_work_is_an_error(project, broken):
    project.write("main.c", C_MAIN)
    output = project.make_fails(env={"CC": broken})
    assert f"the compiler '{broken}' does not work: " in output
    assert broken == "false" or re.search("does not work: .*nonesuch: .*not found", output)


@pytest.mark.parametrize("name, unused", [("main.c", "CXX"), ("main.cc", "CC")])
def test_a_compiler_without_sources_is_not_asked(project, name, unused):
    project.write(name, C_MAIN.replace("void", ""))
    project.make(env={unused: "nonesuch"}, VKACFLAGS="-O2", VKACXXFLAGS="-O2")


@pytest.mark.parametrize("environment", [{}, {"CC": "", "CXX": " "}])
def test_gcc_is_the_default(project, environment):
    write_both(project)
    words = [line.split()[0] for line in commands(project.make("V=1", env=environment))]
    assert sorted(words) == ["g++", "g++", "gcc"]


def test_compilers_on_the_command_line_win(project):
    project.write("main.c", C_MAIN)
    mine = project.tool("mine", 'exec gcc "$@"\n')
    output = project.make("V=1", f"CC={mine}", env={"CC": "nonesuch"})
    assert all(line.startswith(str(mine)) for line in commands(output))


def test_a_launcher_before_the_compiler_works(project):
    write_both(project)
    log = project.top / "log"
    launcher = project.tool("distcc", f'echo "$*" >>{log}\nexec "$@"\n')
    project.make(env={"CC": f"{launcher} gcc", "CXX": f"{launcher} g++"})
    launched = [line.split()[0] for line in log.read_text().splitlines() if " -o " in line]
    assert sorted(launched) == ["g++", "g++", "gcc"]


def test_ccache_serves_the_second_build(project):
    need("ccache", "ccache")
    write_both(project)
    environment = {"CC": "ccache gcc", "CXX": "ccache g++", "CCACHE_DIR": str(project.top / "cache")}
    project.make(env=environment)
    project.state.rename(project.top / "thrown away")
    assert compiled(project.make(env=environment)) == ["main.cc", "x.c"]
    ask = {"CCACHE_DIR": environment["CCACHE_DIR"], "PATH": os.environ["PATH"]}
    statistics = subprocess.check_output(["ccache", "--print-stats"], env=ask, text=True)
    counts = dict(line.split() for line in statistics.splitlines())
    assert int(counts["direct_cache_hit"]) + int(counts["preprocessed_cache_hit"]) == 2
    assert project.bin.exists()


def test_the_probe_asks_once_when_the_plain_flags_are_accepted(project):
    project.write("main.c", C_MAIN)
    log = project.top / "log"
    counting = f'case "$*" in *" -E "*) echo "$*" >>{log};; esac\n' + ACCEPTS_PLAIN % arm("gcc")
    project.make(env={"CC": str(project.tool("cc", counting))})
    assert log.read_text().splitlines() == [f"{MACHINE} -E -x c /dev/null"]
