# SPDX-License-Identifier: MIT
"""A directory of sources to run the device Makefile in, with the agent's command line."""

import os
import pathlib
import shutil
import signal
import subprocess
import time

import pytest

from processes import SLOWNESS

MAKEFILE = pathlib.Path(__file__).resolve().parents[2] / "share/vka/Makefile"
MACHINE = "-march=armv7-a -mfloat-abi=hard -mthumb -mabi=aapcs-linux"
FPU = "-mfpu=vfpv3-d16"
WARNINGS = (
    "-Wp,-D_FORTIFY_SOURCE=2 -Wall -Werror -Wformat -Wformat-security -Wignored-qualifiers"
    " -Wlogical-op -Wmissing-include-dirs -Wpointer-arith -Wundef -Wuninitialized"
)
VARIABLES = {
    "VKAQVLIBDIR": "/opt/quorvel",
    "VKALIBSUBDIR": "lib",
    "VKADATADIR": "/opt/quorvel/share/vka",
    "VKACPPFLAGS": "-DBOOST_FILESYSTEM_VERSION=3 -DBOOST_NO_SCOPED_ENUMS"
    " -DBOOST_NO_CXX11_SCOPED_ENUMS -D_ATFILE_SOURCE -DHAVE_CONFIG_H -I/opt/quorvel/include"
    " -D__STDC_LIMIT_MACROS -D__STDC_CONSTANT_MACROS -D__STDC_FORMAT_MACROS -D_POSIX_THREADS"
    " -D_POSIX_THREAD_SAFE_FUNCTIONS -D_REENTRANT -D_GLIBCXX_USE_NANOSLEEP",
    "VKACFLAGS": f"-O2 -g {MACHINE} -pipe  -O3 {WARNINGS}",
    "VKACXXFLAGS": f"-O2 -g {MACHINE} -std=c++11 -pipe -fno-implement-inlines  -O3 {WARNINGS}",
    "VKALDFLAGS": " -L/opt/quorvel/lib",
    "VKAMAKEFILE": "/opt/quorvel/share/vka/Makefile",
}
TIMEOUT = 120 * SLOWNESS


def need(tool, package):
    """The path of a tool; a test without its tool fails, it never skips."""
    path = shutil.which(tool)
    if not path:
        pytest.fail(f"{tool} is missing: apt-get install {package}")
    return path


def wait_until(condition, what):
    deadline = time.monotonic() + TIMEOUT
    while not condition():
        assert time.monotonic() < deadline, f"timed out waiting until {what}"
        time.sleep(0.01)


class Project:
    """Sources in `src`, the installation's include and lib in `prefix`, the program at `bin`."""

    def __init__(self, top):
        self.top = top
        self.src = top / "src"
        self.prefix = top / "quorvel"
        self.bin = top / "out/vkabin"
        self.state = self.src / ".vkabuild"
        for directory in (self.src, self.prefix / "include", self.prefix / "lib", self.bin.parent):
            directory.mkdir(parents=True)
        self.started = []

    def write(self, name, text):
        path = self.src / name
        path.parent.mkdir(exist_ok=True)
        path.write_text(text)
        return path

    def tool(self, name, script):
        """Makes an executable shell script outside the sources and returns its path."""
        path = self.top / "tools" / name
        path.parent.mkdir(exist_ok=True)
        path.write_text("#!/bin/sh\n" + script)
        path.chmod(0o755)
        return path

    def command(self, *args, bin=None, **variables):
        values = {name: text.replace("/opt/quorvel", str(self.prefix)) for name, text in VARIABLES.items()}
        values.update(variables)
        return [
            "make", "-f", str(MAKEFILE), "-j", "2", f"BIN={bin or self.bin}",
            *(f"{name}={text}" for name, text in values.items()), *args,
        ]

    def start(self, command, env=None, umask=-1):
        """Starts make in a process group of its own; the fixture ends what is left of it."""
        environment = {"PATH": os.environ["PATH"], "HOME": str(self.top), "LC_ALL": "C.UTF-8"}
        environment.update(env or {})
        process = subprocess.Popen(
            command, cwd=self.src, env=environment, umask=umask, start_new_session=True,
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
            text=True, errors="surrogateescape",
        )
        self.started.append(process)
        return process

    def run_make(self, command, env=None, umask=-1):
        process = self.start(command, env, umask)
        output = process.communicate(timeout=TIMEOUT)[0]
        return process.returncode, output

    def make(self, *args, env=None, umask=-1, **variables):
        """Runs make, which must succeed, and returns its output."""
        status, output = self.run_make(self.command(*args, **variables), env, umask)
        assert status == 0, output
        return output

    def make_fails(self, *args, env=None, **variables):
        status, output = self.run_make(self.command(*args, **variables), env)
        assert status == 2, output
        return output

    def program_output(self):
        return subprocess.run([self.bin], capture_output=True, text=True, check=True, timeout=TIMEOUT).stdout

    def installed(self):
        """What tells one installation of the program from another; reading changes none of it."""
        stat = self.bin.stat()
        return stat.st_ino, stat.st_mtime_ns, stat.st_size, stat.st_mode

    def outputs(self):
        """The names in the program's directory: the program and whatever was forgotten there."""
        return sorted(path.name for path in self.bin.parent.iterdir())

    def end_all(self):
        for process in self.started:
            try:
                os.killpg(process.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
            process.communicate(timeout=TIMEOUT)


def compiled(output):
    """The sources that make says it compiled, sorted."""
    lines = [line.split(maxsplit=1) for line in output.splitlines() if line.startswith("  C")]
    return sorted(name for step, name in lines if step in ("CC", "CXX"))


def linked(output):
    return any(line.startswith("  LD ") for line in output.splitlines())


def made(output):
    """What make built according to its output: the sources, and whether it linked."""
    return compiled(output), linked(output)


REBUILT_ALL = (["a.c", "b.c", "main.c"], True)
NOTHING = ([], False)
