// SPDX-License-Identifier: MIT
#ifndef TESTS_SUPPORT_SANDBOX_H
#define TESTS_SUPPORT_SANDBOX_H

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <unistd.h>

/** First line of a test that touches /tmp/vkabin or /opt/quorvel: fails on the bare machine. */
#define VKA_REQUIRE_SANDBOX()                                                                      \
    ASSERT_TRUE(getenv("VKA_SANDBOX"))                                                             \
        << "this test uses the machine's /tmp and /opt; run it through scripts/sandbox.sh"

namespace vkatest {

/**
 * Moves the calling process, which must have one thread, into namespaces of its own (CLONE_NEWNS,
 * CLONE_NEWPID ...). An ordinary user gets a user namespace as well and is root there.
 *
 * For a child process only: there is no way back. @return whether it worked; says why not
 */
inline bool enterNamespaces(int flags) {
    const auto write = [](const char* path, const std::string& text) {
        const int fd = open(path, O_WRONLY | O_CLOEXEC);
        const bool ok =
            fd != -1 && ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
        if (fd != -1)
            close(fd);
        return ok;
    };
    const std::string uid = std::to_string(geteuid()), gid = std::to_string(getegid());
    bool ok;
    if (geteuid() == 0) {
        ok = unshare(flags) == 0;
    } else {
        ok = unshare(flags | CLONE_NEWUSER) == 0 && write("/proc/self/setgroups", "deny") &&
             write("/proc/self/uid_map", "0 " + uid + " 1") &&
             write("/proc/self/gid_map", "0 " + gid + " 1");
    }
    if (ok && (flags & CLONE_NEWNS) != 0)
        ok = mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) == 0;
    if (!ok)
        perror("cannot enter a namespace");
    return ok;
}

/**
 * Gives up root's rights for good, so that permissions count. For a child process only.
 *
 * @return whether the process has none now; says why not
 */
inline bool dropRoot() {
    const unsigned nobody = 65534;
    if (geteuid() != 0)
        return true;
    if (setgroups(0, nullptr) == 0 && setgid(nobody) == 0 && setuid(nobody) == 0)
        return true;
    perror("cannot become an ordinary user");
    return false;
}

} // namespace vkatest

#endif
