// SPDX-License-Identifier: MIT
// Process control.
#include "child_program.h"
#include "scenario.h"

#include <libqvproc/Proc>
#include <tests/support/tempdir.h>
#include <tests/support/wait.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <sys/wait.h>

namespace {

pid_t startChild(Proc& proc) {
    const pid_t child = proc.fork();
    if (child == 0)
        while (true)
            pause();
    return child;
}

/** Children that exit at once. */
void startEnding(Proc& proc, int count) {
    for (int i = 0; i < count; ++i) {
        const pid_t child = proc.fork();
        if (child == 0)
            _exit(3);
        siginfo_t info;
        waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT);
    }
}

/** Ends what the object still knows of, undisturbed: any other child that stays was forgotten. */
std::string left(Proc& proc) {
    const bool some = proc.hasChildren();
    proc.stopChildren();
    return some ? ", some left" : ", none left";
}

std::string forkOne() {
    const Program cleanUp("");
    Proc proc(getpid());
    const std::string outcome = armedResult([&] {
        const pid_t child = proc.fork();
        if (child == 0)
            _exit(proc.hasChildren());
        return child > 0 ? 1 : -1;
    });
    return outcome + left(proc);
}

std::string killOne() {
    const Program cleanUp("");
    Proc parent(getpid());
    Proc proc(startChild(parent));
    const std::string outcome = armedResult([&] { return proc.kill(true); });
    return outcome + left(parent);
}

std::string killChildren() {
    const Program cleanUp("");
    Proc proc(getpid());
    startChild(proc);
    startChild(proc);
    const std::string outcome = armedResult([&] { return proc.killChildren(SIGTERM); });
    return outcome + left(proc);
}

std::string waitForOne() {
    const Program cleanUp("");
    Proc proc(getpid());
    startEnding(proc, 1);
    int status = -1;
    siginfo_t info = {};
    waitid(P_ALL, 0, &info, WEXITED | WNOWAIT);
    const std::string outcome =
        armedResult([&] { return proc.wait(info.si_pid, true, &status) == -1 ? -1 : 0; });
    return outcome + left(proc);
}

std::string waitChild() {
    const Program cleanUp("");
    Proc proc(getpid());
    startEnding(proc, 2);
    const std::string outcome = armedResult([&] { return proc.waitChild(true) == -1 ? -1 : 0; });
    return outcome + left(proc);
}

std::string waitForRunning() {
    const Program cleanUp("");
    Proc proc(getpid());
    const pid_t child = proc.fork();
    if (child == 0) {
        usleep(3000); // ends while it is waited for
        _exit(3);
    }
    const std::string outcome = armedResult([&] { return proc.waitChild(true) == -1 ? -1 : 0; });
    return outcome + left(proc);
}

std::string waitChildren(bool blocking) {
    const Program cleanUp("");
    Proc proc(getpid());
    startEnding(proc, 3);
    Proc::pidset_t ended;
    const std::string outcome =
        armedResult([&] { return proc.waitChildren(blocking, ended) == -1 ? -1 : 0; });
    return outcome + ", " + std::to_string(ended.size()) + " of them" + left(proc);
}

std::string stopChildren() {
    const Program cleanUp("");
    Proc proc(getpid());
    startChild(proc);
    startChild(proc);
    Proc::pidset_t stopped;
    const std::string outcome = armed([&] { stopped = proc.stopChildren(); });
    return outcome + ", " + std::to_string(stopped.size()) + " of them" + left(proc);
}

/** A copy of sleep(1) that runs as long as this lives. */
class Sleeper {
public:
    /** @param argument its argument 0 */
    Sleeper(const std::string& program, const std::string& argument) : pid(::fork()) {
        if (pid == 0) {
            execl(program.c_str(), argument.c_str(), "1000", nullptr);
            _exit(1);
        }
        const std::string line = "/proc/" + std::to_string(pid) + "/cmdline";
        const std::string words = argument + std::string("\0001000\0", 6);
        vkatest::waitUntil([&] { return vkatest::contentOf(line) == words; });
    }
    ~Sleeper() {
        ::kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    Sleeper(const Sleeper&) = delete;
    Sleeper& operator=(const Sleeper&) = delete;

    const pid_t pid;
};

/** Looks for two processes: by the first one's argument and the title of the other, then by path.
 */
std::string lookUp() {
    const vkatest::TempDir dir;
    const std::string name = std::filesystem::path(dir.path()).filename(), path = dir / name;
    vkatest::copyProgram("/bin/sleep", path);
    const Sleeper one(path, name), two(path, "a title");
    const pid_t first = std::min(one.pid, two.pid), second = std::max(one.pid, two.pid);

    Proc::pidvec_t names(1, Proc::entry_t<Proc::pidset_t>(path));
    pid_t found = 0;
    int foundError = 0, namesError = 0;
    std::string line;
    Proc::timesMem_t figures(0, 0, 0);
    const std::string outcome = armed([&] {
        found = Proc::pidof(name.c_str());
        foundError = errno;
        Proc::pidof(names);
        namesError = errno;
        line = Proc::stat(getpid());
        figures = Proc::statTimesMem(line);
    });
    Proc::pidset_t others = names[0].value;
    others.erase(first);
    others.erase(second);
    return outcome + ", " +
           (found == first    ? "first"
            : found == second ? "second"
            : found == -1     ? "none: " + std::to_string(foundError)
                              : "wrong") +
           ", " +
           (!others.empty()          ? "wrong"
            : names[0].value.empty() ? "none: " + std::to_string(namesError)
                                     : std::to_string(names[0].value.size()) + " by path") +
           (line.empty() ? ", no line" : ", its line");
}

const std::vector<Rule> waitRules = {
    {"waitpid:EINTR", "="},
    {"waitpid:ECHILD", "=|-1 $E, none left|-1 $E, 0 of them, none left|0, none left|"
                       "0, ? of them, none left"},
    {"waitpid", "-1 $E, *"},
    {"poll", "="},
    {"pidfd_open", "="},
    {"close", "="},
    {"malloc", "=|bad_alloc, *"},
};

// What cannot be read of one process does not hide the others, and the link to its executable is
// found in any case. 3 is ESRCH.
const char oneUnread[] = "=|done, second, 2 by path, its line|done, first, 2 by path, no line";
const char someUnread[] = "=|done, second, 2 by path, its line|done, none: 3, 2 by path, its line|"
                          "done, none: 3, 2 by path, no line|done, first, 2 by path, no line";

} // namespace

std::vector<Scenario> processScenarios() {
    return {
        {"fork",
         forkOne,
         {{"fork", "-1 $E, none left"}, {"malloc", "-1 12, none left"}, {"waitpid", "="}},
         0},
        {"kill", killOne, {{"kill", "-1 $E, some left"}}, 0},
        {"kill-children", killChildren, {{"kill", "-1 $E, some left"}, {"waitid", "="}}, 0},
        {"wait", waitForOne, waitRules, 0},
        {"wait-child", waitChild, waitRules, 0},
        {"wait-for-a-running-child", waitForRunning, waitRules, 0},
        {"wait-children", [] { return waitChildren(false); }, waitRules, 0},
        {"wait-children-blocking", [] { return waitChildren(true); }, waitRules, 0},
        {"stop-children",
         stopChildren,
         {
             {"+kill#1", "done, 2 of them, some left"},
             {"+kill#2", "done, 2 of them, some left"}, // the others only continue them
             {"waitpid:EINTR", "="},
             {"waitpid:EAGAIN", "="}, // it looks again until the last moment
             {"waitpid:ECHILD", "="},
             {"+waitpid", "done, 2 of them, some left"},
             {"waitpid", "="},
             {"kill", "="},
             {"waitid", "="},
             {"poll", "="},
             {"pidfd_open", "="},
             {"close", "="},
             {"malloc", "=|bad_alloc, *"},
         },
         0},
        {"look-up",
         lookUp,
         {
             {"+opendir#1", "done, none: $E, none: $E, its line"},
             {"opendir#1", "done, none: $E, 2 by path, its line"},
             {"opendir", "done, first, none: $E, its line"},
             {"+readdir64", "done, none: $E, none: $E, its line|done, first, none: $E, its line"},
             {"readdir64", "done, none: $E, 2 by path, its line|done, first, none: $E, its line"},
             {"+readlink", "=|done, first, 1 by path, its line|done, first, none: 3, its line"},
             {"readlink", "=|done, first, 1 by path, its line"},
             {"read:EINTR", "="},
             {"+open", someUnread},
             {"open", oneUnread},
             {"+read", someUnread},
             {"read", oneUnread},
             {"close", "="},
             {"malloc", "=|bad_alloc, *|done, none: 12, 2 by path, its line|"
                        "done, first, none: 12, its line"},
         },
         0},
    };
}
