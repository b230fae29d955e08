// SPDX-License-Identifier: MIT
#include <tests/support/client_agent.h>
#include <tests/support/client_log.h>

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace {

enum : int { masterFd = 605, slaveFd = 606, serverFd = 607, connFd = 608, hostsFd = 11 };

std::set<int> members(const FdSet& fds) {
    std::set<int> found;
    for (int fd = 0; fd < fds.num(); ++fd) {
        if (fds.isSet(fd))
            found.insert(fd);
    }
    return found;
}

/** One state of an agent: what is open and what its buffers hold. */
struct State {
    bool conn, server, master, input, output;
};

class VKAClientAddConsole : public testing::Test {
protected:
    void add(const State& state) {
        Agent agent("/w", false, 0, 0, "", 3);
        if (state.conn)
            agent.fdConn = connFd;
        if (state.server)
            agent.fdServer = serverFd;
        if (state.master) {
            agent.master = masterFd;
            agent.slave = slaveFd;
        }
        if (state.input)
            agent.bufConn2Child.assign(10, 'i');
        if (state.output)
            agent.bufChild2Conn = {byteVec_t(10, 'o')};
        agent.bufsize = state.output ? 0 : 77; // says nothing about what is queued
        log.clear();
        agent.addConsole(rfds, wfds);
        EXPECT_EQ(log.out() + log.err(), "");
        agent.master = agent.slave = agent.fdServer = agent.fdConn = -1;
    }

    vkatest::Log log;
    FdSet rfds, wfds;
};

TEST_F(VKAClientAddConsole, asksForWhatEachStateNeeds) {
    for (int bits = 0; bits < 32; ++bits) {
        const State state = {(bits & 1) != 0, (bits & 2) != 0, (bits & 4) != 0, (bits & 8) != 0,
                             (bits & 16) != 0};
        std::set<int> readable, writable;
        if (state.conn && !state.input)
            readable.insert(connFd);
        if (state.conn && state.output)
            writable.insert(connFd);
        if (!state.conn && state.server)
            readable.insert(serverFd);
        if (state.master)
            readable.insert(masterFd);
        if (state.master && state.input)
            writable.insert(masterFd);

        rfds.zero();
        wfds.zero();
        add(state);
        EXPECT_EQ(members(rfds), readable) << "state " << bits;
        EXPECT_EQ(members(wfds), writable) << "state " << bits;
        EXPECT_EQ(rfds.num(), readable.empty() ? 0 : *readable.rbegin() + 1);
        EXPECT_EQ(wfds.num(), writable.empty() ? 0 : *writable.rbegin() + 1);
    }
}

TEST_F(VKAClientAddConsole, withoutClientAsksForClientsAndTheTerminal) {
    add({false, true, true, false, false});
    EXPECT_EQ(members(rfds), (std::set<int>{masterFd, serverFd}));
    EXPECT_EQ(members(wfds), std::set<int>{});
}

TEST_F(VKAClientAddConsole, doesNotReadTheClientWhileItsInputWaits) {
    add({true, true, true, true, false});
    EXPECT_EQ(members(rfds), std::set<int>{masterFd});
    EXPECT_EQ(members(wfds), std::set<int>{masterFd});
}

TEST_F(VKAClientAddConsole, keepsWhatTheHostHasPutIn) {
    for (bool conn : {false, true}) {
        rfds = {hostsFd, slaveFd};
        wfds = {hostsFd, slaveFd};
        add({conn, true, true, false, true});
        EXPECT_EQ(members(rfds),
                  (std::set<int>{hostsFd, slaveFd, masterFd, conn ? connFd : serverFd}));
        EXPECT_EQ(members(wfds).count(hostsFd), 1u);
        EXPECT_EQ(members(wfds).count(slaveFd), 1u);

        rfds = {hostsFd, connFd};
        wfds = {hostsFd, connFd};
        add({conn, true, true, true, true});
        EXPECT_EQ(members(rfds).count(hostsFd), 1u);
        EXPECT_EQ(members(rfds).count(connFd), 1u);
        EXPECT_EQ(members(wfds), (std::set<int>{hostsFd, masterFd, connFd}));
    }
}

TEST_F(VKAClientAddConsole, takesDescriptorZeroForADescriptor) {
    Agent agent("/w", false, 0, 0, "", 0);
    agent.master = 0;
    agent.addConsole(rfds, wfds);
    EXPECT_EQ(members(rfds), std::set<int>{0});
    agent.master = -1;
    agent.fdConn = 0;
    rfds.zero();
    agent.addConsole(rfds, wfds);
    EXPECT_EQ(members(rfds), std::set<int>{0});
    agent.fdConn = -1;
    agent.fdServer = 0;
    rfds.zero();
    agent.addConsole(rfds, wfds);
    EXPECT_EQ(members(rfds), std::set<int>{0});
    agent.fdServer = -1;
}

TEST_F(VKAClientAddConsole, watchesTheConsoleOfAFreshAgent) {
    Agent agent("/w", true, 0, 0, "", 0);
    agent.addConsole(rfds, wfds);
    EXPECT_EQ(members(rfds), (std::set<int>{agent.fdServer, agent.master}));
    EXPECT_EQ(members(wfds), std::set<int>{});
}

} // namespace
