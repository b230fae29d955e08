# SPDX-License-Identifier: MIT
"""Turns the figures of both kinds of benchmarks into one table of ratios.

Usage: report.py OUT.json FIGURES.json...

OUT.json gets every figure that was measured and every ratio; the table goes to standard output.
"""
import json
import math
import re
import statistics
import sys

# (what, who, divided by whom, the aim)
AIMS = [
    ("flood, CPU", "vkahost", "floor", "<= 1.10"),
    ("flood, time", "vkahost", "floor", "<= 1.053"),  # throughput at least 0.95
    ("flood, CPU", "vkahost", "socat -b 512", "<= 0.80"),
    ("flood, CPU", "vkahost", "ser2net, 512", "<= 0.65"),
    ("flood, CPU", "vkahost", "socat", None),
    ("flood, time", "vkahost", "socat -b 512", None),
    ("flood, time", "vkahost", "ser2net, 512", None),
    ("flood, time", "vkahost", "socat", None),
    ("echo, CPU", "vkahost", "floor", "<= 1.10"),
    ("echo, time", "vkahost", "floor", "<= 1.053"),
    ("echo, CPU", "vkahost", "socat -b 512", None),
    ("echo, CPU", "vkahost", "ser2net, 512", None),
    ("keystroke, median", "vkahost", "floor", "<= 1.10"),
    ("keystroke, 99th percentile", "vkahost", "floor", "<= 1.10"),
    ("keystroke, median", "vkahost", "socat -b 512", None),
    ("keystroke, median", "vkahost", "ser2net, 512", None),
    ("answer of 600 bytes, median", "vkahost", "floor", "<= 1.10"),
    ("answer of 600 bytes, 99th percentile", "vkahost", "floor", "<= 1.10"),
    ("build of 200 files, time", "library", "shell", "<= 1.02"),
    ("replaced archive to first output, time", "vkahost --watch", "vkahost started anew", None),
    ("capture of 1000000 lines, peak KiB", "library", "floor", "<= 1.01"),
    ("capture/1000000, time", "library", "floor", "<= 1.05"),
    ("capture/1000000, CPU", "library", "floor", "<= 1.05"),
    ("capture/1000000, time", "library", "peer getline", None),
    ("command/2000, time", "library", "floor", "<= 1.05"),
    ("delete/50000, time", "library", "peer rm -rf", "<= 0.95"),
    ("delete deep/10000, time", "library", "peer rm -rf", None),
    ("run/10, time", "library", "floor", "<= 1.05"),
    ("run/100, time", "library", "floor", None),
    ("run/500, time", "library", "floor", "<= 1.05"),
    ("run/1024, time", "library", "floor", None),
    ("hexdump/512, time", "library", "floor", "<= 1.00"),
]
LIMITS = [
    ("client that never reads, KiB above the bound", "vkahost", "<= 64"),
    ("client that never reads, ms from the signal to the end", "vkahost", "<= 100"),
    ("program that never reads, KiB above the bound", "vkahost", "<= 64"),
    ("program that never reads, ms from the signal to the end", "vkahost", "<= 100"),
    ("answer of 600 bytes, median", "floor with Nagle's algorithm", None),
    ("answer of 600 bytes, median", "vkahost", None),
    ("run with MADV_DONTFORK/1024, time", "library", None),
    ("run with MADV_HUGEPAGE/1024, time", "library", None),
]
GROWTH = ("capture", "delete", "delete deep", "queue", "run")


def collect(paths):
    figures = {}
    for path in paths:
        with open(path) as file:
            for entry in json.load(file):
                figures[entry["what"], entry["who"]] = entry["values"]
    return figures


def verdict(value, aim):
    if aim is None:
        return ""
    return "met" if value <= float(aim.split()[1]) else "MISSED"


def readable(what, value):
    if "KiB" in what or " ms " in what:
        return "%.0f" % value
    for unit, name in ((1e9, "s"), (1e6, "ms"), (1e3, "us")):
        if value >= unit:
            return "%.3g %s" % (value / unit, name)
    return "%.3g ns" % value


def ratios(figures):
    for what, who, other, aim in AIMS:
        if (what, who) not in figures or (what, other) not in figures:
            continue
        each = [one / two for one, two in zip(figures[what, who], figures[what, other])]
        yield {"what": what, "who": who, "against": other, "aim": aim, "pairs": len(each),
               "median": statistics.median(each), "least": min(each), "most": max(each),
               "verdict": verdict(statistics.median(each), aim)}


def exponents(figures):
    """The slope of the cost over the size, both as logarithms, between the least and the most."""
    for name in GROWTH:
        sizes = {}
        for (what, who), values in figures.items():
            match = re.fullmatch(re.escape(name) + r"/(\d+), time", what)
            if match and who == "library":
                sizes[int(match[1])] = statistics.median(values)
        if len(sizes) >= 3:
            low, high = min(sizes), max(sizes)
            yield {"what": name, "costs": sizes,
                   "exponent": math.log(sizes[high] / sizes[low]) / math.log(high / low)}


def main():
    out, *paths = sys.argv[1:]
    figures = collect(paths)
    compared, grown = list(ratios(figures)), list(exponents(figures))
    print("| What | Who | Against | Median ratio | Spread | Pairs | Aim | |")
    print("|---|---|---|---|---|---|---|---|")
    for row in compared:
        print("| %(what)s | %(who)s | %(against)s | %(median).3f | %(least).3f to %(most).3f | "
              "%(pairs)d | %(aim)s | %(verdict)s |" % {**row, "aim": row["aim"] or ""})
    print("\n| What | Who | Median | Spread | Aim | |\n|---|---|---|---|---|---|")
    for what, who, aim in LIMITS:
        values = figures.get((what, who))
        if values:
            print("| %s | %s | %s | %s to %s | %s | %s |" % (
                what, who, *(readable(what, value) for value in (
                    statistics.median(values), min(values), max(values))),
                aim or "", verdict(statistics.median(values), aim)))
    print("\n| What grows | Median at each size | Exponent |\n|---|---|---|")
    for row in grown:
        print("| %s | %s | %.2f |" % (
            row["what"], "; ".join("%d: %s" % (size, readable("", cost))
                                   for size, cost in sorted(row["costs"].items())), row["exponent"]))
    with open(out, "w") as file:
        json.dump({"ratios": compared, "growth": grown,
                   "figures": [{"what": what, "who": who, "values": values}
                               for (what, who), values in figures.items()]}, file, indent=1)


if __name__ == "__main__":
    main()
