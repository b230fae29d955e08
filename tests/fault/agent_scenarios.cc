// SPDX-License-Identifier: MIT
// The agent's set-up, its child, and its end.
#include "child_program.h"
#include "scenario.h"

#include <tests/support/client_agent.h>
#include <tests/support/tempdir.h>

#include <memory>

using vkatest::TempDir;

namespace {

std::string consoleState(const Agent& agent) {
    const int open = (agent.fdServer != -1) + (agent.master != -1) + (agent.slave != -1);
    return open == 3 ? "console open" : open == 0 ? "console closed" : "console in pieces";
}

/** An agent in console mode, on a port that the kernel chose. */
struct Console : Agent {
    explicit Console(unsigned int _debug = 0) : Agent("/nowhere", true, 100000, 0, "", _debug) {}
};

std::string construct(bool console) {
    std::unique_ptr<Agent> agent;
    const std::string outcome =
        armed([&] { agent.reset(new Agent("/nowhere", console, 1000, 0, "/log", 2)); });
    // Read before the agent is gone, as what a constructor that fails leaves open nobody knows.
    return agent ? outcome + ", " + consoleState(*agent) +
                       (agent->totalram == 0 ? ", memory unknown" : "")
                 : outcome;
}

std::string destroy() {
    const Program program("exec sleep 1000");
    std::unique_ptr<Agent> agent(new Console(2));
    agent->run();
    program.awaitStart();
    return armed([&] { agent.reset(); });
}

std::string runInConsole(unsigned int debug) {
    const Program program("echo hello; exit 7"); // outlives the agent, whose child it looks for
    Console agent(debug);
    const std::string outcome = armed([&] { agent.run(); });
    return outcome + ", " + consoleState(agent) + ", " + programEnd(agent.master, "hello\n");
}

std::string runIntoLogFile() {
    const TempDir dir;
    const std::string log = dir.makeFile("log", "");
    const Program program("echo hello; exit 7");
    Agent agent("/nowhere", false, 1000, 0, log, 2);
    const std::string outcome = armed([&] { agent.run(); });
    const std::string end = programEnd(-1, "");
    return outcome + ", " + end +
           (vkatest::contentOf(log).find("hello\n") != std::string::npos ? ", said it" : "");
}

std::string runIsRefused() {
    const Program program("exec sleep 1000");
    Console agent(2);
    agent.run();
    program.awaitStart();
    const std::string outcome = armed([&] { agent.run(); });
    return outcome + ", " + consoleState(agent);
}

std::string runAfterAnEnd() {
    const Program program("echo hello; exit 7");
    Console agent;
    agent.run();
    programEnd(agent.master, "hello\n");
    const std::string outcome = armed([&] { agent.run(); });
    return outcome + ", " + consoleState(agent) + ", " + programEnd(agent.master, "hello\n");
}

std::string stop() {
    const Program program("exec sleep 1000");
    Console agent;
    agent.run();
    program.awaitStart();
    const std::string outcome = armed([&] { agent.stop(); });
    return outcome + (agent.vkaproc.hasChildren() ? ", not ended" : "");
}

std::string waitForChildren() {
    const Program program("exit 7");
    Console agent;
    agent.run();
    VKAClient::pidset_t ended;
    pid_t result = -2;
    const std::string outcome = armed([&] { result = agent.waitChildren(true, ended); });
    return outcome + (result > 0 && ended.count(result) == 1 ? ", its id" : ", no id") +
           (agent.vkaproc.hasChildren() ? ", not ended" : "");
}

const std::vector<Rule> runRules = {
    {"/1:close", "="},
    {"/1:execv", "done, console open, said other things, status 1"},
    {"/1:dup2", "done, console open, said *nothing, status 99|"
                "done, console open, said other things, status 99"},
    {"/1:strdup", "done, console open, said *, status 99"},
    {"/1:malloc", "=|done, console open, said *, status 99"},
    {"fork", "IOException $E cannot fork, console closed, no program"},
    {"tcgetattr", "IOException $E tcgetattr, console closed, *"},
    {"tcsetattr", "IOException $E tcsetattr, console closed, *"},
    {"waitpid:ECHILD", "="},
    {"waitpid:EINTR", "="},
    // The child that ended cannot be told from one that runs.
    {"waitpid", "IOException 16 VKA process(es) already running, console closed, *"},
    {"malloc", "=|bad_alloc, console open, *|IOException 12 cannot fork, console closed, *"},
};

/** What ends a child that obeys: nothing that fails once keeps it alive. */
const std::vector<Rule> stopRules = {
    {"waitpid:EINTR", "="},
    // It looks again until the last moment.
    {"waitpid:EAGAIN", "="},
    {"waitpid:ECHILD", "="},
    {"+waitpid", "done, not ended"},
    {"waitpid", "="},
    // The second one only continues it.
    {"+kill#1", "done, not ended"},
    {"kill", "="},
    {"waitid", "="},
    {"poll", "="},
    {"pidfd_open", "="},
    {"close", "="},
    {"malloc", "=|bad_alloc, not ended"},
};

/** The destructor lets no exception out, and leaves what nobody may signal or reap. */
const std::vector<Rule> destroyRules = [] {
    std::vector<Rule> rules = {
        {"malloc", "=|the process ends"},
        {"+waitpid:EINTR", "="},
        {"+waitpid:EAGAIN", "="},
        {"+waitpid:ECHILD", "="},
        // Nobody can tell that it has ended, nor end it.
        {"+waitpid", "=", true},
        {"+kill#1", "=", true},
    };
    rules.insert(rules.end(), stopRules.begin(), stopRules.end());
    return rules;
}();

const std::vector<Rule> constructRules = {
    {"socket", "IOException $E create socket"},
    {"setsockopt", "IOException $E cannot set SO_REUSEADDR"},
    {"bind", "IOException $E cannot bind socket to 0.0.0.0:0"},
    {"listen", "IOException $E cannot listen on socket"},
    {"posix_openpt", "IOException $E cannot open PTY pair"},
    {"grantpt", "IOException $E cannot open PTY pair"},
    {"unlockpt", "IOException $E cannot open PTY pair"},
    {"ptsname_r", "IOException $E cannot open PTY pair"},
    {"open", "IOException $E cannot open PTY pair"},
    {"sysinfo", "*, memory unknown"},
    {"malloc", "bad_alloc|="},
};

} // namespace

std::vector<Scenario> agentScenarios() {
    return {
        {"construct-console", [] { return construct(true); }, constructRules, 1},
        {"construct-log-file", [] { return construct(false); }, constructRules, 0},
        {"destroy", destroy, destroyRules, 0},
        {"run", [] { return runInConsole(0); }, runRules, 0},
        {"run-with-debug-lines", [] { return runInConsole(2); }, runRules, 0},
        {"run-log-file",
         runIntoLogFile,
         {
             {"/1:execv", "IOException 9 tcgetattr, status 1"},
             {"/1:open", "IOException 9 tcgetattr, status 99"},
             {"/1:dup2", "IOException 9 tcgetattr, status 99"},
             {"/1:strdup", "IOException 9 tcgetattr, status 99"},
             {"/1:malloc", "=|IOException 9 tcgetattr, status 99"},
             {"fork", "IOException $E cannot fork, no program"},
             {"tcgetattr", "IOException $E tcgetattr, status 7, said it"},
             {"malloc", "=|bad_alloc, *|IOException 12 cannot fork, no program"},
         },
         0},
        {"run-refused",
         runIsRefused,
         {
             {"waitpid:ECHILD", "="},
             {"waitpid", "="},
             {"close", "="},
             {"malloc", "=|bad_alloc, console open"},
         },
         0},
        {"run-after-an-end", runAfterAnEnd, runRules, 0},
        {"stop", stop, stopRules, 0},
        {"wait-through-agent",
         waitForChildren,
         {
             {"waitpid:EINTR", "="},
             {"waitpid:ECHILD", "done, no id"},
             {"waitpid", "done, no id, not ended"},
             {"malloc", "=|bad_alloc, no id"},
         },
         0},
    };
}
