# SPDX-License-Identifier: MIT
"""Runs each function's benchmark in a process of its own, as what an earlier one left of the heap
changes what the next one takes, and in rounds. Prints the figures as JSON.

Usage: functions.py ROUNDS BINARY REGEX
"""
import json
import subprocess
import sys
import tempfile

import relays

SCALE = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}


def names(binary, regex):
    listed = subprocess.run([binary, "--benchmark_list_tests", "--benchmark_filter=" + regex],
                            stdout=subprocess.PIPE, check=True, text=True).stdout
    # What is compared is measured one behind the other.
    return sorted(listed.splitlines(), key=lambda name: (name.split("/")[0], int(name.split("/")[2])))


def measured(binary, name):
    """Nanoseconds of time and of processor time, on average over about a second."""
    with tempfile.NamedTemporaryFile("r") as out:
        subprocess.run([binary, "--benchmark_filter=^%s$" % name, "--benchmark_min_time=0.5",
                        "--benchmark_out=" + out.name, "--benchmark_out_format=json"], check=True,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        (entry,) = json.load(out)["benchmarks"]
    unit = SCALE[entry["time_unit"]]
    return entry["real_time"] * unit, entry["cpu_time"] * unit


def main():
    rounds, binary, regex = int(sys.argv[1]), sys.argv[2], sys.argv[3]
    figures = {}
    relays.install_child()
    for turn in range(rounds):
        print("round %d of %d" % (turn + 1, rounds), file=sys.stderr, flush=True)
        for name in names(binary, regex):
            what, who, size = name.split("/")[:3]
            time, cpu = measured(binary, name)
            figures.setdefault(("%s/%s, time" % (what, size), who), []).append(time)
            figures.setdefault(("%s/%s, CPU" % (what, size), who), []).append(cpu)
    json.dump([{"what": what, "who": who, "values": values}
               for (what, who), values in figures.items()], sys.stdout, indent=1)


if __name__ == "__main__":
    main()
