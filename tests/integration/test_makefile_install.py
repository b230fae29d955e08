# SPDX-License-Identifier: MIT
"""BIN is replaced in one step by a complete program, or not at all, and nothing is left beside it."""

import os
import signal
import subprocess

import pytest
from makefile_support import TIMEOUT, linked, wait_until

pytest_plugins = ["makefile_fixtures"]

PRINT = '#include <stdio.h>\nint main(void) {{ puts("{0}"); return 0; }}\n'
# Still runs while it is replaced, until it gets an empty line.
WAIT_FOR_INPUT = """#include <stdio.h>
int main(void) { puts("started"); fflush(stdout); return getchar() != 10; }
"""


@pytest.fixture
def built(project):
    project.write("x.c", PRINT.format("old"))
    project.make()
    project.write("x.c", PRINT.format("new"))
    return project


def shim(project, name, script):
    """Puts a script before a program on PATH; `real` is the program. Returns the environment."""
    real = subprocess.check_output(["which", name], text=True).strip()
    path = project.tool(name, f"real={real}\n{script}")
    return {"PATH": f"{path.parent}:{os.environ['PATH']}"}


def test_the_program_is_a_new_file_not_the_old_one_overwritten(built):
    kept = built.top / "kept"
    os.link(built.bin, kept)
    before = kept.read_bytes()
    built.make()
    assert kept.read_bytes() == before
    assert built.program_output() == "new\n"


def test_a_running_program_keeps_its_file(project):
    project.write("x.c", WAIT_FOR_INPUT)
    project.make()
    with subprocess.Popen([project.bin], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True) as running:
        try:
            assert running.stdout.readline() == "started\n"
            project.write("x.c", PRINT.format("new"))
            project.make()
            assert project.program_output() == "new\n"
            assert running.communicate("\n", timeout=TIMEOUT) == ("", None)
            assert running.returncode == 0
        finally:
            running.kill()


def test_a_link_in_the_place_of_the_program_is_replaced_not_followed(built):
    victim = built.top / "victim"
    victim.write_text("precious")
    built.bin.unlink()
    built.bin.symlink_to(victim)
    built.make()
    assert victim.read_text() == "precious" and not built.bin.is_symlink()


def test_an_unchanged_build_replaces_a_link_to_an_equal_program(built):
    built.make()
    other = built.bin.rename(built.top / "other")
    built.bin.symlink_to(other)
    built.make()
    assert not built.bin.is_symlink()


def test_the_temporary_file_is_one_that_nobody_can_plant(built):
    log = built.top / "log"
    built.make(env=shim(built, "mktemp", f'echo "$*" >>{log}\nexec $real "$@"\n'))
    assert f"{built.bin}.XXXXXX" in log.read_text().splitlines()
    assert built.outputs() == ["vkabin"]


@pytest.mark.parametrize("umask, mode", [(0, 0o755), (0o022, 0o755), (0o027, 0o750), (0o077, 0o700)])
def test_the_mode_follows_the_umask(built, umask, mode):
    built.make(umask=umask)
    assert built.bin.stat().st_mode & 0o7777 == mode


def test_a_linked_program_replaces_an_equal_one(built):
    built.write("x.c", PRINT.format("old"))
    before = (built.bin.read_bytes(), built.bin.stat().st_ino)
    assert not linked(built.make())
    (built.state / "program").unlink()
    assert linked(built.make())
    assert built.bin.read_bytes() == before[0]
    assert built.bin.stat().st_ino != before[1]


def test_a_missing_program_is_installed_without_linking(built):
    built.make()
    built.bin.unlink()
    assert not linked(built.make())
    assert built.program_output() == "new\n"


DAMAGES = {"contents": lambda p: p.write_text("other"), "mode": lambda p: p.chmod(0o644)}


@pytest.mark.parametrize("damage", DAMAGES)
def test_a_program_that_differs_is_replaced_without_linking(built, damage):
    built.make()
    DAMAGES[damage](built.bin)
    assert not linked(built.make())
    assert built.program_output() == "new\n"


def test_a_program_that_could_not_be_installed_is_installed_next_time(built):
    installed = built.bin.read_bytes()
    built.write("x.c", PRINT.format("old") + "\n")
    built.make_fails(env=shim(built, "mktemp", 'case $* in *vkabin*) exit 1;; esac\nexec $real "$@"\n'))
    before = built.bin.stat().st_ino
    assert not linked(built.make())
    assert built.bin.read_bytes() == installed and built.bin.stat().st_ino != before


@pytest.mark.parametrize("link", [False, True])
def test_a_directory_in_the_place_of_the_program_is_an_error(built, link):
    built.bin.unlink()
    directory = built.top / "directory" if link else built.bin
    directory.mkdir()
    if link:
        built.bin.symlink_to(directory)
    output = built.make_fails()
    assert f"{built.bin} is a directory" in output and not linked(output)
    assert list(directory.iterdir()) == []


def test_a_directory_that_appears_during_the_build_is_an_error(built):
    replace = f'case "$*" in *.c.o*) rm -f {built.bin}; mkdir -p {built.bin};; esac\n'
    compiler = built.tool("cc", 'gcc "$@" || exit\n' + replace)
    assert "is a directory" in built.make_fails(env={"CC": str(compiler)})
    assert list(built.bin.iterdir()) == [] and built.outputs() == ["vkabin"]


def test_a_missing_directory_of_the_program_is_an_error(built):
    assert "nowhere" in built.make_fails(bin=built.top / "nowhere/vkabin")


@pytest.mark.parametrize("name", ["with blank", "it's", "-x", "a;b", "(x)", "#x", "ü", "%o", "*"])
def test_any_name_of_a_program_works(built, name):
    built.bin = built.bin.parent / name
    built.make()
    assert built.program_output() == "new\n"
    assert built.outputs() == sorted([name, "vkabin"])


def test_a_relative_program_starting_with_a_dash_works(built):
    built.make(bin="-x")
    assert (built.src / "-x").exists()


@pytest.mark.parametrize("source", ["broken", "int f(void); int main(void) { return f(); }"])
def test_a_failed_build_leaves_the_old_program(built, source):
    built.write("x.c", source)
    before = built.installed()
    built.make_fails()
    assert built.installed() == before and built.outputs() == ["vkabin"]


# The programs of the installation and by what the call is known.
STEPS = {"mktemp": "*vkabin.*", "cat": ".vkabuild/program", "chmod": "*vkabin.*", "mv": "*/vkabin"}


@pytest.mark.parametrize("name", STEPS)
def test_a_failed_installation_leaves_the_old_program_and_no_other_file(built, name):
    fail = f'case $* in {STEPS[name]}) echo half; echo "no space" >&2; exit 1;; esac\n'
    assert "no space" in built.make_fails(env=shim(built, name, fail + 'exec $real "$@"\n'))
    assert built.program_output() == "old\n" and built.outputs() == ["vkabin"]


class Gate:
    """A point in a script at which it announces itself and waits for the test."""

    def __init__(self, directory):
        self.here, self.go = directory / "gate.here", directory / "gate.go"
        os.mkfifo(self.go)
        # Open for both directions, so that neither side ever waits for the other to open.
        self.descriptor = os.open(self.go, os.O_RDWR)
        self.script = f"{{ : >{self.here}; read go <{self.go}; }}"

    def reached(self):
        wait_until(self.here.exists, "the script is at the gate")

    def open(self):
        os.write(self.descriptor, b"\n")


@pytest.fixture
def gate(tmp_path):
    made = Gate(tmp_path)
    yield made
    os.close(made.descriptor)


def slow_compiler(project, gate):
    """A compiler that has written half of its output when it stops at the gate."""
    script = 'case "$*" in *" -c "*) for a; do [ "$last" = -o ] && echo half >"$a"; last=$a; done\n'
    return project.tool("cc", f'{script}{gate.script};; esac\nexec gcc "$@"\n')


@pytest.mark.parametrize("sent", [signal.SIGINT, signal.SIGTERM])
def test_an_interrupt_while_compiling_leaves_the_old_program(built, gate, sent):
    slow = slow_compiler(built, gate)
    before = built.installed()
    process = built.start(built.command(), env={"CC": str(slow)})
    gate.reached()
    os.killpg(process.pid, sent)
    process.communicate(timeout=TIMEOUT)
    assert process.returncode != 0
    assert built.installed() == before and built.outputs() == ["vkabin"]
    built.make()
    assert built.program_output() == "new\n" and list(built.state.glob("tmp*")) == []


@pytest.mark.parametrize("name", STEPS)
@pytest.mark.parametrize("sent", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP])
def test_an_interrupt_while_installing_leaves_no_other_file(built, gate, name, sent):
    stop = f'case "$*" in {STEPS[name]}) {gate.script};; esac\n'
    environment = shim(built, name, stop + 'exec $real "$@"\n')
    process = built.start(built.command(), env=environment)
    gate.reached()
    os.killpg(process.pid, sent)
    gate.open()
    process.communicate(timeout=TIMEOUT)
    assert process.returncode != 0
    assert built.program_output() == "new\n" and built.outputs() == ["vkabin"]


def test_a_killed_make_does_not_spoil_the_next_one(built, gate):
    slow = slow_compiler(built, gate)
    process = built.start(built.command(), env={"CC": str(slow)})
    gate.reached()
    os.killpg(process.pid, signal.SIGKILL)
    process.communicate(timeout=TIMEOUT)
    assert built.program_output() == "old\n" and built.outputs() == ["vkabin"]
    built.make()
    assert built.program_output() == "new\n"


def test_a_compiler_that_outlives_its_killed_make_writes_into_nothing(built, gate):
    done = built.top / "orphan.done"
    stale = built.src / "../stale.c"
    stale.write_text(PRINT.format("stale"))
    late = (
        f'case "$*" in *" -c "*) {gate.script};; *) exec gcc "$@";; esac\n'
        f'for a; do shift; [ "$a" = x.c ] && a={stale}; set -- "$@" "$a"; done\n'
        f'gcc "$@"; echo $? >{done}\n'
    )
    process = built.start(built.command(), env={"CC": str(built.tool("late", late))})
    gate.reached()
    os.kill(process.pid, signal.SIGKILL)
    process.wait(TIMEOUT)

    # The next compilation is over but not yet published when the orphan writes.
    wait = (
        'gcc "$@" || exit; case "$*" in *" -c "*)\n'
        f"echo >{gate.go}; while ! [ -e {done} ]; do sleep 0.01; done;; esac\n"
    )
    built.make(env={"CC": str(built.tool("wait", wait))})
    assert done.exists() and built.program_output() == "new\n"
