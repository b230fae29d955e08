# SPDX-License-Identifier: MIT
"""On the device: its own compiler gets exactly the fixed flags and makes its kind of program."""
import pathlib
import shlex
import signal
import struct
import time

import pytest

from archives import EXAMPLES, pack, pack_directory
from makefile_support import FPU, VARIABLES
from processes import PROGRAM


@pytest.mark.parametrize("example, compiler, flags", [("calculator", "gcc", "VKACFLAGS"),
                                                      ("maze", "g++", "VKACXXFLAGS")])
def test_native_compiler_gets_the_fixed_flags(host, tmp_path, example, compiler, flags):
    archive = pack_directory(tmp_path / "example.zip", EXAMPLES / example)
    vkahost = host(archive=archive, fast=False, env={"V": "1"})
    vkahost.client()
    compilations = [line for line in vkahost.lines()
                    if line.startswith(compiler + " ") and " -c " in line]
    assert len(compilations) == len(list((EXAMPLES / example).glob("*.c*")))
    fixed = shlex.split(" ".join([compiler, "-I.", VARIABLES["VKACPPFLAGS"], VARIABLES[flags], FPU]))
    for line in compilations:
        assert shlex.split(line)[:len(fixed)] == fixed
    assert "not an ARM compiler" not in "".join(vkahost.lines())

    header = pathlib.Path(PROGRAM).read_bytes()[:52]
    assert header[:5] == b"\x7fELF\x01"  # 32 bits
    machine, flags = struct.unpack_from("<H", header, 18)[0], struct.unpack_from("<I", header, 36)[0]
    assert machine == 40  # ARM
    assert flags & 0x400  # hard-float


def build_seconds(host, archive, environment):
    started = time.monotonic()
    vkahost = host(archive=archive, fast=False, env=environment)
    vkahost.line(r"vkahost: running, console on port \d+", 900)
    seconds = time.monotonic() - started
    vkahost.signal(signal.SIGTERM)
    vkahost.wait()
    return seconds


def test_ccache_makes_a_second_build_ten_times_faster(host, tmp_path):
    """The source directory is emptied and the build starts anew, but for the cache."""
    source = ("#include <regex>\n"
              "bool part_%d(const std::string& text) {\n"
              "    return std::regex_match(text, std::regex(\"a*b\"));\n}\n")
    sources = {"part_%d.cc" % number: source % number for number in range(2)}
    sources["main.cc"] = "#include <unistd.h>\nint main() { return pause(); }\n"
    archive = pack(tmp_path / "x.zip", sources)
    environment = {"CC": "ccache gcc", "CXX": "ccache g++", "CCACHE_DIR": str(tmp_path / "cache")}
    first, second = (build_seconds(host, archive, environment) for _ in range(2))
    print("first build %.1f s, second %.1f s" % (first, second))
    assert second <= first / 10
