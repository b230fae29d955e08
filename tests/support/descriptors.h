// SPDX-License-Identifier: MIT
#ifndef TESTS_SUPPORT_DESCRIPTORS_H
#define TESTS_SUPPORT_DESCRIPTORS_H

#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <set>
#include <unistd.h>
#include <utility>

namespace vkatest {

/** The descriptors that this process has open; compare before and after. */
inline std::set<int> openDescriptors() {
    std::set<int> found;
    DIR* dir = opendir("/proc/self/fd");
    if (!dir)
        abort();
    while (const dirent* entry = readdir(dir)) {
        if (entry->d_name[0] != '.' && atoi(entry->d_name) != dirfd(dir))
            found.insert(atoi(entry->d_name));
    }
    closedir(dir);
    return found;
}

/** Counts open descriptors besides those given; -1 if a program executed now would get one. */
inline int closedOnExec(const std::set<int>& besides) {
    int count = 0;
    for (int fd : openDescriptors()) {
        if (besides.count(fd) != 0)
            continue;
        if ((fcntl(fd, F_GETFD) & FD_CLOEXEC) == 0)
            return -1;
        ++count;
    }
    return count;
}

/** Owns one descriptor. */
class Fd {
public:
    explicit Fd(int _fd = -1) : fd(_fd) {}
    ~Fd() { reset(); }
    Fd(Fd&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
    Fd& operator=(Fd&& other) noexcept {
        std::swap(fd, other.fd);
        return *this;
    }
    int get() const { return fd; }
    void reset(int _fd = -1) {
        if (fd != -1)
            close(fd);
        fd = _fd;
    }

private:
    int fd;
};

/** Both ends of a pipe. */
struct Pipe {
    explicit Pipe(int flags = 0) {
        int fds[2];
        if (pipe2(fds, flags) == -1)
            abort();
        readEnd.reset(fds[0]);
        writeEnd.reset(fds[1]);
    }
    Fd readEnd, writeEnd;
};

} // namespace vkatest

#endif
