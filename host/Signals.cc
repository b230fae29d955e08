// SPDX-License-Identifier: MIT
#include <host/Signals>

#include <libqvio/IOException>
#include <libqvutil/QVException>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <initializer_list>
#include <sys/select.h>
#include <unistd.h>

namespace {

const std::initializer_list<int> reported = {SIGHUP, SIGINT, SIGTERM, SIGCHLD};

volatile sig_atomic_t reportFd = -1;

void report(int sig) {
    const int err = errno;
    const unsigned char byte = static_cast<unsigned char>(sig);
    // A full pipe wakes the host up all the same; what fails for another reason is tried again.
    for (int tries = 0; tries < 2 && write(reportFd, &byte, 1) == -1; ++tries) {
    }
    errno = err;
}

void drop(int) {}

void setHandler(int sig, void (*handler)(int)) {
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    sigaction(sig, &action, nullptr);
}

void unblockAll() {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

} // namespace

Signals::Signals() {
    if (pipe2(pipeFds, O_CLOEXEC | O_NONBLOCK) == -1) {
        const int err = errno;
        throw IOException(err, "cannot create pipe");
    }
    if (pipeFds[0] >= FD_SETSIZE)
        throw QVException("too many open files for select()");
    reportFd = pipeFds[1];
    unblockAll();
    for (int sig : reported)
        setHandler(sig, report);
    setHandler(SIGPIPE, drop);
}

Signals::~Signals() {
    for (int sig : reported)
        setHandler(sig, SIG_DFL);
    setHandler(SIGPIPE, SIG_DFL);
    reportFd = -1;
    close(pipeFds[0]);
    close(pipeFds[1]);
}

int Signals::take() {
    int stopSignal = 0;
    unsigned char sig;
    ssize_t got;
    while ((got = read(pipeFds[0], &sig, 1)) == 1) {
        if (sig != SIGCHLD && stopSignal == 0)
            stopSignal = sig;
    }
    const int err = errno;
    if (got == -1 && err != EAGAIN && err != EINTR)
        throw IOException(err, "cannot read the signals' pipe"); // or nothing would stop the host
    return stopSignal;
}

void Signals::resetInChild() {
    for (int sig = 1; sig <= SIGRTMAX; ++sig)
        signal(sig, SIG_DFL); // fails for the few that cannot be changed
    unblockAll();
}
