// SPDX-License-Identifier: MIT
#ifndef TESTS_SUPPORT_TRANSFER_H
#define TESTS_SUPPORT_TRANSFER_H

#include <cerrno>
#include <cstdio>
#include <string>
#include <sys/types.h>
#include <unistd.h>
#include <utility>

namespace vkatest {

/** Makes a system call again as long as a signal interrupts it. @return its result */
template <typename Call>
auto uninterrupted(Call call) {
    auto result = call();
    while (result == -1 && errno == EINTR)
        result = call();
    return result;
}

/** Writes all, piece by piece if need be. @return whether it could */
inline bool writeAll(int fd, const std::string& bytes) {
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t taken =
            uninterrupted([&] { return write(fd, bytes.data() + done, bytes.size() - done); });
        if (taken <= 0)
            return false;
        done += static_cast<size_t>(taken);
    }
    return true;
}

/** Reads so many bytes. @return them, or what came before the end or a failure */
inline std::string readAll(int fd, size_t size) {
    std::string bytes(size, '\0');
    size_t have = 0;
    while (have < size) {
        const ssize_t got = uninterrupted([&] { return read(fd, &bytes[have], size - have); });
        if (got <= 0)
            break;
        have += static_cast<size_t>(got);
    }
    bytes.resize(have);
    return bytes;
}

/** Runs a command through popen(). @return its wait status, and what it printed */
inline std::pair<int, std::string> popenOf(const std::string& cmd) {
    FILE* const file = popen(cmd.c_str(), "r");
    if (!file)
        return {-1, ""};
    std::string bytes;
    while (feof(file) == 0) {
        const int c = fgetc(file);
        if (c != EOF)
            bytes += static_cast<char>(c);
        else if (ferror(file) != 0 && errno != EINTR)
            break;
    }
    return {pclose(file), bytes};
}

} // namespace vkatest

#endif
