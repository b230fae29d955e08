# SPDX-License-Identifier: MIT
"""An emulated ARMv7 machine under Debian's kernel, driven over its serial console."""
import os
import re
import socket
import subprocess
import sys
import threading
import time

BOOT_SECONDS = 180
CONSOLE_PORT = 2323  # of vkahost, inside


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Machine:
    """Nothing that happens inside changes its disks' files. Use it as a context."""

    def __init__(self, memory_mib):
        directory = os.environ["VKA_DEVICE"]  # kernel, initial RAM disk and disk images
        tree = os.environ["VKA_DEVICE_TREE"]  # where the machine is to find the tree
        self.port = free_port()  # here, for the console inside
        self.received = bytearray()
        self.changed = threading.Condition()
        self.ended = False
        self.commands = 0
        self.process = subprocess.Popen(
            ["qemu-system-arm", "-M", "virt,highmem=off", "-cpu", "cortex-a15", "-smp", "2",
             "-m", str(memory_mib), "-nographic", "-no-reboot", "-nodefaults", "-serial", "stdio",
             "-kernel", directory + "/kernel/vmlinuz", "-initrd", directory + "/kernel/initrd",
             "-append", "console=ttyAMA0 quiet panic=-1 vka_tree=" + tree,
             *self._disk("root", directory + "/image/image"), *self._disk("tree", directory + "/tree"),
             "-netdev", "user,id=net,restrict=on,hostfwd=tcp:127.0.0.1:%d-10.0.2.15:%d" % (
                 self.port, CONSOLE_PORT),
             "-device", "virtio-net-device,netdev=net", "-device", "virtio-rng-device"],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, bufsize=0)
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    @staticmethod
    def _disk(name, file):
        return ["-drive", "file=%s,if=none,id=%s,format=raw,snapshot=on" % (file, name),
                "-device", "virtio-blk-device,drive=" + name]

    def __enter__(self):
        try:
            self._wait_for(rb"^vka-(ready)\r?$", BOOT_SECONDS)
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *unused):
        self.process.kill()
        self.process.wait()
        self.reader.join()
        self.process.stdin.close()
        self.process.stdout.close()

    def _read(self):
        while True:
            data = os.read(self.process.stdout.fileno(), 1 << 16)
            with self.changed:
                self.received += data
                self.ended = not data
                self.changed.notify_all()
            if not data:
                return

    def _wait_for(self, pattern, seconds):
        """Returns what came before a line, and its first group; all that is taken away."""
        end = time.monotonic() + seconds
        with self.changed:
            while True:
                match = re.search(pattern, self.received, re.MULTILINE)
                if match:
                    before = self.received[:match.start()].decode(errors="replace")
                    group = bytes(match[1])
                    del self.received[:match.end() + 1]
                    return before, group
                left = end - time.monotonic()
                if self.ended or left <= 0:
                    raise AssertionError("%s; the machine said\n%s" % (
                        "the machine stopped" if self.ended else "not within %d s" % seconds,
                        self.received.decode(errors="replace")))
                self.changed.wait(left)

    def run(self, command, seconds=300):
        """Runs a shell command (one line) inside; returns its exit status and its output."""
        assert "\n" not in command
        self.commands += 1
        number = b"%d" % self.commands
        self.process.stdin.write(number + b" " + command.encode() + b"\n")
        output, status = self._wait_for(rb"^vka-end " + number + rb" (\d+)\r?$", seconds)
        return int(status), output.strip("\r\n")

    def check(self, command, seconds=300):
        """The output of a command that has to succeed."""
        status, output = self.run(command, seconds)
        assert status == 0, "status %d: %s\n%s" % (status, command, output)
        return output

    def show(self, command, seconds=300):
        """The same for a test runner, whose output is passed on."""
        status, output = self.run(command, seconds)
        print(output, file=sys.stderr)
        return status
