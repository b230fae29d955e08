// SPDX-License-Identifier: MIT
#ifndef TESTS_SUPPORT_CLIENT_TERMINAL_H
#define TESTS_SUPPORT_CLIENT_TERMINAL_H

#include <tests/support/client_agent.h>
#include <tests/support/transfer.h>
#include <tests/support/wait.h>

#include <poll.h>
#include <string>
#include <termios.h>
#include <unistd.h>

namespace vkatest {

inline void makeRaw(int terminal) {
    termios tios;
    tcgetattr(terminal, &tios);
    cfmakeraw(&tios);
    tcsetattr(terminal, TCSANOW, &tios);
}

/** Reads until the end of what was read is the given text. @return all, or what came in time */
inline std::string readUntil(int fd, const std::string& end) {
    std::string all;
    const Stopwatch watch;
    while (all.size() < end.size() || all.compare(all.size() - end.size(), end.size(), end) != 0) {
        pollfd entry = {fd, POLLIN, 0};
        if (watch.ms() > patience.count() ||
            uninterrupted([&] { return poll(&entry, 1, 1000); }) == -1)
            break;
        char character;
        if (entry.revents != 0 && uninterrupted([&] { return read(fd, &character, 1); }) != 1)
            break;
        if (entry.revents != 0)
            all += character;
    }
    return all;
}

/** What was written to the agent's terminal so far and has not been read. */
inline std::string takeOutput(const Agent& agent) {
    const std::string mark = "#end of output#"; // arrives behind everything before
    if (!writeAll(agent.slave, mark))
        return "cannot write the mark";
    const std::string all = readUntil(agent.master, mark);
    return all.size() < mark.size() ? all + "(no mark)" : all.substr(0, all.size() - mark.size());
}

} // namespace vkatest

#endif
