// SPDX-License-Identifier: MIT
#include "child_program.h"
#include "inject.h"

#include <tests/support/wait.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

/** A child of this process, without reaping it; 0 for none. */
pid_t anyChild(int flags, siginfo_t& info) {
    info = siginfo_t();
    return waitid(P_ALL, 0, &info, WEXITED | WNOWAIT | flags) == 0 ? info.si_pid : -1;
}

std::string readAll(int fd) {
    std::string all;
    pollfd entry = {fd, POLLIN, 0};
    while (poll(&entry, 1, 0) == 1 && (entry.revents & POLLIN) != 0) {
        char buf[4096];
        const ssize_t got = read(fd, buf, sizeof(buf));
        if (got <= 0)
            break;
        all.append(buf, static_cast<size_t>(got));
    }
    return all;
}

} // namespace

void installProgram() {
    if (!getenv("VKA_SANDBOX"))
        abort();
    const char* const path = "/tmp/vkabin";
    std::ofstream(path) << "#!/bin/sh\neval \"$VKA_PROGRAM\"\n";
    std::filesystem::permissions(path, std::filesystem::perms::owner_all);
}

Program::Program(const std::string& script) {
    setenv("VKA_PROGRAM", script.c_str(), 1);
}

Program::~Program() {
    inject::lookForChildren();
    // Runs whose fault was that nobody could signal or reap the child leave it to us.
    while (true) {
        siginfo_t info;
        std::ifstream children("/proc/thread-self/children");
        pid_t child;
        if (!(children >> child))
            return;
        kill(child, SIGKILL);
        waitid(P_PID, static_cast<id_t>(child), &info, WEXITED);
    }
}

void Program::awaitStart() const {
    // The script's own shell has replaced the copy of this program.
    std::ifstream children("/proc/thread-self/children");
    pid_t child = -1;
    children >> child;
    const std::string link = "/proc/" + std::to_string(child) + "/exe";
    std::error_code ignored;
    vkatest::waitUntil(
        [&] { return std::filesystem::read_symlink(link, ignored).filename() == "sleep"; });
}

std::string programEnd(int master, const std::string& expected) {
    siginfo_t info;
    pid_t child = 0;
    vkatest::waitUntil([&] { return (child = anyChild(WNOHANG, info)) != 0; },
                       std::chrono::milliseconds(5000));
    if (child == -1)
        return "no program";
    if (child == 0)
        return "still runs";
    std::string text;
    if (master != -1) {
        std::string all = readAll(master);
        // The terminal may have become raw before or after the program wrote.
        all.erase(std::remove(all.begin(), all.end(), '\r'), all.end());
        text = all == expected ? "said it, "
               : all.empty()   ? "said nothing, "
                               : "said other things, ";
        if (all.size() > expected.size() && all.substr(all.size() - expected.size()) == expected)
            text = "said it, "; // behind the agent's debug lines
    }
    return text + (info.si_code == CLD_EXITED ? "status " : "signal ") +
           std::to_string(info.si_status);
}
