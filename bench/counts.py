# SPDX-License-Identifier: MIT
"""Counts that no busy machine changes: instructions (callgrind) and calls to the kernel (strace) for
one unit of work, compared with bench/counts.txt.

Usage: counts.py [--write]     --write: make that file anew
"""
import os
import pathlib
import re
import subprocess
import sys
import tempfile

import relays

TABLE = pathlib.Path(__file__).with_name("counts.txt")
COUNTED = relays.BUILD / "bench" / "bench_counted"
VKAHOST = relays.BUILD / "host" / "vkahost"
CHUNK = 512
# The C library's plain copying, whatever the processor has for it.
PLAIN = {"GLIBC_TUNABLES": "glibc.cpu.hwcaps=-AVX2,-AVX,-AVX_Fast_Unaligned_Load,-ERMS,-AVX512F,-AVX512VL"}


def output_of(*command, **environment):
    return subprocess.run([str(word) for word in command], stdout=subprocess.PIPE, check=True,
                          stderr=subprocess.STDOUT, text=True, timeout=300,
                          env={**os.environ, **environment}).stdout


def instructions(*command):
    report = output_of("valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null", *command,
                       **PLAIN)
    return int(re.search(r"Collected : (\d+)", report)[1])


def calls(*command):
    """All calls to the kernel, of the process itself."""
    with tempfile.NamedTemporaryFile("r") as trace:
        output_of("strace", "-qq", "-o", trace.name, *command)
        return [line for line in trace if not line.startswith(("+++", "---"))]


def for_each(count, figure, thing):
    """What one more of the thing costs."""
    return (figure(COUNTED, thing, 2 * count) - figure(COUNTED, thing, count)) / count


def calls_to_remove(files):
    trace = calls(COUNTED, "remove", files)
    marks = [number for number, line in enumerate(trace) if line.startswith("getppid(")]
    return (marks[1] - marks[0] - 1) / files


def calls_of(start, child, units, *client):
    """A relay's calls of any kind for each unit; what a client's coming and going takes is small
    beside. The least of three runs: a side that was held up once may stay behind for a whole run."""
    return min(calls_once(start, child, units, *client) for _ in range(3))


def calls_once(start, child, units, *client):
    with relays.running(start, child) as relay, tempfile.NamedTemporaryFile("r") as summary:
        tracer = subprocess.Popen(["strace", "-c", "-o", summary.name, "-p", str(relay.pid)],
                                  stderr=subprocess.PIPE, text=True)
        assert "attached" in tracer.stderr.readline()
        relay.client(*client)
        tracer.terminate()
        tracer.communicate()
        # One line for each call: share, seconds, microseconds, count; then the sum.
        return sum(int(line.split()[3]) for line in summary if re.match(r" +\d", line)) / units


def measure():
    size, keystrokes = 1 << 20, 500
    return {
        "instructions, a chunk of output": for_each(2000, instructions, "output"),
        "instructions, a chunk of input": for_each(2000, instructions, "input"),
        "instructions, a line of a command": for_each(20000, instructions, "lines"),
        "instructions, vkahost --version": instructions(VKAHOST, "--version"),
        **{"calls, %s by %s" % (unit, start.__name__): calls_of(start, *arguments)
           for unit, *arguments in (
               ("a chunk of output", "flood %d" % size, size / CHUNK, "flood", size),
               ("an echoed chunk", "echo", size / CHUNK, "echo", size),
               ("an echoed keystroke", "flood 1", keystrokes, "ask", keystrokes, 1))
           for start in (relays.vkahost, relays.floor)},
        "calls, a VKAClient without console": for_each(
            100, lambda *command: len(calls(*command)), "construct"),
        "calls, a deleted file": calls_to_remove(10000),
    }


def is_near(name, now, before):
    """Calls: but for a client's coming and going, and a descriptor that was not ready at once."""
    if name.startswith("calls"):
        return abs(now - before) <= 0.1
    return abs(now - before) <= before * 0.05


def main():
    found = measure()
    if sys.argv[1:] == ["--write"]:
        TABLE.write_text("".join("%-42s %12.2f\n" % item for item in found.items()))
    kept = {line[:42].rstrip(): float(line[42:]) for line in TABLE.read_text().splitlines()}
    status = 0 if kept.keys() == found.keys() else 1
    for name, now in found.items():
        before = kept.get(name, 0)
        fine = is_near(name, now, before)
        print("%-42s %12.2f  kept %12.2f  %s" % (name, now, before, "ok" if fine else "CHANGED"))
        status = status if fine else 1
    return status


if __name__ == "__main__":
    sys.exit(main())
