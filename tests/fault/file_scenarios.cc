// SPDX-License-Identifier: MIT
// File, command, socket and terminal helpers.
#include "scenario.h"

#include <libqvio/fileutils>
#include <libqvio/ptypair>
#include <libqvio/sockaddr>
#include <libqvutil/utility>
#include <tests/support/descriptors.h>
#include <tests/support/tempdir.h>

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/socket.h>

using namespace vkatest;

namespace {

std::string makePath() {
    const TempDir dir;
    const std::string path = dir / "a/b/c/d/e";
    const std::string outcome = armedResult([&] { return mkdirPath(path, 0777); });
    return outcome + (exists(path) ? ", made" : "");
}

std::string makeExistingPath() {
    const TempDir dir;
    const std::string path = dir.makeDir("a/b/c");
    return armedResult([&] { return mkdirPath(path, 0777); });
}

std::string lookAtDirectory() {
    const TempDir dir;
    bool is = false;
    const std::string outcome = armedResult([&] {
        is = isDirectory(dir.path());
        return is ? 1 : -1;
    });
    return outcome;
}

/** A tree of 5 directories of 4 directories of 2 files, and some at its top. */
std::string removeTree(bool flag) {
    const TempDir dir;
    for (const char* outer : {"v", "w", "x", "y", "z"})
        for (const char* inner : {"1", "2", "3", "4"}) {
            const std::string name = std::string("t/") + outer + '/' + inner;
            dir.makeDir(name);
            dir.makeFile(name + "/f");
            dir.makeFile(name + "/g");
        }
    dir.makeFile("t/f");
    dir.makeFile("beside");
    const std::string tree = dir / "t";
    const std::string outcome = armedResult([&] { return rmDir(tree, flag); });
    const char* const now = !exists(tree)                     ? ", gone"
                            : std::filesystem::is_empty(tree) ? ", emptied"
                                                              : ", some left";
    // A second call that nothing disturbs takes the rest.
    const bool atLast = !exists(tree) || (rmDir(tree, flag) == 0 && exists(tree) != flag);
    return outcome + now + (atLast ? "" : ", and for good") +
           (exists(dir / "beside") ? "" : ", too much");
}

std::string lines(const std::vector<std::string>& output) {
    size_t bytes = 0;
    for (const std::string& line : output)
        bytes += line.size();
    return std::to_string(output.size()) + " lines of " + std::to_string(bytes) + " bytes";
}

std::string command(const char* cmd) {
    std::vector<std::string> output = {"before"};
    const std::string outcome = armedResult([&] { return getCmdCallOutput(cmd, output, true); });
    if (output.empty() || output[0] != "before")
        return "cleared";
    return outcome + ", " + lines(output);
}

std::string commandWithoutChildSignal() {
    signal(SIGCHLD, SIG_IGN);
    const std::string outcome = command("echo one; exit 3");
    const bool ignored = signal(SIGCHLD, SIG_DFL) == SIG_IGN;
    return outcome + (ignored ? "" : ", disposition lost");
}

std::string terminal() {
    int master = -5, slave = -5;
    const std::string outcome = armedResult([&] { return openPtyPair(master, slave, O_RDWR); });
    const Fd closed[] = {Fd(master < 0 ? -1 : master), Fd(slave < 0 ? -1 : slave)};
    return outcome + (master == -5 && slave == -5 ? ", untouched" : ", a pair");
}

std::string listener() {
    const Fd server(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    return armed([&] {
        sockaddr_in addr;
        const socklen_t size = setInetAddr("127.0.0.1", 0, addr);
        bindSocket(server.get(), addr, size);
        listenConnection(server.get(), 1);
    });
}

std::string memorySize() {
    size_t size = 1;
    const std::string outcome = armed([&] { size = getTotalRam(); });
    return outcome + (size == 0 ? ", unknown" : ", known");
}

std::string dump() {
    std::ostringstream text;
    const byteVec_t bytes(100, 'x');
    return armed([&] { hexdump(text, bytes.begin(), bytes.end(), "x", 16, true, true); });
}

std::string exceptions() {
    std::string text;
    return armed([&] {
        QVException first("a message that is longer than what a string keeps in itself");
        first << ", more of it";
        QVException second(first);
        second = first;
        text = second.what();
        const IOException third(2, text);
        if (third.getErrorString() != strerror(2))
            throw std::runtime_error("wrong text");
    });
}

const std::vector<Rule> commandRules = {
    {"read:EINTR", "="},
    {"waitpid:EINTR", "="},
    {"close", "="},
    {"pipe2", "-1 $E, 1 lines of 6 bytes"},
    {"posix_spawn", "-1 $E, 1 lines of 6 bytes"},
    {"posix_spawn_file_actions_init", "-1 $E, 1 lines of 6 bytes"},
    {"posix_spawn_file_actions_adddup2", "-1 $E, 1 lines of 6 bytes"},
    {"posix_spawnattr_init", "-1 $E, 1 lines of 6 bytes"},
    {"read", "-1 $E, * lines of * bytes"},
    // Behind the command's end, where the kernel would have reaped it: other children of the host.
    {"waitpid#2", "="},
    {"waitpid", "-1 $E, * lines of * bytes", true},
    {"malloc", "=|bad_alloc, * lines of * bytes|-1 12, 1 lines of 6 bytes"},
};

const std::vector<Rule> treeRules = {
    {"close", "="},
    // What is gone by the kernel's word is left alone; its directory is not empty then.
    {"unlinkat:ENOENT", "=|0, some left|0, emptied|-1 39, *|-1 2, *"},
    // What is no file any more is a directory, or so it seems.
    {"unlinkat:EISDIR", "=|-1 $E, some left|-1 $E, emptied"},
    {"openat:ENOENT", "0, some left|-1 39, some left|-1 2, some left"},
    // It tries to remove what seems to be no directory, and that is one: EISDIR.
    {"openat:ENOTDIR", "-1 $E, some left|-1 21, some left"},
    {"openat:ELOOP", "-1 $E, some left|-1 21, some left"},
    {"open", "-1 $E, some left"},
    {"openat", "-1 $E, some left|-1 $E, emptied"},
    {"fstat", "-1 $E, some left"},
    {"getdents64", "-1 $E, some left"},
    {"unlinkat", "-1 $E, some left|-1 $E, emptied"},
    {"malloc", "=|bad_alloc, some left"},
};

const std::vector<Rule> terminalRules = {
    {"close", "="},
    {"posix_openpt", "-1 $E, untouched"},
    {"grantpt", "-1 $E, untouched"},
    {"unlockpt", "-1 $E, untouched"},
    {"ptsname_r", "-1 $E, untouched"},
    {"open", "-1 $E, untouched"},
    {"malloc", "="},
};

} // namespace

std::vector<Scenario> fileScenarios() {
    return {
        {"make-path",
         makePath,
         {
             // What exists, or so it seems, but is no directory: ENOTDIR, or EEXIST if it is last.
             {"mkdir:EEXIST", "=|-1 20|-1 17"},
             {"mkdir", "=|-1 $E"},
             {"stat", "-1 20"},
             {"malloc", "=|bad_alloc"},
         },
         0},
        {"make-existing-path",
         makeExistingPath,
         {{"mkdir", "="}, {"stat", "-1 20|-1 17"}, {"malloc", "=|bad_alloc"}},
         0},
        {"is-directory", lookAtDirectory, {{"stat", "-1 $E"}}, 0},
        {"empty-tree", [] { return removeTree(false); }, treeRules, 0},
        {"remove-tree", [] { return removeTree(true); }, treeRules, 0},
        {"command", [] { return command("echo one; echo; echo two; exit 3"); }, commandRules, 0},
        {"command-with-much-output",
         [] { return command("yes $(printf %05999d 0) | head -c 300000"); }, // several reads
         commandRules, 0},
        {"command-under-ignored-sigchld", commandWithoutChildSignal, commandRules, 0},
        {"terminal", terminal, terminalRules, 0},
        {"listener",
         listener,
         {
             {"getaddrinfo", "IOException $E cannot resolve host 127.0.0.1"},
             {"bind", "IOException $E cannot bind socket to 127.0.0.1:0"},
             {"listen", "IOException $E cannot listen on socket"},
             {"malloc", "=|bad_alloc|QVException cannot resolve host *|"
                        "IOException 12 cannot resolve host *"},
         },
         0},
        {"memory-size", memorySize, {{"sysinfo", "done, unknown"}}, 0},
        {"hex-dump", dump, {{"malloc", "="}}, 0},
        {"exceptions", exceptions, {{"malloc", "=|bad_alloc|exception wrong text"}}, 0},
    };
}
