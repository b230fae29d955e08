# SPDX-License-Identifier: MIT
"""Many lives of programs under agents in one process; see cycles.cc."""
import os
import subprocess


def test_cycles(tool_archive, fast_make, choose):
    count = choose(1000, 10000)
    program = os.environ["VKA_SOAK_CYCLES"]
    done = subprocess.run([program, tool_archive, str(count)], env={**os.environ, **fast_make},
                          stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                          stderr=subprocess.PIPE, text=True, timeout=count)
    print(done.stderr, end="")
    assert done.returncode == 0, done.stderr
    assert done.stderr.startswith("cycles: %d in " % count)
