// SPDX-License-Identifier: MIT
#include <host/ending>

#include <csignal>

std::string signalName(int sig) {
    static const struct {
        int sig;
        const char* name;
    } names[] = {
        {SIGABRT, "SIGABRT"}, {SIGALRM, "SIGALRM"}, {SIGBUS, "SIGBUS"},   {SIGFPE, "SIGFPE"},
        {SIGHUP, "SIGHUP"},   {SIGILL, "SIGILL"},   {SIGINT, "SIGINT"},   {SIGIO, "SIGIO"},
        {SIGKILL, "SIGKILL"}, {SIGPIPE, "SIGPIPE"}, {SIGPROF, "SIGPROF"}, {SIGPWR, "SIGPWR"},
        {SIGQUIT, "SIGQUIT"}, {SIGSEGV, "SIGSEGV"}, {SIGSYS, "SIGSYS"},   {SIGTERM, "SIGTERM"},
        {SIGTRAP, "SIGTRAP"}, {SIGUSR1, "SIGUSR1"}, {SIGUSR2, "SIGUSR2"}, {SIGVTALRM, "SIGVTALRM"},
        {SIGXCPU, "SIGXCPU"}, {SIGXFSZ, "SIGXFSZ"},
    };
    for (const auto& entry : names) {
        if (entry.sig == sig)
            return entry.name;
    }
    return "signal " + std::to_string(sig);
}

std::string Ending::describe() const {
    return killed ? "killed by " + signalName(number)
                  : "exited with status " + std::to_string(number);
}
