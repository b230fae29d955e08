# SPDX-License-Identifier: MIT
"""The agent on whole ARMv7 machines. A client outside reaches the console by a port forward."""
import os
import re
import socket

BUILD = os.environ["VKA_DEVICE_BUILD"]  # the same path here and inside
SANDBOX = "scripts/sandbox.sh --keep %s --" % BUILD
VKAHOST = BUILD + "/host/vkahost"
ANSWER_SECONDS = 60

# Builds an archive and runs it in the background, in the sandbox; what vkahost says goes to a file.
START = ("(cd examples/%s && zip -q -r /run/%s.zip .) && rm -f /run/log && "
         "(setsid " + SANDBOX + " env %s " + VKAHOST +
         " -p 2323 -w /tmp/wd /run/%s.zip >/run/log 2>&1; echo status $? >>/run/log) "
         ">/dev/null 2>&1 & "
         "until grep -q -e '^vkahost: running' -e '^status' /run/log 2>/dev/null; do sleep 0.2; done; "
         "cat /run/log")
END = "until grep -q '^status' /run/log; do sleep 0.2; done; cat /run/log"


class Console:
    """A client outside the machine."""

    def __init__(self, machine):
        self.socket = socket.create_connection(("127.0.0.1", machine.port), timeout=ANSWER_SECONDS)
        self.received = b""

    def __enter__(self):
        return self

    def __exit__(self, *unused):
        self.socket.close()

    def until(self, text):
        while text not in self.received:
            data = self.socket.recv(4096)
            assert data, "the console ended behind %r" % self.received
            self.received += data
        before, _, self.received = self.received.partition(text)
        return before

    def send(self, text):
        self.socket.sendall(text)


def start(machine, example, environment=""):
    """Returns what vkahost said until the program ran, or until it failed."""
    return machine.check(START % (example, example, environment, example))


def talk_to_calculator(machine):
    with Console(machine) as console:
        console.until(b"\n> ")
        console.send(b"6 * (4 + 3)\n")
        assert console.until(b"\n> ") == b"42"
        console.send(b"quit 9\n")
        assert console.socket.recv(1) == b""
    said = machine.check(END)
    assert "vkahost: program exited with status 9" in said and said.endswith("status 9")


def check_demo(machine, jobs):
    """From the archive to a client's answer, with the compiler and the memory of the device."""
    said = start(machine, "calculator", "V=1")
    assert re.search(r"call: make -f /opt/quorvel/share/vka/Makefile -j (\d+) ", said)[1] == jobs
    total = int(re.search(r"^\[INFO\] VKAClient::VKAClient\(\) totalram=(\d+) joblimit=536870912\r?$",
                          said, re.MULTILINE)[1])
    assert total == 1024 * int(machine.check("awk '/^MemTotal/ { print $2 }' /proc/meminfo"))
    talk_to_calculator(machine)


def test_kernel_and_processor(large):
    assert large.check("uname -m") == "armv7l"
    assert large.check("getconf LONG_BIT") == "32"
    assert "-armmp" in large.check("uname -r")


def test_unit_tests(large):
    """Of the relay's random sequences a tenth."""
    assert large.show(SANDBOX + " env RC_PARAMS=max_success=200 ctest --test-dir %s"
                      " --output-on-failure --no-tests=error --parallel 2 %s"
                      " && ! grep -E '\\[  SKIPPED \\]|DISABLED TEST'"
                      " %s/Testing/Temporary/LastTest.log" % (
                          BUILD, os.environ["VKA_DEVICE_UNIT_TESTS"], BUILD), 3000) == 0


def test_integration_tests(large):
    """Those that need a kernel of the device: they look at processes, trace them or talk."""
    status, output = large.run(
        SANDBOX + " env VKAHOST=%s VKA_SLOWNESS=20 PYTHONDONTWRITEBYTECODE=1 python3 -m pytest"
        " -p no:cacheprovider -q --color=no %s" % (VKAHOST, os.environ["VKA_DEVICE_TESTS"]), 3000)
    assert status == 0 and " skipped" not in output, output


def test_two_jobs_with_a_gibibyte(large):
    check_demo(large, "2")


def test_one_job_with_384_mebibytes(small):
    check_demo(small, "1")


def test_compiler_killed_for_lack_of_memory(large):
    """The kernel kills it: the build fails, says why, and leaves nothing behind."""
    large.check("mount -t cgroup2 cgroup2 /sys/fs/cgroup && cd /sys/fs/cgroup &&"
                " echo +memory >cgroup.subtree_control && mkdir small && echo 48M >small/memory.max")
    large.check("mkdir /run/big && cd /run/big && awk 'BEGIN { print \"int main(void) { return 0; }\";"
                " printf \"int numbers[] = {\"; for (n = 0; n < 600000; ++n) printf \"%d,\", n;"
                " print \"};\" }' >big.c && zip -q big.zip big.c")
    # Outside, so that the limit is for what the compiler needs, not for its own code.
    large.check("echo 'int n;' | gcc -O3 -x c -c -o /dev/null -")
    said = large.check("echo $BASHPID >/sys/fs/cgroup/small/cgroup.procs; " + SANDBOX + " sh -c '" +
                       VKAHOST + " -p 0 -w /tmp/wd /run/big/big.zip 2>&1; echo status $?; ls /tmp'", 600)
    assert "Killed signal terminated program cc1" in said
    assert said.endswith("vkahost: build failed: make error: the compiler has probably run out of"
                         " memory\nstatus 124\nwd"), said
