// SPDX-License-Identifier: MIT
// Lets each call of each scenario fail in turn, each failure in a process of its own, and judges
// what comes of it. Run it through tests/fault/run.
#include "child_program.h"
#include "leave.h"
#include "memory.h"
#include "scenario.h"

#include <tests/support/descriptors.h>
#include <tests/support/wait.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fnmatch.h>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <poll.h>
#include <set>
#include <sstream>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace vkatest;

const inject::Fault* fault = nullptr;

namespace {

const int limitMs = 15000; // for a failing run and the good one behind it
const int reportFd = 100;
const int complaintsAtMost = 20; // a scenario is given up then
const int triesToHit = 5;        // where the number of calls depends on the scheduler

struct Injection {
    const Scenario* scenario;
    inject::Fault fault;
};

std::vector<Scenario> allScenarios() {
    std::vector<Scenario> all;
    for (const auto& some : {fileScenarios(), processScenarios(), agentScenarios(),
                             relayScenarios(), buildScenarios(), hostScenarios()})
        all.insert(all.end(), some.begin(), some.end());
    return all;
}

bool anyOf(const std::string& patterns, const std::string& outcome, const std::string& good,
           int error) {
    std::istringstream parts(patterns);
    for (std::string pattern; std::getline(parts, pattern, '|');) {
        for (size_t found; (found = pattern.find("$E")) != std::string::npos;)
            pattern.replace(found, 2, std::to_string(error));
        for (size_t found; (found = pattern.find("$S")) != std::string::npos;)
            pattern.replace(found, 2, strerror(error));
        if (pattern == "=" ? outcome == good
                           : fnmatch(pattern.c_str(), outcome.c_str(), FNM_NOESCAPE) == 0)
            return true;
    }
    return false;
}

/** Is the rule about this fault? */
bool concerns(const Rule& rule, const inject::Fault& injected) {
    std::string calls = rule.calls;
    if (calls == "*")
        return true;
    if (calls[0] == '+') {
        if (!injected.forGood)
            return false;
        calls.erase(0, 1);
    }
    std::string role;
    if (calls[0] == '/') {
        role = calls.substr(0, calls.find(':'));
        calls.erase(0, role.size() + 1);
    }
    const std::string name = injected.function->name,
                      number = name + '#' + std::to_string(injected.number),
                      error = ':' + inject::errorName(injected.error);
    return role == injected.role &&
           (calls == name || calls == number || calls == name + error || calls == number + error);
}

/** @return the rule about this fault, or null */
const Rule* ruleFor(const Injection& injection) {
    for (const Rule& rule : injection.scenario->rules)
        if (concerns(rule, injection.fault))
            return &rule;
    return nullptr;
}

/** @return a complaint, or "" */
std::string judge(const Injection& injection, const std::string& outcome, const std::string& good) {
    const Rule* const rule = ruleFor(injection);
    if (!rule)
        return "gives \"" + outcome + "\", and no rule tells what is promised";
    return anyOf(rule->outcomes, outcome, good, injection.fault.error)
               ? ""
               : "gives \"" + outcome + "\" where \"" + rule->outcomes + "\" is promised";
}

std::set<pid_t> childrenOf(pid_t pid) {
    std::set<pid_t> found;
    const std::string self = std::to_string(pid);
    std::ifstream children("/proc/" + self + "/task/" + self + "/children");
    for (pid_t child; children >> child;)
        found.insert(child);
    return found;
}

/** What a run must leave behind as it was. */
struct Surroundings {
    std::set<int> descriptors = openDescriptors();

    /**
     * @param leak descriptors that may stay open
     * @return a complaint, or ""
     */
    std::string leftBy(size_t leak) const {
        // A process that was told to end, or that is none of ours any more, needs a moment.
        if (!waitUntil([] { return childrenOf(getpid()).empty() || reapOrphans(); },
                       std::chrono::milliseconds(3000)))
            return "leaves a process running";
        const std::set<int> now = openDescriptors();
        if (now.size() > descriptors.size() + leak || now.size() < descriptors.size())
            return "leaves " + std::to_string(now.size()) + " descriptors open, of " +
                   std::to_string(descriptors.size()) + " before";
        for (int fd : now)
            if (descriptors.count(fd) == 0)
                close(fd);
        return "";
    }

private:
    /** Orphans become this process's children. @return whether nobody is left */
    static bool reapOrphans() {
        while (waitpid(-1, nullptr, WNOHANG) > 0) {
        }
        return childrenOf(getpid()).empty();
    }
};

/** What came of one run. */
struct Result {
    std::string outcome;
    long blocks; // more that are allocated than before
    bool child;  // that was started and that nobody has reaped
};

Result runOnce(const Scenario& scenario) {
    static char outcome[10000]; // so that it is no block
    inject::leavesChildren();   // what earlier runs have found
    const size_t before = inject::liveBlocks();
    {
        const std::string text = scenario.run();
        outcome[text.copy(outcome, sizeof(outcome) - 1)] = '\0';
    }
    const long blocks = static_cast<long>(inject::liveBlocks() - before);
    inject::lookForChildren();
    return {outcome, blocks, inject::leavesChildren()};
}

/** What is known of a scenario from running it undisturbed. */
struct Good {
    std::string outcome;
    long blocks = 0; // that it leaves allocated
    std::vector<inject::Call> calls;
};

Good runWell(const Scenario& scenario) {
    Good good;
    std::map<std::string, std::vector<inject::Call>> seen;
    std::map<std::string, size_t> least;
    for (int round = 0; round < 3; ++round) {
        const Result result = runOnce(scenario);
        if (round != 0 && result.outcome != good.outcome)
            throw std::runtime_error(std::string(scenario.name) + " gives \"" + good.outcome +
                                     "\" and then \"" + result.outcome + '"');
        if (!scenario.good.empty() && result.outcome != scenario.good)
            throw std::runtime_error(std::string(scenario.name) + " gives \"" + result.outcome +
                                     "\" instead of \"" + scenario.good + '"');
        if (result.child)
            throw std::runtime_error(std::string(scenario.name) + " leaves a child unreaped");
        good.outcome = result.outcome;
        good.blocks = round == 0 ? 0 : std::max(good.blocks, result.blocks);
        // Where the number of calls varies only those count that every run makes.
        std::map<std::string, std::vector<inject::Call>> calls;
        for (const inject::Call& call : inject::recorded())
            calls[call.role + ':' + call.function->name].push_back(call);
        for (auto& entry : calls) {
            const size_t size = entry.second.size();
            const auto found = least.find(entry.first);
            least[entry.first] = found == least.end() ? size : std::min(found->second, size);
            seen[entry.first] = entry.second;
        }
        if (round != 0)
            for (auto& entry : least)
                if (calls.count(entry.first) == 0)
                    entry.second = 0;
    }
    for (const auto& entry : seen)
        good.calls.insert(good.calls.end(), entry.second.begin(),
                          entry.second.begin() + static_cast<long>(least[entry.first]));
    return good;
}

/** @return a complaint about what a run has left behind, or "" */
std::string leftBehind(const Surroundings& before, const Result& result, const Good& good,
                       size_t leak, bool leavesChild) {
    if (result.child && !leavesChild)
        return "leaves a child unreaped";
    if (result.blocks > good.blocks)
        return "leaks " + std::to_string(result.blocks - good.blocks) + " blocks of memory";
    return before.leftBy(leak);
}

/** In a process of its own: the failing run, then a good one. @return its status: 0, 1 or 2 */
int tryOut(const Injection& injection, const Good& good, int report) {
    std::string complaint;
    {
        const Surroundings before;
        fault = &injection.fault;
        const Result result = runOnce(*injection.scenario);
        fault = nullptr;
        if (inject::hits() == 0)
            return 2;
        complaint = judge(injection, result.outcome, good.outcome);
        if (complaint.empty())
            complaint = leftBehind(before, result, good, injection.scenario->leak,
                                   ruleFor(injection)->leavesChild);
    }
    if (complaint.empty()) {
        const Surroundings before;
        const Result result = runOnce(*injection.scenario);
        if (result.outcome != good.outcome)
            complaint =
                "is followed by \"" + result.outcome + "\" instead of \"" + good.outcome + '"';
        else
            complaint = leftBehind(before, result, good, 0, false);
        if (!complaint.empty())
            complaint = "a good run behind it " + complaint;
    }
    if (complaint.empty())
        return 0;
    return write(report, complaint.data(), complaint.size()) == -1 ? 3 : 1;
}

/** Ends a run that takes too long, with all that it has started. */
void killAll(pid_t pid) {
    ::kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    for (std::set<pid_t> orphans; !(orphans = childrenOf(getpid())).empty();)
        for (pid_t orphan : orphans) {
            ::kill(orphan, SIGKILL);
            waitpid(orphan, nullptr, 0);
        }
}

/** @return "", a complaint, or "?" when the call was not made this time */
std::string carryOut(const Injection& injection, const Good& good) {
    Pipe report(O_CLOEXEC);
    const pid_t pid = ::fork();
    if (pid == 0) {
        prctl(PR_SET_CHILD_SUBREAPER, 1);
        leave(tryOut(injection, good, report.writeEnd.get()));
    }
    report.writeEnd.reset();
    const Fd ended(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    pollfd entry = {ended.get(), POLLIN, 0};
    if (poll(&entry, 1, limitMs) != 1) {
        killAll(pid);
        return "hangs";
    }
    int status = 0;
    waitpid(pid, &status, 0);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0)
        return "";
    if (WIFEXITED(status) && WEXITSTATUS(status) == 2)
        return "?";
    killAll(pid);
    char text[4096];
    const ssize_t got = read(report.readEnd.get(), text, sizeof(text));
    return got > 0 ? std::string(text, static_cast<size_t>(got))
                   : "ends the process, wait status " + std::to_string(status);
}

struct Arguments {
    std::string scenario, replay;
    bool calls = true, allocations = true, list = false, install = false;
    unsigned part = 0, parts = 1, sample = 1;
};

Arguments parse(int argc, char* argv[]) {
    Arguments arguments;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        const auto value = [&] {
            if (++i == argc)
                throw std::invalid_argument(word + " needs a value");
            return std::string(argv[i]);
        };
        if (word == "--scenario")
            arguments.scenario = value();
        else if (word == "--replay")
            arguments.replay = value();
        else if (word == "--calls")
            arguments.allocations = false;
        else if (word == "--allocations")
            arguments.calls = false;
        else if (word == "--list")
            arguments.list = true;
        else if (word == "--install")
            arguments.install = true;
        else if (word == "--sample")
            arguments.sample = std::max(1u, static_cast<unsigned>(std::stoul(value())));
        else if (word == "--part")
            arguments.part = static_cast<unsigned>(std::stoul(value()));
        else if (word == "--parts")
            arguments.parts = static_cast<unsigned>(std::stoul(value()));
        else
            throw std::invalid_argument("unknown argument " + word);
    }
    return arguments;
}

std::vector<Injection> injectionsOf(const Scenario& scenario, const Good& good,
                                    const Arguments& arguments) {
    std::vector<Injection> all;
    for (const inject::Call& call : good.calls) {
        const bool allocation = strcmp(call.function->name, "malloc") == 0;
        if (allocation ? !arguments.allocations : !arguments.calls)
            continue;
        for (int error : call.function->errors)
            for (bool forGood : {false, true}) {
                // Memory that comes back at once is none that was interrupted.
                if (allocation && error != ENOMEM)
                    continue;
                inject::Fault next;
                next.role = call.role;
                next.function = call.function;
                next.number = call.number;
                next.error = error;
                next.forGood = forGood;
                all.push_back({&scenario, next});
            }
    }
    return all;
}

/** @return "", a complaint, or "?" when the call was not made in any of some attempts */
std::string attempt(const Injection& injection, const Good& good) {
    std::string complaint = "?";
    for (int tries = 0; tries < triesToHit && complaint == "?"; ++tries)
        complaint = carryOut(injection, good);
    // Where that is promised nobody is left to look at the rest.
    if (complaint.compare(0, 4, "ends") == 0 &&
        judge(injection, "the process ends", good.outcome).empty())
        complaint.clear();
    return complaint;
}

/** The same; a complaint has to come twice, as a machine that stands still for seconds gives one.
 */
std::string confirmedAttempt(const Injection& injection, const Good& good) {
    std::string complaint = attempt(injection, good);
    if (complaint.empty() || complaint == "?")
        return complaint;
    for (int again = 0; again < 2; ++again) {
        complaint = attempt(injection, good);
        if (!complaint.empty() && complaint != "?")
            return complaint;
    }
    return "";
}

Good runWellAtLast(const Scenario& scenario) {
    for (int left = 2;; --left) {
        try {
            return runWell(scenario);
        } catch (const std::runtime_error&) {
            if (left == 0)
                throw;
        }
    }
}

/** @return the number of complaints */
int runScenario(const Scenario& scenario, const Arguments& arguments, int report) {
    const Stopwatch watch;
    const Good good = runWellAtLast(scenario);
    std::vector<Injection> injections;
    if (arguments.replay.empty())
        injections = injectionsOf(scenario, good, arguments);
    else
        injections.push_back(
            {&scenario, inject::Fault::parse(arguments.replay.substr(strlen(scenario.name)))});
    size_t done = 0, missed = 0;
    int complaints = 0;
    const size_t step = arguments.parts * arguments.sample;
    for (size_t i = arguments.part * arguments.sample;
         i < injections.size() && complaints < complaintsAtMost; i += step) {
        const std::string complaint = confirmedAttempt(injections[i], good);
        if (complaint == "?") {
            ++missed;
            continue;
        }
        ++done;
        if (complaint.empty())
            continue;
        ++complaints;
        dprintf(report, "FAILED: %s\n  tests/fault/run --replay '%s%s'\n", complaint.c_str(),
                scenario.name, injections[i].fault.text().c_str());
    }
    dprintf(report, "scenario %s %zu %zu %d %ld \"%s\"\n", scenario.name, done, missed, complaints,
            watch.ms(), good.outcome.c_str());
    return complaints;
}

} // namespace

int main(int argc, char* argv[]) {
    try {
        const Arguments arguments = parse(argc, argv);
        // Log lines of the agent; the report keeps the real standard output.
        const int report = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, reportFd);
        const Fd null(open("/dev/null", O_RDWR | O_CLOEXEC));
        prctl(PR_SET_CHILD_SUBREAPER, 1);
        if (!arguments.list) {
            dup2(null.get(), STDOUT_FILENO);
            dup2(null.get(), STDERR_FILENO);
        }
        if (arguments.install) {
            installProgram();
            return 0;
        }
        bool found = false;
        int complaints = 0;
        for (const Scenario& scenario : allScenarios()) {
            const std::string start = std::string(scenario.name) + ':';
            const bool child = arguments.replay.compare(0, start.size() - 1, scenario.name) == 0 &&
                               (arguments.replay[start.size() - 1] == ':' ||
                                arguments.replay[start.size() - 1] == '/');
            if (arguments.list) {
                std::cout << scenario.name << std::endl;
            } else if (arguments.replay.empty()
                           ? arguments.scenario.empty() || arguments.scenario == scenario.name
                           : child) {
                found = true;
                complaints += runScenario(scenario, arguments, report);
            }
        }
        if (!found && !arguments.list)
            throw std::invalid_argument("no such scenario");
        return complaints == 0 ? 0 : 1;
    } catch (const std::exception& err) {
        dprintf(reportFd, "FAILED: %s\n", err.what());
        return 2;
    }
}
