# SPDX-License-Identifier: MIT
"""A copy of the tree in which one mutant at a time is built and tested.

Each mutant costs the compilation of what includes the changed file and the linking of the test
programs that matter: what is built is kept, changed objects are put back afterwards.
"""
import hashlib
import json
import os
import pathlib
import re
import shlex
import shutil
import signal
import subprocess

import mutate

LIBRARIES = {"qvutil": "libqvutil/", "qvio": "libqvio/", "qvproc": "libqvproc/", "vka": "libvka/"}
# A mutant must take down neither the machine's memory nor the time of the run.
MEMORY_KIB = 4 << 20
PATIENCE_MS = 8000


class Failed(Exception):
    pass


def run(command, cwd, **options):
    result = subprocess.run(command, cwd=cwd, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT, text=True, errors="replace", **options)
    if result.returncode != 0:
        raise Failed("%s\n%s" % (command, result.stdout))
    return result.stdout


class Workshop:
    def __init__(self, tree, directory):
        self.tree = directory / "tree"
        self.build = directory / "build"
        self.unit = self.build / "tests/unit"
        self.limits = {}
        self.running = None
        self.put_back = sorted(path.with_suffix("") for path in directory.rglob("*.unchanged"))
        self.restore()  # what an interrupted run has left
        self.copy(tree)

    def copy(self, tree):
        """Takes what git would: no build directories. Old files keep their dates, so that nothing
        is built twice."""
        names = run(["git", "-c", "safe.directory=" + str(tree), "ls-files", "-z", "--cached",
                     "--others", "--exclude-standard"], tree).split("\0")
        for name in filter(None, names):
            source, copy = tree / name, self.tree / name
            if not source.exists():
                continue
            copy.parent.mkdir(parents=True, exist_ok=True)
            content = source.read_bytes()
            if name == "tests/support/wait.h":
                # What never comes is awaited for less long than the tests themselves would.
                content = re.sub(rb"patience\(\d+\)", b"patience(%d)" % PATIENCE_MS, content)
            if not copy.exists() or copy.read_bytes() != content:
                copy.write_bytes(content)
                shutil.copymode(source, copy)

    def prepare(self, programs, jobs):
        run(["cmake", "-S", str(self.tree), "-B", str(self.build), "-DVKA_BUILD_TESTS=ON",
             # Debug: no fortification that would see to what the sources have to see to.
             "-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_CXX_FLAGS_DEBUG=-O1",
             # Linking is much of the time: the faster linker, where there is one.
             "-DCMAKE_EXE_LINKER_FLAGS=" + ("-fuse-ld=mold" if shutil.which("mold") else ""),
             "-DCMAKE_EXPORT_COMPILE_COMMANDS=ON",
             "-G", "Unix Makefiles"], self.tree)
        run(["cmake", "--build", str(self.build), "--parallel", str(jobs), "--target"] +
            [program + "_test" for program in programs], self.tree)
        self.objects = []  # (object, command, library or program, files it needs, directory)
        for entry in json.loads((self.build / "compile_commands.json").read_text()):
            words = shlex.split(entry["command"])
            target = pathlib.Path(entry["directory"]) / words[words.index("-o") + 1]
            dependencies = pathlib.Path(str(target) + ".d")
            if not dependencies.exists() or "_layer_test.dir" in str(target):
                continue
            owner = re.search(r"/(\w+?)(?:_objects|_test)\.dir/", str(target)).group(1)
            # ccache may have made the paths relative.
            needed = {os.path.normpath(os.path.join(entry["directory"], name))
                      for name in dependencies.read_text().split()}
            self.objects.append((target, words, owner, needed, entry["directory"]))

    def close(self):
        if self.running:
            os.killpg(self.running.pid, signal.SIGKILL)

    def test(self, programs, limits):
        """Runs test programs in the sandbox until one fails.

        Returns that one's name, whether it was for the time, and how long each took.
        """
        script = "ulimit -c 0 -v %d; mkdir /tmp/run; cd /tmp/run\n" % MEMORY_KIB
        for program in programs:
            script += (
                "start=$EPOCHREALTIME\n"
                "timeout -k 1 %d %s --gtest_fail_fast >/dev/null 2>&1; status=$?\n"
                'echo "%s $status $start $EPOCHREALTIME" >&3; [ $status = 0 ] || exit 0\n'
                % (limits.get(program, 300), self.unit / (program + "_test"), program))
        # A session of its own: a mutant may signal its whole process group.
        self.running = subprocess.Popen(
            ["env", "--default-signal", str(self.tree / "scripts/sandbox.sh"), "--keep",
             str(self.build), "--", "bash", "-c", "exec 3>&1 >/dev/null 2>&1\n" + script],
            cwd=self.tree, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True,
            start_new_session=True)
        most = sum(limits.get(program, 300) for program in programs) + 60
        try:
            output = self.running.communicate(timeout=most)[0]
        except subprocess.TimeoutExpired:
            os.killpg(self.running.pid, signal.SIGKILL)
            output = self.running.communicate()[0]
        finally:
            self.running = None
        times, ended = {}, []
        for line in output.splitlines():
            program, status, start, end = line.split()
            ended.append(program)
            times[program] = float(end) - float(start)
            if status != "0":
                return program, status in ("124", "137"), times
        if ended != list(programs):  # the mutant ended the sandbox with it
            return programs[len(ended)], True, times
        return None, False, times

    def baseline(self, programs):
        """Everything has to pass unchanged; how long it takes decides on the time limits."""
        for program in programs:
            self.link(program)
        failed, _, times = self.test(programs, {})
        if failed:
            raise Failed("%s fails without any mutant" % failed)
        self.limits = {program: int(10 + 3 * seconds) for program, seconds in times.items()}

    def link(self, program):
        text = (self.unit / ("CMakeFiles/%s_test.dir/link.txt" % program)).read_text()
        run(shlex.split(text), self.unit)

    def replace(self, path):
        """Makes room for a changed version of a file; restore() puts the old one back."""
        if path not in self.put_back:
            os.rename(path, str(path) + ".unchanged")
            self.put_back.append(path)

    def restore(self):
        for path in self.put_back:
            os.replace(str(path) + ".unchanged", path)
        self.put_back = []

    def compile(self, name, owners, done):
        """Compiles what depends on the changed file. Returns whether any object came out other."""
        changed = False
        path = str(self.tree / name)
        for target, words, owner, dependencies, directory in self.objects:
            if owner not in owners or target in done or path not in dependencies:
                continue
            done.add(target)
            before = hashlib.sha256(target.read_bytes()).digest()
            self.replace(target)
            run([word for word in words if word != "ccache"], directory)
            if hashlib.sha256(target.read_bytes()).digest() == before:
                continue
            changed = True
            if owner in LIBRARIES:
                archive = self.build / ("lib%s.a" % owner)
                if archive not in self.put_back:
                    shutil.copy2(archive, str(archive) + ".copy")
                    self.replace(archive)
                    os.rename(str(archive) + ".copy", archive)
                run(["ar", "r", str(archive), str(target)], self.build)
        return changed

    def judge(self, text, mutant, programs):
        """Returns (verdict, detail): caught, timeout, survived, same-code or uncompilable."""
        source = self.tree / mutant.file
        self.replace(source)
        source.write_text(mutate.apply(text, mutant))
        done = set()
        any_changed = tested = False
        try:
            for group in (programs[:1], programs[1:]):
                worthwhile = []
                for program in group:
                    try:
                        if self.compile(mutant.file, layers_of(program), done):
                            any_changed = True
                        own = self.compile(mutant.file, {program}, done)
                        if any_changed or own:
                            self.link(program)
                            worthwhile.append(program)
                    except Failed:
                        return "uncompilable", ""
                if worthwhile:
                    tested = True
                    failed, late, _ = self.test(worthwhile, self.limits)
                    if failed:
                        return ("timeout" if late else "caught"), failed
            if not done:
                raise Failed("nothing is compiled from " + mutant.file)
            return ("survived" if tested else "same-code"), ""
        finally:
            self.restore()


def layers_of(program):
    """The libraries whose objects a test program uses: its own and those below."""
    order = list(LIBRARIES)
    if program.startswith("VKAClient"):
        return set(order)
    if program.startswith("Proc"):
        return set(order[:3])
    if program in ("QVException", "hexdump", "getTotalRam"):
        return set(order[:1])
    return set(order[:2])
