# SPDX-License-Identifier: MIT
"""sandbox_init.py UID:GID COMMAND [ARG]...: runs COMMAND in a process namespace of its own.

The caller (sandbox.sh) is root, of the machine or of a user namespace. Two processes stand between
it and COMMAND: this one, which the outside knows and signals, and the namespace's init, which
adopts and reaps orphans and whose end kills whatever is left. Both pass signals on. A namespace's
init gets no signal that it does not wait for or handle, which is why COMMAND is not it.
"""
import ctypes
import os
import resource
import select
import signal
import struct
import subprocess
import sys

PR_SET_PDEATHSIG = 1
CLONE_NEWPID = 0x20000000
SI_KERNEL = 0x80
FORWARDED = {signal.SIGHUP, signal.SIGINT, signal.SIGQUIT, signal.SIGTERM, signal.SIGUSR1,
             signal.SIGUSR2}

libc = ctypes.CDLL(None, use_errno=True)


def call(function, *args):
    if function(*args) == -1:
        raise OSError(ctypes.get_errno(), os.strerror(ctypes.get_errno()), function.__name__)


def supervise(main):
    """Passes signals on to the process `main` until it ends; returns its wait status."""
    while True:
        info = signal.sigwaitinfo(FORWARDED | {signal.SIGCHLD})
        if info.si_signo != signal.SIGCHLD:
            # The kernel signals the terminal's whole foreground group, `main` included.
            if info.si_code != SI_KERNEL:
                os.kill(main, info.si_signo)
            continue
        # One SIGCHLD may stand for several children.
        pid = -1
        while pid != 0:
            pid, status = os.waitpid(-1, os.WNOHANG)
            if pid == main:
                return status


def run_command(owner, command, mask):
    uid, gid = owner.split(":")
    if uid != str(os.geteuid()):
        # Root of a user namespace only: become the ordinary user again who started all this.
        command = ["unshare", "--user", "--map-user=" + uid, "--map-group=" + gid, "--"] + command
    # Python ignores these two; the command gets the usual actions.
    signal.signal(signal.SIGPIPE, signal.SIG_DFL)
    signal.signal(signal.SIGXFSZ, signal.SIG_DFL)
    signal.pthread_sigmask(signal.SIG_SETMASK, mask)
    try:
        os.execvp(command[0], command)
    except OSError as error:
        print("sandbox.sh: cannot run %s: %s" % (command[0], error.strerror), file=sys.stderr)
        os._exit(127)


def be_init(owner, command, mask, report):
    call(libc.prctl, PR_SET_PDEATHSIG, signal.SIGKILL)
    poll = select.poll()
    poll.register(report, 0)
    if poll.poll(0):
        os._exit(1)  # the reading side is gone: our parent died before it could be watched
    if subprocess.run(["mount", "-t", "proc", "proc", "/proc"]).returncode != 0:
        print("sandbox.sh: cannot mount a /proc of its own; nothing was started", file=sys.stderr)
        os._exit(1)
    main = os.fork()
    if main == 0:
        run_command(owner, command, mask)
    os.write(report, struct.pack("i", supervise(main)))
    os._exit(0)


def end_like(status):
    if os.WIFSIGNALED(status):
        number = os.WTERMSIG(status)
        resource.setrlimit(resource.RLIMIT_CORE, (0, resource.getrlimit(resource.RLIMIT_CORE)[1]))
        if number not in (signal.SIGKILL, signal.SIGSTOP):
            signal.signal(number, signal.SIG_DFL)
        os.kill(os.getpid(), number)
        signal.pthread_sigmask(signal.SIG_UNBLOCK, {number})
    os._exit(os.WEXITSTATUS(status))


def main():
    owner, command = sys.argv[1], sys.argv[2:]
    mask = signal.pthread_sigmask(signal.SIG_BLOCK, FORWARDED | {signal.SIGCHLD})
    report, reporter = os.pipe()
    call(libc.unshare, CLONE_NEWPID)
    init = os.fork()
    if init == 0:
        os.close(report)
        be_init(owner, command, mask, reporter)
    os.close(reporter)
    status = supervise(init)
    reported = os.read(report, struct.calcsize("i"))
    end_like(struct.unpack("i", reported)[0] if reported else status)


main()
