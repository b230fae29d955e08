// SPDX-License-Identifier: MIT
#ifndef TESTS_SUPPORT_CHILD_H
#define TESTS_SUPPORT_CHILD_H

#include "descriptors.h"
#include "wait.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <exception>
#include <fcntl.h>
#include <fstream>
#include <string>
#include <sys/prctl.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vkatest {

/** For a child process to call first: it dies with the test program, however that ends. */
inline void dieWithParent() {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
}

/** A child process that does not outlive this object: killed and reaped in the destructor. */
class Child {
public:
    explicit Child(pid_t _pid) : pid(_pid), status(-1) {}
    ~Child() { end(); }
    Child(Child&& other) noexcept : pid(other.pid), status(other.status) { other.pid = -1; }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    /** Forks a child that calls the function and exits with its int result; 120 if it throws. */
    template <typename Function>
    static Child run(Function function) {
        const pid_t pid = ::fork();
        if (pid == 0) {
            dieWithParent();
            int code = 120;
            try {
                code = function();
            } catch (const std::exception& e) {
                fprintf(stderr, "in a child process: %s\n", e.what());
            }
            fflush(nullptr);
            _exit(code);
        }
        return Child(pid);
    }

    /** Starts a program with one argument and waits until it runs. */
    static Child program(const char* path, const char* argv0, const char* argument) {
        Pipe executed(O_CLOEXEC);
        Child child = run([&] {
            execl(path, argv0, argument, nullptr);
            return 127;
        });
        executed.writeEnd.reset();
        char byte;
        while (read(executed.readEnd.get(), &byte, 1) == -1 && errno == EINTR) {
        }
        // The kernel closes descriptors a moment before it lets the arguments be seen.
        const std::string arguments = "/proc/" + std::to_string(child.id()) + "/cmdline";
        waitUntil([&] { return std::ifstream(arguments).get() != EOF; });
        return child;
    }

    /** Forks a child that does nothing but wait for signals. */
    static Child idle() {
        return run([]() -> int {
            while (true)
                pause();
        });
    }

    pid_t id() const { return pid; }

    /** @return its raw wait status once it has ended, -1 if it does not within the limit */
    int wait(std::chrono::milliseconds limit = patience) {
        waitUntil([this] { return reaped(WNOHANG); }, limit);
        return status;
    }

    /** @return its exit code, -1 when it was killed or does not end */
    int exitCode() {
        const int s = wait();
        return s != -1 && WIFEXITED(s) ? WEXITSTATUS(s) : -1;
    }

    /** Waits until it has ended, leaving it unreaped. */
    bool awaitZombie() const {
        siginfo_t info;
        return waitUntil([&] {
            info.si_pid = 0;
            return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
                   info.si_pid == pid;
        });
    }

    /** Somebody else reaps it; this object lets go. */
    pid_t release() {
        const pid_t released = pid;
        pid = -1;
        return released;
    }

    void end() {
        if (pid <= 0 || reaped(WNOHANG))
            return;
        ::kill(pid, SIGKILL);
        reaped(0);
    }

private:
    bool reaped(int flags) {
        if (pid <= 0)
            return true;
        int s = -1;
        pid_t ret;
        do {
            ret = waitpid(pid, &s, flags);
        } while (ret == -1 && errno == EINTR);
        if (ret == 0)
            return false;
        if (ret == pid)
            status = s;
        pid = -1;
        return true;
    }

    pid_t pid;
    int status;
};

/** Is there any child of this process, running or not reaped? Leaves it alone. */
inline bool anyChildLeft() {
    siginfo_t info;
    return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0;
}

} // namespace vkatest

#endif
