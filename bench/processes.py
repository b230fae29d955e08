# SPDX-License-Identifier: MIT
"""Measures whole programs in rounds, each subject once a round, and prints the figures as JSON.

Usage: processes.py ROUNDS MEBIBYTES KEYSTROKES FUNCTIONS-BINARY
"""
import json
import os
import pathlib
import shutil
import socket
import statistics
import subprocess
import sys
import tempfile
import time
import zipfile

import relays
from relays import running

results = []


def record(what, who, value):
    for entry in results:
        if (entry["what"], entry["who"]) == (what, who):
            entry["values"].append(value)
            return
    results.append({"what": what, "who": who, "values": [value]})


SUBJECTS = {
    "floor": (relays.floor,),
    "vkahost": (relays.vkahost,),
    "socat -b 512": (relays.socat, "-b512"),
    "socat": (relays.socat,),
    "ser2net, 512": (relays.ser2net, 512),
}


def started(who, child):
    start, *options = SUBJECTS[who]
    return running(start, child, *options)


def transfer(what, child, size):
    # With its default of 8 KiB at a time, socat and an echoing program wait for each other for ever.
    for who in SUBJECTS:
        if what == "echo" and who == "socat":
            continue
        with started(who, child) as relay:
            before = relay.cpu_ns()
            (wall,) = relay.client(what, size)
            record(what + ", time", who, wall)
            record(what + ", CPU", who, relay.cpu_ns() - before)


def answers(what, size, count):
    for who in SUBJECTS:
        with started(who, "flood %d" % size) as relay:
            # It waits some milliseconds before it passes a byte on.
            asked = count // 10 if who.startswith("ser2net") else count
            times = sorted(relay.client("ask", asked, size)[asked // 10:])
        record(what + ", median", who, statistics.median(times))
        record(what + ", 99th percentile", who, times[len(times) * 99 // 100])


def answers_with_nagle():
    with running(relays.floor, "flood 600", "nagle") as relay:
        record("answer of 600 bytes, median", "floor with Nagle's algorithm",
               statistics.median(relay.client("ask", 20, 600)))


def stuck(what, child):
    """A signal ends vkahost soon whoever does not read, and its memory is its bound's."""
    bound_kib = 1024
    relay = relays.vkahost(child, "%dK" % bound_kib)
    before = relay.own_kib()
    with socket.socket() as client:
        client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        client.connect(("127.0.0.1", relay.port))
        client.setblocking(False)
        end = time.monotonic() + 1
        client.send(b"g")
        while time.monotonic() < end:
            if child == "silent":
                try:
                    client.send(b"x" * 65536)
                except BlockingIOError:
                    time.sleep(0.001)
            else:
                time.sleep(0.1)
        record(what + ", KiB above the bound", "vkahost",
               relay.own_kib() - before - (bound_kib if child != "silent" else 0))
        record(what + ", ms from the signal to the end", "vkahost", relay.stop() * 1000)


def small_sources(count, path):
    with zipfile.ZipFile(path, "w") as archive:
        archive.writestr("main.c", "int main(void) { return 0; }\n")
        for number in range(count - 1):
            archive.writestr("part%d.c" % number, "int part%d(int x) { return x + %d; }\n" % (
                number, number))


def timed(command, **options):
    start = time.monotonic()
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=True,
                          text=True, **options)
    return time.monotonic() - start, done.stdout


def build(directory, archive):
    """The two commands are those that the library tells it has called."""
    build_program = relays.BUILD / "bench" / "bench_build"
    wall, output = timed([build_program, directory / "work", archive])
    record("build of 200 files, time", "library", wall)
    commands = [line.split("call: ", 1)[1] for line in output.splitlines() if "call: " in line]
    assert len(commands) == 2, output
    sources = directory / "work" / "src"
    shutil.rmtree(sources)
    sources.mkdir()
    wall, _ = timed("; ".join(commands), shell=True, cwd=sources)
    record("build of 200 files, time", "shell", wall)


def printing_archive(path, version):
    """Replaces it at once, as a user's editor and zip do."""
    fresh = path.with_suffix(".new")
    with zipfile.ZipFile(fresh, "w") as archive:
        archive.writestr("main.c", "#include <stdio.h>\n#include <unistd.h>\nint main(void) {\n"
                         "    puts(\"%s\"); fflush(stdout); pause(); return 0;\n}\n" % version)
    fresh.rename(path)


def first_line(client):
    line = b""
    while not line.endswith(b"\n"):
        part = client.recv(100)
        if not part:
            raise RuntimeError("the console was closed")
        line += part
    return line


def replaced(directory):
    """From a replaced archive to the new program's first output at the client."""
    what = "replaced archive to first output, time"
    archive = directory / "printing.zip"
    command = [relays.BUILD / "host" / "vkahost", "-p0", archive]
    printing_archive(archive, "one")
    watching = relays.Relay([*command, "--watch"], "")
    with socket.create_connection(("127.0.0.1", watching.port)) as client:
        assert first_line(client) == b"one\n"
        start = time.monotonic()
        printing_archive(archive, "two")
        assert first_line(client) == b"two\n"
        record(what, "vkahost --watch", time.monotonic() - start)
    start = time.monotonic()
    watching.stop()
    anew = relays.Relay(command, "")
    with socket.create_connection(("127.0.0.1", anew.port)) as client:
        assert first_line(client) == b"two\n"
        record(what, "vkahost started anew", time.monotonic() - start)
    anew.stop()


def peaks(functions):
    for who in ("library", "floor"):
        process = subprocess.Popen(
            [functions, "--benchmark_filter=^capture/%s/1000000/" % who,
             "--benchmark_min_time=0.001"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        _, process.returncode, usage = os.wait4(process.pid, 0)
        assert process.returncode == 0
        record("capture of 1000000 lines, peak KiB", who, usage.ru_maxrss)


def main():
    rounds, mebibytes, keystrokes = (int(word) for word in sys.argv[1:4])
    functions = sys.argv[4]
    size = mebibytes << 20
    with tempfile.TemporaryDirectory() as directory:
        archive = pathlib.Path(directory, "sources.zip")
        small_sources(200, archive)
        for turn in range(rounds):
            print("round %d of %d" % (turn + 1, rounds), file=sys.stderr, flush=True)
            transfer("flood", "flood %d" % size, size)
            transfer("echo", "echo", size)
            answers("keystroke", 1, keystrokes)
            answers("answer of 600 bytes", 600, keystrokes)
            stuck("client that never reads", "flood %d" % (1 << 40))
            stuck("program that never reads", "silent")
            build(pathlib.Path(directory), archive)
            replaced(pathlib.Path(directory))
            peaks(functions)
        answers_with_nagle()
        shutil.rmtree(pathlib.Path(directory, "work"))
    json.dump(results, sys.stdout, indent=1)


if __name__ == "__main__":
    main()
