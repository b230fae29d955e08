# SPDX-License-Identifier: MIT
"""footprint.py FILE BUILD-DIR...: writes the table of sizes, memory and start-up times to FILE.

Run by tests/device/run. Each BUILD-DIR, named for its optimisation, holds libraries and vkahost for
ARMv7; the memory is measured on an emulated machine with 1 GiB.
"""
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile

from machine import Machine

LIBRARIES = ["qvutil", "qvio", "qvproc", "vka"]
TEXT = """# Footprint

Made by `tests/device/run --footprint doc/footprint.md`: ARMv7 code of Debian's cross compiler,
measured on the emulated machine with 1 GiB under Debian's kernel. socat and ser2net are Debian's
own armhf programs, serving one terminal on one TCP port.

## Sizes in KiB

Stripped file, and in brackets what is code and read-only data in it (`size`: text).

%s

## Memory and start

Private memory in KiB, as `/proc/PID/smaps_rollup` tells; shared libraries mapped; milliseconds from
the start of the process until a connection is accepted, median of 7. The C++ runtime alone is a
program that writes one number to `std::cout`.

%s

vkahost at idle has %d KiB more than the C++ runtime alone (built with -Os), and 1 MiB of queued
output costs it %d KiB. It listens before it builds, so its start does not depend on the archive.
socat and ser2net keep no output while no client reads.
"""


def kib(size):
    return "%.1f" % (size / 1024)


def stripped(path):
    """Sizes of the stripped file and of its text, in bytes."""
    with tempfile.NamedTemporaryFile() as copy:
        subprocess.run(["arm-linux-gnueabihf-strip", "-o", copy.name, path], check=True)
        text = subprocess.run(["arm-linux-gnueabihf-size", copy.name], check=True,
                              capture_output=True, text=True).stdout
        return os.path.getsize(copy.name), int(re.search(r"^\s*(\d+)", text, re.MULTILINE)[1])


def table(*rows):
    lines = ["| %s |" % " | ".join(row) for row in rows]
    return "\n".join([lines[0], "|---" * len(rows[0]) + "|", *lines[1:]])


def size_table(builds, peers):
    def cell(path):
        return "%s (%s)" % tuple(kib(size) for size in stripped(path))

    rows = [["", *("-" + build.name for build in builds)]]
    for name in LIBRARIES:
        rows.append(["`lib%s.so`" % name, *(cell(build / ("lib%s.so" % name)) for build in builds)])
    rows.append(["`vkahost`, with the libraries in it", *(cell(build / "host/vkahost") for build in builds)])
    rows += [["Debian's `%s`" % peer.name, *(cell(peer) for _ in builds)] for peer in peers]
    return table(*rows)


def memory_table(measured, builds):
    def row(name, values):
        return [name, *(str(values.get(key, "-")) for key in ("idle", "queued", "libraries", "start"))]

    return table(["", "idle", "1 MiB queued", "libraries", "start (ms)"],
                 *(row("`vkahost` -" + build.name, measured[build.name]) for build in builds),
                 row("`socat`", measured["socat"]), row("`ser2net`", measured["ser2net"]),
                 row("C++ runtime alone", measured["runtime"]))


def main():
    file, *names = sys.argv[1:]
    builds = [pathlib.Path(name) for name in names]
    root = pathlib.Path(os.environ["VKA_DEVICE_ROOT"])
    with Machine(1024) as machine:
        measured = json.loads(machine.check(
            "scripts/sandbox.sh -- python3 tests/device/measure.py " + " ".join(names), 900).splitlines()[-1])
    smallest = measured[builds[0].name]
    pathlib.Path(file).write_text(TEXT % (
        size_table(builds, [root / "usr/bin/socat", root / "usr/sbin/ser2net"]),
        memory_table(measured, builds), smallest["idle"] - measured["runtime"]["idle"],
        smallest["queued"] - smallest["idle"]))


main()
