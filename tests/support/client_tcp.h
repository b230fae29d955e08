// SPDX-License-Identifier: MIT
#ifndef TESTS_SUPPORT_CLIENT_TCP_H
#define TESTS_SUPPORT_CLIENT_TCP_H

#include <libqvio/IOException>
#include <tests/support/client_agent.h>
#include <tests/support/transfer.h>
#include <tests/support/wait.h>

#include <arpa/inet.h>
#include <cerrno>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

namespace vkatest {

/** A client of the agent's console. */
class TcpClient {
public:
    explicit TcpClient(const Agent& agent) : fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in addr = {};
        socklen_t size = sizeof(addr);
        getsockname(agent.fdServer, reinterpret_cast<sockaddr*>(&addr), &size);
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (uninterrupted([&] {
                return connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
            }) == -1)
            disconnect();
    }
    ~TcpClient() { disconnect(); }
    TcpClient(const TcpClient&) = delete;
    TcpClient& operator=(const TcpClient&) = delete;

    bool connected() const { return fd != -1; }
    bool say(const std::string& bytes) {
        for (size_t done = 0; done < bytes.size();) {
            const ssize_t taken = uninterrupted(
                [&] { return send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL); });
            if (taken == -1)
                return false;
            done += static_cast<size_t>(taken);
        }
        return true;
    }
    /** What has arrived so far, besides what earlier calls returned. */
    std::string hear() {
        std::string heard;
        char buf[4096];
        ssize_t got;
        while ((got = recv(fd, buf, sizeof(buf), MSG_DONTWAIT)) > 0)
            heard.append(buf, static_cast<size_t>(got));
        return heard;
    }
    void disconnect() {
        if (fd != -1)
            close(fd);
        fd = -1;
    }
    /** Disconnects so that the other side sees a failure, not an end. */
    void reset() {
        const linger now = {1, 0};
        setsockopt(fd, SOL_SOCKET, SO_LINGER, &now, sizeof(now));
        disconnect();
    }

private:
    int fd;
};

/** A host's loop: pass after pass until the condition holds. @return whether it did in time */
template <typename Condition>
bool pumpUntil(Agent& agent, Condition condition) {
    const Stopwatch watch;
    while (!condition()) {
        if (watch.ms() > patience.count())
            return false;
        FdSet rfds, wfds;
        agent.addConsole(rfds, wfds);
        timeval shortly = {0, 1000};
        if (select(rfds.num(wfds), rfds.addr(), wfds.addr(), nullptr, &shortly) <= 0)
            continue; // the sets say nothing then
        try {
            agent.handleData(rfds, wfds);
        } catch (const IOException& err) {
            if (err.getError() != EINTR) // nothing is lost by that
                throw;
        }
    }
    return true;
}

/** Waits until the agent's client has closed its end. */
inline bool clientHasGone(const Agent& agent) {
    return waitUntil([&] {
        char next;
        return recv(agent.fdConn, &next, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
    });
}

/** What a host does that wants to live on when its client goes. */
inline void forgetClient(Agent& agent) {
    close(agent.fdConn);
    agent.fdConn = -1;
}

} // namespace vkatest

#endif
