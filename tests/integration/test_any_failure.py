# SPDX-License-Identifier: MIT
"""Calls that vkahost makes to the kernel, those of CALLS, fail once each, by strace: the host goes on, or
says what failed and ends. tests/fault does the same more thoroughly, at the calls to the C library."""
import pytest

from hosts import traced

# Each with an error of its own besides those that may come at any time.
CALLS = {"openat": "EMFILE", "read": "EIO", "write": "ENOSPC", "close": "EIO", "pipe2": "ENFILE",
         "socket": "ENOBUFS", "setsockopt": "ENOMEM", "bind": "EADDRINUSE", "listen": "EADDRINUSE",
         "fcntl": "EBADF", "ioctl": "EIO", "pselect6": "ENOMEM",
         "wait4": "ECHILD", "waitid": "ECHILD", "chdir": "EACCES", "clone": "ENOMEM",
         "newfstatat": "EIO", "getsockname": "ENOBUFS"}
TIMES = (1, 2, 3, 5)


@pytest.mark.parametrize("call", CALLS)
def test_host_ends_in_order(host, tmp_path, call):
    reached = 0
    for error in ("EINTR", "EAGAIN", CALLS[call]):
        for which in TIMES:
            trace = tmp_path / "trace"
            vkahost = host(script="say hello;exit 7", **traced(
                "-e", "trace=?" + call, "-e", "inject=?%s:error=%s:when=%d" % (call, error, which),
                output=trace))
            status = vkahost.wait()
            if "INJECTED" not in trace.read_text(errors="replace"):
                break  # it is not made that often
            reached += 1
            errors = vkahost.errors()
            # 127 is the loader's: the program was not there yet.
            assert status in (7, 124, 125, 126, 127), (error, which, errors)
            assert status in (7, 126) or errors.strip(), (error, which)
            vkahost.stop()
    assert reached, "%s is never made" % call
    assert host(script="exit 7").wait() == 7
