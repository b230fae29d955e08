// SPDX-License-Identifier: MIT
// For one source of a test program that wraps execv and fork: children do what the test says
// instead of executing /tmp/vkabin.
#ifndef TESTS_SUPPORT_CLIENT_LAUNCH_H
#define TESTS_SUPPORT_CLIENT_LAUNCH_H

#include <libvka/client/VKAClient>
#include <tests/support/fault.h>
#include <tests/support/transfer.h>

#include <functional>
#include <gtest/gtest.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vkatest {

/** In the child, in place of execv; the child exits with the result. */
inline std::function<int(const char* path, char* const argv[])> program;

inline Fault forkFault, execFault;
inline pid_t lastForked = -1;

/** A program that never ends by itself. */
inline int idle(const char*, char* const[]) {
    while (true)
        pause();
}

/** Calls run(). An exception that leaves it in the child process ends that with status 99. */
inline void runHere(VKAClient& agent) {
    const pid_t host = getpid();
    try {
        agent.run();
    } catch (...) {
        if (getpid() != host)
            _exit(99);
        throw;
    }
}

/** Ends a child process of a test: with 0 if all its expectations held. */
[[noreturn]] inline void endChild() {
    fflush(nullptr);
    _exit(testing::Test::HasFailure() ? 1 : 0);
}

/** Exit code of a child that has ended or will, -1 if a signal killed it; leaves it unreaped. */
inline int exitCodeOf(pid_t pid) {
    siginfo_t info = {};
    if (uninterrupted(
            [&] { return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT); }) == -1)
        return -1;
    return info.si_code == CLD_EXITED ? info.si_status : -1;
}

} // namespace vkatest

extern "C" {
int __wrap_execv(const char* path, char* const argv[]) noexcept;
int __wrap_execv(const char* path, char* const argv[]) noexcept {
    if (vkatest::execFault.hit())
        return -1;
    const int code = vkatest::program(path, argv);
    fflush(nullptr);
    _exit(code);
}

pid_t __real_fork(void) noexcept;
pid_t __wrap_fork(void) noexcept;
pid_t __wrap_fork(void) noexcept {
    if (vkatest::forkFault.hit())
        return -1;
    return vkatest::lastForked = __real_fork();
}
}

#endif
