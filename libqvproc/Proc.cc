// SPDX-License-Identifier: MIT
#include <libqvproc/Proc>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <new>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

const int Proc::stopGraceMs;

namespace {

/** Is pid a child of ours that nobody has reaped, running or not? Only then is the id its own. */
bool isUnreaped(pid_t pid) {
    siginfo_t info;
    return pid > 0 &&
           (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 ||
            errno != ECHILD);
}

int64_t nowMs() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

/** @return a descriptor that gets readable when the process ends, or -1 */
int openPidfd(pid_t pid) {
#ifdef SYS_pidfd_open
    return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
#else
    static_cast<void>(pid);
    return -1;
#endif
}

/**
 * Sleeps until one of the processes ends, a signal comes or the time is over (-1: no limit).
 *
 * Where there is no pidfd (kernels before 5.3, no descriptor left), it returns after a nap that
 * gets longer from call to call.
 */
void awaitEnd(const Proc::pidset_t& pids, int64_t timeoutMs, int& napMs) {
    std::vector<pollfd> watched;
    watched.reserve(pids.size());
    for (int pid : pids) {
        const int fd = openPidfd(pid);
        if (fd == -1)
            break;
        watched.push_back(pollfd{fd, POLLIN, 0});
    }
    if (watched.size() == pids.size()) {
        poll(watched.data(), watched.size(), static_cast<int>(timeoutMs));
    } else {
        poll(nullptr, 0,
             timeoutMs < 0 ? napMs : static_cast<int>(std::min<int64_t>(napMs, timeoutMs)));
        napMs = std::min(napMs * 2, 50);
    }
    for (const pollfd& entry : watched)
        close(entry.fd);
}

} // namespace

pid_t Proc::doWait(pid_t pid, bool blocking, int* status) {
    if (pid <= 0) { // would reap any child of the host
        errno = ECHILD;
        return -1;
    }
    pid_t ret;
    do {
        ret = waitpid(pid, status, blocking ? 0 : WNOHANG);
    } while (ret == -1 && errno == EINTR);
    return ret;
}

pid_t Proc::fork() {
    const pid_t child = ::fork();
    if (child == 0) {
        children.clear();
    } else if (child > 0) {
        try {
            children.insert(child);
        } catch (const std::bad_alloc&) {
            ::kill(child, SIGKILL);
            doWait(child, true, nullptr);
            errno = ENOMEM;
            return -1;
        }
    }
    return child;
}

int Proc::kill(bool force) {
    if (pid <= 0) {
        errno = ESRCH;
        return -1;
    }
    return ::kill(pid, force ? SIGKILL : SIGTERM);
}

int Proc::killChildren(int sig) const {
    int err = 0;
    for (int child : children) {
        if (isUnreaped(child) && ::kill(child, sig) == -1 && err == 0)
            err = errno;
    }
    if (err == 0)
        return 0;
    errno = err;
    return -1;
}

pid_t Proc::wait(bool blocking, int* status) {
    return wait(pid, blocking, status);
}

pid_t Proc::wait(pid_t child, bool blocking, int* status) {
    const pid_t ret = doWait(child, blocking, status);
    const int err = errno;
    if (ret > 0 || (ret == -1 && err == ECHILD))
        children.erase(child);
    errno = err;
    return ret;
}

pid_t Proc::waitChild(bool blocking) {
    int napMs = 1;
    while (true) {
        for (pidset_t::iterator it = children.begin(); it != children.end();) {
            const int child = *it++; // wait() may take it out of the set
            const pid_t ret = wait(child, false, nullptr);
            if (ret > 0 || (ret == -1 && errno != ECHILD))
                return ret;
        }
        if (children.empty()) {
            errno = ECHILD;
            return -1;
        }
        if (!blocking)
            return 0;
        awaitEnd(children, -1, napMs);
    }
}

pid_t Proc::waitChildren(bool blocking) {
    return waitChildren(blocking, nullptr);
}

pid_t Proc::waitChildren(bool blocking, pidset_t* pids) {
    pid_t last = 0;
    int err = 0;
    for (pidset_t::iterator it = children.begin(); it != children.end();) {
        const int child = *it++; // wait() may take it out of the set
        const pid_t ret = wait(child, blocking, nullptr);
        if (ret == -1 && errno != ECHILD)
            err = errno;
        if (ret > 0) {
            last = ret;
            if (pids)
                pids->insert(ret);
        }
    }
    if (err == 0)
        return last;
    errno = err;
    return -1;
}

Proc::pidset_t Proc::stopChildren() {
    pidset_t acted;
    waitChildren(false, &acted);
    if (children.empty())
        return acted;

    acted.insert(children.begin(), children.end());
    killChildren(SIGTERM);
    killChildren(SIGCONT);

    const int64_t deadline = nowMs() + stopGraceMs;
    int napMs = 1;
    while (!children.empty()) {
        const int64_t left = deadline - nowMs();
        if (left <= 0) {
            for (pidset_t::iterator it = children.begin(); it != children.end();) {
                const int child = *it++; // wait() may take it out of the set
                // One that may not be killed, as it has become another user's, is not waited for.
                wait(child, !isUnreaped(child) || ::kill(child, SIGKILL) == 0, nullptr);
            }
            break;
        }
        awaitEnd(children, left, napMs);
        waitChildren(false, nullptr);
    }
    return acted;
}

std::ostream& operator<<(std::ostream& os, const Proc::pidset_t& pids) {
    os << '{';
    const char* separator = "";
    for (int pid : pids) {
        os << separator << pid;
        separator = ",";
    }
    return os << '}';
}
