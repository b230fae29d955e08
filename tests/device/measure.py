# SPDX-License-Identifier: MIT
"""measure.py BUILD-DIR...: prints as JSON what vkahost and its peers use on this machine.

Runs inside the emulated machine, in the sandbox. BUILD-DIR/host/vkahost is measured under the
directory's name; socat and ser2net serve a terminal in its place.
"""
import json
import os
import pathlib
import re
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import time

PORT = 2400
RUNS = 7
QUEUED = 1 << 20
SOURCES = {
    # Says how much it has written; a host that takes it all has it in its queue then.
    "flood.c": r"""
#include <stdio.h>
#include <unistd.h>
int main(void) {
    for (int n = 0; n < %d / 512; ++n)
        for (int left = 512; left > 0;)
            left -= (int)write(1, (char[512]){0}, (size_t)left);
    FILE *done = fopen("/tmp/done", "w");
    fclose(done);
    return pause();
}
""" % QUEUED,
    "idle.c": "#include <unistd.h>\nint main(void) { return pause(); }\n",
}
RUNTIME = "#include <iostream>\n#include <unistd.h>\nint main() { std::cout << 1 << std::endl; return pause(); }\n"


def wait_until(condition, what):
    end = time.monotonic() + 120
    while not condition():
        assert time.monotonic() < end, what
        time.sleep(0.002)


def listens():
    with socket.socket() as probe:
        return probe.connect_ex(("127.0.0.1", PORT)) == 0


def private_kib(pid):
    text = pathlib.Path("/proc/%d/smaps_rollup" % pid).read_text()
    return sum(int(size) for size in re.findall(r"^Private_\w+:\s+(\d+) kB$", text, re.MULTILINE))


def shared_libraries(pid):
    text = pathlib.Path("/proc/%d/maps" % pid).read_text()
    return len(set(re.findall(r"/\S+\.so[.\d]*$", text, re.MULTILINE)))


class Running:
    def __init__(self, command):
        self.started = time.monotonic()
        self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                        start_new_session=True)

    def __enter__(self):
        return self.process.pid

    def __exit__(self, *unused):
        os.killpg(self.process.pid, signal.SIGTERM)
        self.process.wait()


def start_milliseconds(command):
    """From the start of the command until a connection is accepted; the median of some runs."""
    times = []
    for _ in range(RUNS):
        running = Running(command)
        with running:
            wait_until(listens, "it listens: %s" % command)
            times.append((time.monotonic() - running.started) * 1000)
    return round(statistics.median(times))


def measure(command):
    with Running(command) as pid:
        wait_until(listens, "it listens: %s" % command)
        time.sleep(1)  # the connection of the probe is over and done with
        result = {"idle": private_kib(pid), "libraries": shared_libraries(pid)}
    return {**result, "start": start_milliseconds(command)}


def archive(directory, name):
    path = directory / (name + ".zip")
    (directory / name).write_text(SOURCES[name])
    subprocess.run(["zip", "-q", path, name], cwd=directory, check=True)
    return str(path)


def measure_vkahost(path, directory):
    program = pathlib.Path("/tmp/vkabin")
    command = [path, "-p", str(PORT), "-w", str(directory / "wd"), "-b", "2M"]
    result = {}
    for name in "idle.c", "flood.c":
        done = pathlib.Path("/tmp/done")
        done.unlink(missing_ok=True)
        program.unlink(missing_ok=True)
        with Running([*command, archive(directory, name)]) as pid:
            wait_until(program.exists, "the program is built")
            if name == "flood.c":
                wait_until(done.exists, "the program wrote all")
            time.sleep(1)  # the last chunk is taken
            result["idle" if name == "idle.c" else "queued"] = private_kib(pid)
            result["libraries"] = shared_libraries(pid)
    result["start"] = start_milliseconds([*command, archive(directory, "idle.c")])
    return result


def measure_runtime(directory):
    source, program = directory / "runtime.cc", str(directory / "runtime")
    source.write_text(RUNTIME)
    subprocess.run(["g++", "-O2", "-o", program, source], check=True)
    with Running([program]) as pid:
        time.sleep(1)
        return {"idle": private_kib(pid), "libraries": shared_libraries(pid)}


def main():
    results = {}
    with tempfile.TemporaryDirectory() as name:
        directory = pathlib.Path(name)
        for build in sys.argv[1:]:
            results[os.path.basename(build)] = measure_vkahost(build + "/host/vkahost", directory)
        results["runtime"] = measure_runtime(directory)
        results["socat"] = measure(["socat", "TCP-LISTEN:%d,bind=127.0.0.1,reuseaddr,fork" % PORT,
                                    "PTY,raw,echo=0"])
        configuration = directory / "ser2net.yaml"
        configuration.write_text("connection: &con\n  accepter: tcp,127.0.0.1,%d\n"
                                 "  connector: serialdev,/dev/ttyAMA0,9600n81,local\n" % PORT)
        results["ser2net"] = measure(["ser2net", "-n", "-c", configuration])
    print(json.dumps(results))


main()
