// SPDX-License-Identifier: MIT
// Process control.
#include "child_program.h"
#include "scenario.h"

#include <libqvproc/Proc>

#include <csignal>
#include <sstream>
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

std::string left(const Proc& proc) {
    return proc.hasChildren() ? ", some left" : ", none left";
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
    return armedResult([&] { return proc.kill(true); });
}

std::string killChildren() {
    const Program cleanUp("");
    Proc proc(getpid());
    startChild(proc);
    startChild(proc);
    return armedResult([&] { return proc.killChildren(SIGTERM); });
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

std::string lookUp() {
    const Program cleanUp("");
    Proc::pidvec_t names(1, Proc::entry_t<Proc::pidset_t>("no such program"));
    pid_t found = 0;
    std::string line;
    Proc::timesMem_t figures(0, 0, 0);
    const std::string outcome = armed([&] {
        found = Proc::pidof("no such program");
        Proc::pidof(names);
        line = Proc::stat(getpid());
        figures = Proc::statTimesMem(line);
    });
    std::ostringstream text;
    text << names[0].value;
    return outcome + ", " + std::to_string(found) + ' ' + text.str() +
           (line.empty() ? ", no line" : ", its line");
}

const std::vector<Rule> waitRules = {
    {"waitpid:EINTR", "="},
    {"waitpid:ECHILD", "=|-1 $E, *|0, *"},
    {"waitpid", "-1 $E, *|=|0, *"},
    {"poll", "="},
    {"pidfd_open", "="},
    {"close", "="},
    {"malloc", "=|bad_alloc, *"},
};

} // namespace

std::vector<Scenario> processScenarios() {
    return {
        {"fork",
         forkOne,
         {{"fork", "-1 $E, none left"}, {"malloc", "-1 12, none left"}, {"waitpid", "="}},
         0},
        {"kill", killOne, {{"kill", "-1 $E"}}, 0},
        {"kill-children", killChildren, {{"kill", "-1 $E"}, {"waitid", "="}}, 0},
        {"wait", waitForOne, waitRules, 0},
        {"wait-child", waitChild, waitRules, 0},
        {"wait-for-a-running-child", waitForRunning, waitRules, 0},
        {"wait-children", [] { return waitChildren(false); }, waitRules, 0},
        {"wait-children-blocking", [] { return waitChildren(true); }, waitRules, 0},
        {"stop-children",
         stopChildren,
         {
             {"+kill", "=|done, 2 of them, some left"},
             {"+waitid", "=|done, 2 of them, some left"},
             {"+waitpid:EINTR", "="},
             {"+waitpid", "=|done, * of them, *"},
             {"waitpid", "=|done, * of them, *"},
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
             {"opendir", "="},
             {"readdir64", "="},
             {"readlink", "="},
             {"open", "=|done, -1 {}, no line"},
             {"read:EINTR", "="},
             {"read", "=|done, -1 {}, no line"},
             {"close", "="},
             {"malloc", "=|bad_alloc, *|done, -1 {}, no line"},
         },
         0},
    };
}
