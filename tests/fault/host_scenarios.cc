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

/** When a client that gets nowhere asks the host to stop. */
const long patienceMs = 2500;

/** vkahost in a process of its own. */
class Host {
public:
    explicit Host(std::vector<std::string> options, const char* make = "chmod 700 /tmp/vkabin") {
        commands.define("unzip", "case $1 in -o) echo new > a.c;; -Z1) echo a.c;; esac");
        commands.define("make", make);
        commands.define("zip", "touch $1");
        dir.makeFile("a.zip");
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
    void terminate() {
        if (pid != -1)
            ::kill(pid, SIGTERM);
    }
    std::string out() const { return contentOf(dir / "out"); }
    size_t times(const std::string& text) const {
        const std::string all = out();
        size_t count = 0;
        for (size_t at = 0; (at = all.find(text, at)) != std::string::npos; at += text.size())
            ++count;
        return count;
    }
    void replaceArchive() { dir.makeFile("a.zip"); }
    /** The port that it says it listens on; 0 as long as it does not. */
    in_port_t port() const {
        const std::string text = out(), line = "console on port ";
        const size_t found = text.find(line);
        return found == std::string::npos || text.find('\n', found) == std::string::npos
                   ? 0
                   : static_cast<in_port_t>(std::stoi(text.substr(found + line.size())));
    }
    /** How it ended: with its last line on standard error, but for the directory's name. */
    std::string end() const {
        std::string message;
        std::istringstream lines(contentOf(dir / "err"));
        for (std::string line; std::getline(lines, line);)
            if (line.compare(0, 9, "vkahost: ") == 0)
                message = ": " + line.substr(9);
        for (size_t found; (found = message.find(dir.path())) != std::string::npos;)
            message.erase(found, dir.path().size());
        return (WIFEXITED(status) ? "status " + std::to_string(WEXITSTATUS(status))
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
        leave(code);
    }

    const TempDir dir;
    const Commands commands;
    pid_t pid;
    int status = 0;
};

/** A client that connects, and connects again when it is dropped, until the host has ended. */
std::string console(std::vector<std::string> options = {}) {
    const Program program("echo hello; read line; echo bye $line; exit 7");
    Host host(options);
    const Stopwatch watch;
    std::string heard;
    Fd connection;
    bool said = false, stopped = false;
    waitUntil([&] {
        if (!stopped && watch.ms() > patienceMs) {
            host.terminate();
            stopped = true;
        }
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
    for (char& c : heard)
        c = c == '\n' ? ' ' : c;
    return host.end() + ", client has <" + heard + '>';
}

std::string unattended(std::vector<std::string> options, const char* script,
                       const char* file = nullptr, const char* make = "chmod 700 /tmp/vkabin") {
    const Program program(script);
    Host host(options, make);
    const Stopwatch watch;
    waitUntil([&] {
        if (watch.ms() > patienceMs)
            host.terminate();
        return host.ended();
    });
    std::string text = host.end();
    if (file)
        text += exists(host.directory() / file) ? ", file" : ", no file";
    const size_t unfetched = host.out().find("no client fetched:\n");
    return text + (unfetched == std::string::npos
                       ? ""
                       : ", unfetched " + host.out().substr(unfetched + 19, 5));
}

/** The archive is replaced while its program runs. */
std::string watched() {
    const Program program("echo hello; read line");
    Host host({"-W"});
    const Stopwatch watch;
    bool replaced = false, stopped = false;
    waitUntil([&] {
        if (!replaced && host.times("running, console") == 1) {
            host.replaceArchive();
            replaced = true;
        }
        const bool done = host.times("running, console") == 2 || host.times("goes on") == 1 ||
                          host.times("waiting for another archive") == 1;
        if (!stopped && (done || watch.ms() > patienceMs)) {
            host.terminate();
            stopped = true;
        }
        return host.ended();
    });
    return host.end();
}

/**
 * The host ends in an orderly way: it has either lived on as if nothing had been, or says what
 * failed. What goes with the client is tried again with the next one.
 */
const std::vector<Rule> hostRules = {
    {"/1/1:malloc", "*"},
    {"/1:malloc", "=|status 124: build failed: *|status 125: *|status 101*|signal 6*"},
    {"/2:malloc", "=|status 126*"},
    {"malloc", "=|status 125*|signal 6*|status 143*|status 7*"},
    {"+read", "=|status 125: *|status 124: *|status 143*|status 7*"},
    {"+recv", "=|status 143*|status 7*"},
    {"+accept:EINTR", "="},
    {"+accept:EAGAIN", "=|status 143*"},
    {"+accept", "status 143*"},
    {"accept", "=|status 7: cannot accept a client: *, client has <hello bye you >"},
    {"setsockopt", "*"},
    {"waitid:EINTR", "="},
    {"waitid", "=|status 125: *"},
    {"*", "=|status 125: *|status 124: *|status 143*|status 7*|status 126*|status 1*"},
};

/** A build that fails leaves a host that watches as it is: it ends when it is asked to. */
std::vector<Rule> watchRules() {
    std::vector<Rule> rules = {{"/1:malloc", "=|status 143: *|status 101*|signal 6*"}};
    rules.insert(rules.end(), hostRules.begin(), hostRules.end());
    return rules;
}

} // namespace

std::vector<Scenario> hostScenarios() {
    return {
        {"host-console", [] { return console(); }, hostRules, 0},
        {"host-unfetched", [] { return unattended({}, "echo hello; exit 7"); }, hostRules, 0},
        {"host-log-file",
         [] {
             return unattended({"-l", "@log"}, "echo hello; exit 7", "log");
         },
         hostRules, 0},
        {"host-build-fails",
         [] { return unattended({"-d2"}, "exit 7", nullptr, "echo wrong; exit 2"); }, hostRules, 0},
        {"host-watch", watched, watchRules(), 0},
        {"host-export",
         [] {
             return unattended({"-e", "@sources.zip"}, "exit 7", "sources.zip");
         },
         hostRules, 0},
    };
}
