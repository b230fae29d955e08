// SPDX-License-Identifier: MIT
// Whole lives of vkahost, with stand-ins for the commands that it runs.
#include "child_program.h"
#include "leave.h"
#include "scenario.h"

#include <tests/support/client_commands.h>
#include <tests/support/descriptors.h>
#include <tests/support/wait.h>

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <iostream>
#include <netinet/in.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/wait.h>

using namespace vkatest;

extern "C" int vkahost_main(int argc, char* argv[]); // its main(), renamed

namespace {

/** When a host that gets nowhere is asked to stop. */
const long patienceMs = 5000;

/** Output, without the lines of the trace. */
std::string inOneLine(const std::string& output) {
    std::string text;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);)
        if (line.compare(0, 8, "[DEBUG] ") != 0)
            text += line + (lines.eof() ? "" : " ");
    return '<' + text + '>';
}

/** vkahost in a process of its own. */
class Host {
public:
    explicit Host(std::vector<std::string> options, const char* make = "chmod 700 /tmp/vkabin") {
        commands.define("unzip", "case $1 in -o) cp $2 a.c;; -Z1) echo a.c;; esac");
        commands.define("make", make);
        commands.define("zip", "touch $1");
        fillArchive("first\n");
        options.insert(options.begin(), {"vkahost", "-p0", "-w", dir / "w"});
        for (std::string& option : options)
            if (option[0] == '@')
                option = dir / option.substr(1);
        options.push_back(dir / "a.zip");

        inject::begin(fault); // makes what both processes share
        inject::end();
        pid = ::fork();
        if (pid == 0)
            live(options);
    }

    bool ended() {
        int now;
        if (pid != -1 && waitpid(pid, &now, WNOHANG) == pid) {
            pid = -1;
            status = now;
        }
        return pid == -1;
    }
    /** Asks it to stop, once. */
    void terminate() {
        if (pid != -1 && !asked)
            ::kill(pid, SIGTERM);
        asked = true;
    }
    /** The same when it gets nowhere. */
    void terminateWhenLate() {
        late = late || (!asked && pid != -1 && watch.ms() > patienceMs);
        if (late)
            terminate();
    }
    std::string out() const { return contentOf(dir / "out"); }
    size_t times(const std::string& text) const {
        const std::string all = out();
        size_t count = 0;
        for (size_t at = 0; (at = all.find(text, at)) != std::string::npos; at += text.size())
            ++count;
        return count;
    }
    /** The source that the archive is going to hold. */
    void fillArchive(const char* source) const { dir.makeFile("a.zip", source); }
    /** The output that it printed as not fetched, behind a comma; "" if it did not. */
    std::string unfetched() const {
        const std::string text = out(), head = "vkahost: output that no client fetched:\n";
        const size_t start = text.find(head);
        if (start == std::string::npos)
            return "";
        const size_t output = start + head.size();
        const std::string line =
            inOneLine(text.substr(output, text.find("\nvkahost: ", output) - output));
        return line == "<>" ? "" : ", unfetched " + line;
    }
    /** The port that it says it listens on; 0 as long as it does not. */
    in_port_t port() const {
        const std::string text = out(), line = "console on port ";
        const size_t found = text.find(line);
        return found == std::string::npos || text.find('\n', found) == std::string::npos
                   ? 0
                   : static_cast<in_port_t>(atoi(&text[found + line.size()]));
    }
    /**
     * How it ended: with its last message on standard error, but for the directory's name, and
     * whether it had to be asked because it got nowhere.
     */
    std::string end() const {
        const std::string host = "vkahost: ";
        std::string message;
        std::istringstream lines(contentOf(dir / "err"));
        for (std::string line; std::getline(lines, line);)
            if (line.find(host) != std::string::npos)
                message = ": " + line.substr(line.find(host) + host.size());
        for (size_t found; (found = message.find(dir.path())) != std::string::npos;)
            message.erase(found, dir.path().size());
        return (late ? "late, " : "") +
               (WIFEXITED(status) ? "status " + std::to_string(WEXITSTATUS(status))
                                  : "signal " + std::to_string(WTERMSIG(status))) +
               message;
    }
    const TempDir& directory() const { return dir; }

private:
    [[noreturn]] void live(std::vector<std::string>& options) {
        for (int standard : {STDOUT_FILENO, STDERR_FILENO})
            dup2(open((dir / (standard == STDOUT_FILENO ? "out" : "err")).c_str(),
                      O_WRONLY | O_CREAT | O_APPEND, 0600),
                 standard);
        std::vector<char*> argv;
        for (std::string& option : options)
            argv.push_back(&option[0]);
        argv.push_back(nullptr);
        inject::begin(fault);
        int code = 101;
        try {
            code = vkahost_main(static_cast<int>(options.size()), argv.data());
        } catch (...) {
            // as if it had left the real main()
        }
        inject::end();
        inject::lookForChildren();
        leave(code);
    }

    const TempDir dir;
    const Commands commands;
    const Stopwatch watch;
    pid_t pid;
    int status = 0;
    bool asked = false, late = false;
};

/** A client that connects, and connects again when it is dropped, until the host has ended. */
std::string console(std::vector<std::string> options = {}) {
    const Program program("echo hello; read line; echo bye $line; exit 7");
    Host host(options);
    std::string heard;
    Fd connection;
    bool said = false;
    waitUntil([&] {
        host.terminateWhenLate();
        const bool over = host.ended(); // what is there then is all there will be
        if (connection.get() == -1 && host.port() != 0 && !over) {
            connection.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
            sockaddr_in addr = {};
            addr.sin_family = AF_INET;
            addr.sin_port = htons(host.port());
            addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            if (connect(connection.get(), reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == -1)
                connection.reset();
            said = false;
        }
        char buf[4096];
        ssize_t got = -1;
        while (connection.get() != -1 &&
               (got = recv(connection.get(), buf, sizeof(buf), MSG_DONTWAIT)) > 0)
            heard.append(buf, static_cast<size_t>(got));
        if (connection.get() != -1 && (got == 0 || errno != EAGAIN))
            connection.reset();
        if (connection.get() != -1 && !said && heard.find("hello") != std::string::npos)
            said = send(connection.get(), "you\n", 4, MSG_NOSIGNAL) == 4;
        return over;
    });
    return host.end() + ", client has " + inOneLine(heard) + host.unfetched();
}

std::string unattended(std::vector<std::string> options, const char* script,
                       const char* file = nullptr, const char* make = "chmod 700 /tmp/vkabin") {
    const Program program(script);
    Host host(options, make);
    waitUntil([&] {
        host.terminateWhenLate();
        return host.ended();
    });
    std::string text = host.end();
    if (file && exists(host.directory() / file))
        text += ", file " + inOneLine(contentOf(host.directory() / file));
    else if (file)
        text += ", no file";
    return text + host.unfetched();
}

/**
 * The archive is replaced when its program runs, or when the host waits for another one. The
 * programs tell which archive they come from.
 */
std::string watched() {
    const Program program("cat a.c; cat a.c >> ../../said; read line");
    Host host({"-W"});
    bool replaced = false;
    waitUntil([&] {
        const std::string said = contentOf(host.directory() / "said");
        const std::string waits = "waiting for another archive";
        if (!replaced && (said == "first\n" || host.times(waits) != 0)) {
            host.fillArchive("second\n");
            replaced = true;
        }
        const std::string out = host.out();
        const size_t noticed = out.find("archive replaced");
        if (said.find("second") != std::string::npos ||
            (noticed != std::string::npos && (out.find("goes on", noticed) != std::string::npos ||
                                              out.find(waits, noticed) != std::string::npos)))
            host.terminate();
        host.terminateWhenLate();
        return host.ended();
    });
    return host.end() + ", replaced " + std::to_string(host.times("archive replaced")) +
           host.unfetched();
}

/** What the host says of a call that ends it, on its way to the outcome. */
std::string says(const std::string& message) {
    return "status 125: " + message + ": $S*";
}

std::vector<Rule> operator+(std::vector<Rule> rules, const std::vector<Rule>& more) {
    rules.insert(rules.end(), more.begin(), more.end());
    return rules;
}

std::vector<Rule> forCalls(const std::vector<const char*>& calls, const std::string& outcomes) {
    std::vector<Rule> rules;
    for (const char* call : calls)
        rules.push_back({call, outcomes});
    return rules;
}

/** The rules behind ROLE: for another process. */
std::vector<Rule> within(const std::string& role, std::vector<Rule> rules) {
    for (Rule& rule : rules)
        rule.calls = role + ':' + rule.calls;
    return rules;
}

const std::vector<const char*> commandCalls = {"pipe2",
                                               "posix_spawn",
                                               "posix_spawn_file_actions_init",
                                               "posix_spawn_file_actions_adddup2",
                                               "posix_spawnattr_init",
                                               "read",
                                               "waitpid"};

/**
 * In the build's process.
 *
 * @param failed  how the outcome begins when the build failed
 * @param refused and when something else did
 * @param rest    of the outcome
 */
std::vector<Rule> buildRules(const std::string& failed, const std::string& refused,
                             const std::string& rest) {
    const auto build = [&](const std::string& text) { return '|' + failed + text + rest; };
    const auto host = [&](const std::string& text) { return '|' + refused + text + rest; };
    const std::string commands = host("cannot run unzip -Z1 /a.zip 2>&1: $S") +
                                 host("cannot run unzip -tqq /a.zip 2>&1: $S") +
                                 host("cannot unzip /a.zip: $S") + host("cannot call make: $S") +
                                 host("cannot zip /sources.zip: $S");
    const std::string emptying = host("remove old source files in /w/src: $S");
    return std::vector<Rule>{
               {"read:EINTR", "="}, {"waitpid:EINTR", "="}, {"waitpid:ECHILD", "=" + commands}} +
           forCalls(commandCalls, commands.substr(1)) +
           std::vector<Rule>{
               {"open", "=" + build("archive /a.zip: $S") + emptying}, // "=": its standard input
               {"fstat", (build("archive /a.zip: not a file") + emptying).substr(1)},
               // What cannot be looked at is not there, or no directory.
               {"stat", "=" + build("make ended without a new program") +
                            host("create src dir /w/src: Not a directory") +
                            host("create src dir /w/src: File exists") +
                            host("no src dir /w/src: $S") +
                            host("cannot export the sources to /sources.zip")},
               {"mkdir:EEXIST", "=" + host("create src dir /w/src: $S") +
                                    host("create src dir /w/src: Not a directory")},
               {"mkdir", "=" + host("create src dir /w/src: $S")},
               {"unlinkat:ENOENT", "="},
               {"unlinkat:EISDIR", "=" + emptying},
               {"openat", emptying.substr(1)},
               {"getdents64", emptying.substr(1)},
               {"unlinkat", emptying.substr(1)},
               {"chdir", host("change dir to /w/src: $S").substr(1)},
               {"malloc", "=" + host("std::bad_alloc") + host("*: Cannot allocate memory")},
           } +
           forCalls({"close", "setsid", "prctl", "dup2"}, "=");
}

/** In the program's process, before it is the program. @param failed what comes of a failure */
std::vector<Rule> programRules(const std::string& failed, const std::string& notExecuted) {
    return {{"execv", notExecuted}, {"prctl", "="},     {"dup2", failed},
            {"open", failed},       {"strdup", failed}, {"malloc", "=|" + failed}};
}

const std::string waitFails =
    "=|" + says("cannot run command -v *") + '|' + says("cannot look at the build");

/** In the host's own process: it has lived on as if nothing had been, or says what failed. */
const std::vector<Rule> ownRules =
    std::vector<Rule>{
        {"read:EINTR", "="},
        {"write:EINTR", "="},
        {"write:EAGAIN", "="},
        {"accept:EINTR", "="},
        {"accept:EAGAIN", "="},
        {"select:EINTR", "="},
        {"waitpid:EINTR", "="},
        {"waitid:EINTR", "="},
        {"malloc", "=|status 125: std::bad_alloc*|status 125: *: Cannot allocate memory*"},
        {"pipe2", says("cannot create pipe") + '|' + says("cannot run command -v *")},
        // "=": a client that cannot be read is dropped and comes again.
        {"read", "=|" + says("cannot run command -v *") + '|' +
                     says("cannot read the signals' pipe") + '|' + says("cannot read from PTTY") +
                     '|' + says("cannot read what happens to the archive") +
                     "|status 125: the program was killed before it started*"},
        {"write", says("cannot write to PTTY") + '|' + says("cannot write to TCP port")},
        // No client ever gets in, so nobody answers the program, and the host is asked to stop.
        {"+accept",
         "late, status 143: cannot accept a client: $S, client has <>, unfetched <hello >"},
        {"accept", "status 7: cannot accept a client: $S, client has <hello bye you >"},
        {"setsockopt#1", says("cannot set SO_REUSEADDR")},
        {"setsockopt", "status 7: cannot set a socket option: $S, client has <hello bye you >"},
        {"socket", says("create socket")},
        {"bind", says("cannot bind socket to 0.0.0.0:0")},
        {"listen", says("cannot listen on socket")},
        {"pthread_atfork", says("cannot prepare for starting programs")},
        {"fcntl", says("cannot set close-on-exec") + '|' + says("cannot set non-blocking mode")},
        {"ioctl", says("cannot set up the terminal")},
        {"tcgetattr", says("cannot set up the terminal") + '|' + says("tcgetattr")},
        {"tcsetattr", says("cannot set up the terminal") + '|' + says("tcsetattr")},
        {"getsockname", says("cannot get the port")},
        {"fork", says("cannot fork")},
        {"chdir", says("change dir to /w/src")},
        {"select", says("cannot wait for events")},
        // What cannot be waited for stays: the look for a command, and for good all else.
        {"+waitpid:EAGAIN", waitFails, true},
        {"+waitpid:EINVAL", waitFails, true},
        {"waitpid#1", says("cannot run command -v make"), true},
        {"waitpid#2", says("cannot run command -v unzip"), true},
        {"waitpid", waitFails},
        {"waitid", "=|" + says("cannot look at the program")},
        {"inotify_init1", says("cannot watch the archive")},
        {"inotify_add_watch", says("cannot watch /")},
        // "=": the look at the standard descriptors.
        {"open", "=|" + says("cannot open PTY pair") + '|' + says("cannot open a terminal") + '|' +
                     says("cannot create log file /log")},
    } +
    forCalls({"posix_openpt", "grantpt", "unlockpt", "ptsname_r"},
             says("cannot open PTY pair") + '|' + says("cannot open a terminal")) +
    forCalls({"posix_spawn", "posix_spawn_file_actions_init", "posix_spawn_file_actions_adddup2",
              "posix_spawnattr_init"},
             says("cannot run command -v *")) +
    forCalls({"close", "kill", "pidfd_open", "poll", "shutdown", "stat", "sysinfo"}, "=");

const std::vector<Rule> hostRules =
    within("/1", buildRules("status 124: build failed: ", "status 125: ", "*")) +
    within("/2", programRules("status 126|status 126, client has <>|status 126, file <>",
                              "status 1, *<cannot exec: $S >")) +
    ownRules;

/** What fails to be read before the program runs, or of a signal. */
const std::string unread = '|' + says("cannot run command -v *") + '|' +
                           says("cannot read the signals' pipe") +
                           "|status 125: the program was killed before it started*";

/**
 * A terminal that fails with EIO is closed as one that was hung up: the program's next output is
 * lost, and so is its input.
 */
const std::string closed = "status 7, client has <>|status 7, client has <hello >";

const std::vector<Rule> consoleRules = [] {
    // Every client is dropped as it cannot be read, so none answers the program.
    const std::string unheard =
        "|late, status 125: cannot read the signals' pipe: $S, client has <hello >";
    return std::vector<Rule>{
               {"read:EINTR", "="},
               {"read:EAGAIN", '=' + unread},
               {"+read:EIO", "=|" + closed + unread + unheard},
               {"read:EIO", "=|" + closed + unread},
               {"+read", "=|" + says("cannot read from PTTY") + unread + unheard},
               {"+write:EIO", closed + '|' + says("cannot write to TCP port")},
               {"write:EIO", "=|" + closed},
           } +
           hostRules;
}();

/** The trace tells of the client's end, so it is looked for in another way. */
const std::vector<Rule> tracedRules =
    std::vector<Rule>{
        {"recv:EINTR", "="},
        {"recv:EAGAIN", "="},
        // A client that cannot be read is dropped each time, so nobody answers the program.
        {"+recv", "late, status 143, client has <hello >"},
        {"recv", "="},
        {"read:EINTR", "="},
        {"read:EAGAIN", '=' + unread},
        {"+read:EIO", "=|" + closed + '|' + says("cannot read from TCP port") + unread},
        {"read:EIO", "=|" + closed + unread},
        {"read",
         "=|" + says("cannot read from PTTY") + '|' + says("cannot read from TCP port") + unread},
    } +
    consoleRules;

/** Without a client. */
const std::vector<Rule> unattendedRules =
    std::vector<Rule>{
        {"read:EINTR", "="},
        {"read:EIO", "=|status 7" + unread},
    } +
    hostRules;

/** It looks for zip, too. */
const std::vector<Rule> exportRules =
    std::vector<Rule>{
        {"waitpid:EINTR", "="},
        {"waitpid#3", says("cannot run command -v zip"), true},
    } +
    unattendedRules;

const std::vector<Rule> logFileRules =
    std::vector<Rule>{
        {"tcgetattr:EBADF", "="}, // as it fails in any case
        {"read:EINTR", "="},
        // The last one: the program's id is not told.
        {"read", "=|" + says("cannot run command -v *") + '|' +
                     says("cannot read the signals' pipe") +
                     "|status 125: tcgetattr: Bad file descriptor*"},
    } +
    hostRules;

/** A host that is asked to stop while it ends by itself dies of that at last. */
std::vector<Rule> whileStopped(std::vector<Rule> rules) {
    for (Rule& rule : rules)
        if (rule.outcomes.find("status 125") != std::string::npos)
            rule.outcomes += "|signal 15*";
    return rules;
}

/** A build or a program that fails leaves a host that watches as it is. */
const std::vector<Rule> watchRules = [] {
    const std::string first = ", replaced 1, unfetched <first >",
                      second = ", replaced 1, unfetched <second >",
                      unnoticed = "|late, status 143, replaced 0, unfetched <first >",
                      watchWaitFails =
                          waitFails +
                          "|status 125: VKA process(es) already running: Device or resource busy*";
    return within("/1", buildRules("status 143: build failed: ", "status 143: ", second)) +
           within("/2",
                  programRules("status 143" + second,
                               "status 143, replaced 1, unfetched <cannot exec: $S second >")) +
           within("/3", buildRules("status 143: build failed: ", "status 143: ", first)) +
           within("/4",
                  programRules("status 143" + first,
                               "status 143, replaced 1, unfetched <first cannot exec: $S >")) +
           std::vector<Rule>{
               // An archive that cannot be looked at is looked at again. Meanwhile all goes on.
               {"stat:ENOENT", "=" + unnoticed},
               {"stat:ENOTDIR", "=" + unnoticed},
               {"+stat", "=" + unnoticed},
               // The first program ends with its terminal. The second stays.
               {"+kill#4", "="},
               {"+kill", "=", true},
               {"+waitpid:EAGAIN", watchWaitFails, true},
               {"+waitpid:EINVAL", watchWaitFails, true},
               // A closed terminal, as above.
               {"read:EIO", "=|status 143" + first + "|status 143" + second + '|' +
                                says("cannot read what happens to the archive") + unread},
           } +
           whileStopped(ownRules);
}();

} // namespace

std::vector<Scenario> hostScenarios() {
    const char hello[] = "echo hello; exit 7";
    return {
        {"host-console", [] { return console(); }, consoleRules, 0,
         "status 7, client has <hello bye you >"},
        {"host-console-traced", [] { return console({"-d3"}); }, tracedRules, 0,
         "status 7, client has <hello bye you >"},
        {"host-unfetched", [=] { return unattended({}, hello); }, unattendedRules, 0,
         "status 7, unfetched <hello >"},
        {"host-log-file",
         [=] {
             return unattended({"-l", "@log"}, hello, "log");
         },
         logFileRules, 0, "status 7, file <hello >"},
        {"host-build-fails",
         [] { return unattended({"-d2"}, "exit 7", nullptr, "echo wrong; exit 2"); }, hostRules, 0,
         "status 124: build failed: make error"},
        {"host-watch", watched, watchRules, 0, "status 143, replaced 1, unfetched <first second >"},
        {"host-export",
         [] {
             return unattended({"-e", "@sources.zip"}, "exit 7", "sources.zip");
         },
         exportRules, 0, "status 7, file <>"},
    };
}
