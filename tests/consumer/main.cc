// SPDX-License-Identifier: MIT
// A host in small, without a program: a client's line comes back as the terminal's echo.
#include <libqvio/IOException>
#include <libvka/client/VKAClient>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#ifdef EXPECTED_FORTIFICATION // by scripts/check-consumers.sh
#ifndef _FORTIFY_SOURCE
#define _FORTIFY_SOURCE 0
#endif
static_assert(_FORTIFY_SOURCE == EXPECTED_FORTIFICATION, "another level of fortification");
#endif

namespace {

void require(bool good, const char* what) {
    if (good)
        return;
    std::fprintf(stderr, "consumer: %s\n", what);
    std::exit(1);
}

class Agent : public VKAClient {
public:
    explicit Agent(in_port_t _port) : VKAClient("/nonexistent", true, 4096, _port, "", 0) {}

    sockaddr_in address() const {
        sockaddr_in addr = sockaddr_in();
        socklen_t length = sizeof(addr);
        require(getsockname(fdServer, reinterpret_cast<sockaddr*>(&addr), &length) == 0, "no port");
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return addr;
    }

    /** Waits until the agent has something to do, or the client something to read. */
    void step(int client) {
        FdSet rfds(client);
        FdSet wfds;
        addConsole(rfds, wfds);
        require(select(rfds.num(wfds), rfds.addr(), wfds.addr(), nullptr, nullptr) > 0, "select");
        handleData(rfds, wfds);
    }
};

std::string echoOf(Agent& agent, const std::string& line) {
    const sockaddr_in addr = agent.address();
    const int client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    require(connect(client, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) == 0,
            "connect");
    require(write(client, line.data(), line.size()) == static_cast<ssize_t>(line.size()), "write");
    std::string echo;
    while (echo.find('\n') == std::string::npos) {
        agent.step(client);
        char buf[64];
        const ssize_t count = recv(client, buf, sizeof(buf), MSG_DONTWAIT);
        if (count > 0)
            echo.append(buf, static_cast<size_t>(count));
    }
    close(client);
    return echo;
}

int errorOfTakenPort(const Agent& agent) {
    try {
        Agent(ntohs(agent.address().sin_port));
    } catch (const IOException& err) {
        return err.getError();
    }
    return 0;
}

/** What a descriptor that no set can hold ends a process with. */
int signalOfBadDescriptor() {
    const pid_t child = fork();
    if (child == 0) {
        FdSet set;
        set += FD_SETSIZE;
        _exit(0);
    }
    int status = 0;
    require(waitpid(child, &status, 0) == child, "waitpid");
    return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
}

} // namespace

int main() {
    alarm(20);
    Agent agent(0);
    require(echoOf(agent, "hello\n") == "hello\r\n", "no echo");
    require(errorOfTakenPort(agent) == EADDRINUSE, "taken port");
    require(signalOfBadDescriptor() == SIGABRT, "descriptor check");
    std::puts("consumer: good");
    return 0;
}
