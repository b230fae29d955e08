// SPDX-License-Identifier: MIT
// The relay between real clients and a real terminal, driven by select().
#include <libqvio/IOException>
#include <tests/support/client_agent.h>
#include <tests/support/client_log.h>
#include <tests/support/client_program.h>
#include <tests/support/client_tcp.h>
#include <tests/support/client_terminal.h>
#include <tests/support/sandbox.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <optional>
#include <random>

using namespace vkatest;

namespace {
std::optional<std::mt19937> stingy; // writes of the agent take any part of what they are given
}

extern "C" {
ssize_t __real_write(int fd, const void* data, size_t size);
ssize_t __wrap_write(int fd, const void* data, size_t size);
ssize_t __wrap_write(int fd, const void* data, size_t size) {
    if (stingy && size > 1)
        size = 1 + (*stingy)() % size;
    return __real_write(fd, data, size);
}
}

namespace {

std::string everyByte() {
    std::string bytes;
    for (int i = 0; i < 256; ++i)
        bytes += static_cast<char>(i);
    return bytes;
}

std::string randomBytes(size_t size) {
    std::mt19937 random(4711);
    std::string bytes(size, '\0');
    for (char& byte : bytes)
        byte = static_cast<char>(random());
    return bytes;
}

class VKAClientRelay : public testing::Test {
protected:
    VKAClientRelay() : agent("/w", true, 1 << 24, 0, "", 0) {
        makeRaw(agent.master);
        fcntl(agent.slave, F_SETFL, O_NONBLOCK);
    }
    ~VKAClientRelay() override { stingy.reset(); }

    /** The child writes as much as the terminal takes. @return the rest */
    std::string childSays(const std::string& bytes) {
        size_t done = 0;
        ssize_t taken;
        while ((taken = __real_write(agent.slave, bytes.data() + done, bytes.size() - done)) > 0)
            done += static_cast<size_t>(taken);
        return bytes.substr(done);
    }
    std::string childHears() {
        std::string heard;
        char buf[4096];
        ssize_t got;
        while ((got = read(agent.slave, buf, sizeof(buf))) > 0)
            heard.append(buf, static_cast<size_t>(got));
        return heard;
    }
    bool accept() {
        return pumpUntil(agent, [&] { return agent.fdConn != -1; });
    }
    /** Pumps until the client has heard as many bytes. */
    std::string hearFrom(TcpClient& client, size_t size) {
        std::string heard;
        pumpUntil(agent, [&] { return (heard += client.hear()).size() >= size; });
        return heard;
    }
    size_t queued() const {
        size_t size = 0;
        for (const byteVec_t& chunk : agent.bufChild2Conn)
            size += chunk.size();
        return size;
    }

    Log log;
    Agent agent;
};

TEST_F(VKAClientRelay, bringsEveryByteToTheChild) {
    TcpClient client(agent);
    ASSERT_TRUE(client.connected());
    ASSERT_TRUE(client.say(everyByte()));
    std::string heard;
    pumpUntil(agent, [&] { return (heard += childHears()).size() >= 256; });
    EXPECT_EQ(heard, everyByte());
    EXPECT_TRUE(agent.bufConn2Child.empty());
}

TEST_F(VKAClientRelay, bringsEveryByteToTheClient) {
    TcpClient client(agent);
    ASSERT_TRUE(accept());
    ASSERT_EQ(childSays(everyByte()), "");
    EXPECT_EQ(hearFrom(client, 256), everyByte());
    EXPECT_TRUE(agent.bufChild2Conn.empty());
    EXPECT_EQ(agent.bufsize, 256u);
}

TEST_F(VKAClientRelay, bringsLongStreamsBothWaysAtOnceThroughPartialWrites) {
    const std::string toChild = randomBytes(20000), toClient = randomBytes(60000);
    TcpClient client(agent);
    ASSERT_TRUE(client.say(toChild));
    std::string rest = toClient, childHeard, clientHeard;
    stingy.emplace(42);
    EXPECT_TRUE(pumpUntil(agent, [&] {
        rest = childSays(rest);
        childHeard += childHears();
        clientHeard += client.hear();
        EXPECT_LE(agent.bufConn2Child.size(), 512u);
        return childHeard.size() >= toChild.size() && clientHeard.size() >= toClient.size();
    }));
    EXPECT_TRUE(childHeard == toChild);
    EXPECT_TRUE(clientHeard == toClient);
    EXPECT_EQ(agent.bufsize, toClient.size());
}

TEST_F(VKAClientRelay, queuesChunksOfAtMost512Bytes) {
    ASSERT_EQ(childSays(randomBytes(3000)), "");
    ASSERT_TRUE(pumpUntil(agent, [&] { return queued() == 3000; }));
    for (const byteVec_t& chunk : agent.bufChild2Conn)
        EXPECT_LE(chunk.size(), 512u);
    EXPECT_EQ(agent.bufsize, 3000u);
}

TEST_F(VKAClientRelay, keepsOutputForTheNextClient) {
    childSays("first ");
    ASSERT_TRUE(pumpUntil(agent, [&] { return queued() == 6; }));
    childSays("second ");
    ASSERT_TRUE(pumpUntil(agent, [&] { return queued() == 13; }));
    {
        TcpClient client(agent);
        EXPECT_EQ(hearFrom(client, 13), "first second ");
        client.disconnect();
        ASSERT_TRUE(clientHasGone(agent));
        forgetClient(agent);
    }
    childSays("third");
    ASSERT_TRUE(pumpUntil(agent, [&] { return queued() == 5; }));
    TcpClient next(agent);
    EXPECT_EQ(hearFrom(next, 5), "third");
}

TEST_F(VKAClientRelay, keepsInputWhenTheClientGoes) {
    TcpClient client(agent);
    ASSERT_TRUE(accept());
    ASSERT_TRUE(client.say("last words"));
    client.disconnect();
    ASSERT_TRUE(pumpUntil(agent, [&] { return !agent.bufConn2Child.empty(); }));
    const std::string kept(agent.bufConn2Child.begin(), agent.bufConn2Child.end());
    EXPECT_EQ(kept, std::string("last words").substr(0, kept.size()));
    forgetClient(agent);
    std::string heard;
    pumpUntil(agent, [&] { return (heard += childHears()).size() >= kept.size(); });
    EXPECT_EQ(heard, kept);
}

TEST_F(VKAClientRelay, letsASecondClientWaitUntilTheFirstHasGone) {
    TcpClient first(agent);
    ASSERT_TRUE(accept());
    const int conn = agent.fdConn;
    TcpClient second(agent);
    ASSERT_TRUE(second.connected());
    ASSERT_TRUE(second.say("from the second"));
    ASSERT_TRUE(first.say("from the first"));

    std::string heard;
    pumpUntil(agent, [&] { return (heard += childHears()).size() >= 14; });
    childSays("for the first");
    EXPECT_EQ(hearFrom(first, 13), "for the first");
    EXPECT_EQ(heard, "from the first");
    EXPECT_EQ(agent.fdConn, conn);
    EXPECT_EQ(second.hear(), "");

    first.disconnect();
    ASSERT_TRUE(clientHasGone(agent));
    forgetClient(agent);
    heard.clear();
    pumpUntil(agent, [&] { return (heard += childHears()).size() >= 15; });
    EXPECT_EQ(heard, "from the second");
    childSays("for the second");
    EXPECT_EQ(hearFrom(second, 14), "for the second");
}

TEST_F(VKAClientRelay, endsTheProcessWhenTheClientCloses) {
    TcpClient client(agent);
    ASSERT_TRUE(accept());
    client.disconnect();
    EXPECT_EXIT(pumpUntil(agent, [] { return false; }), testing::KilledBySignal(SIGABRT),
                "terminated");
}

TEST_F(VKAClientRelay, throwsWhenTheClientBreaksTheConnection) {
    TcpClient client(agent);
    ASSERT_TRUE(accept());
    const int conn = agent.fdConn;
    client.reset();
    try {
        pumpUntil(agent, [] { return false; });
        FAIL() << "nothing was thrown";
    } catch (const IOException& e) {
        EXPECT_EQ(e.getError(), ECONNRESET);
        EXPECT_STREQ(e.what(), "cannot read from TCP port: Connection reset by peer");
    }
    EXPECT_EQ(agent.fdConn, conn);
}

TEST_F(VKAClientRelay, throwsWhenTheTerminalsOtherSideIsGone) {
    close(agent.slave);
    agent.slave = -1;
    try {
        pumpUntil(agent, [] { return false; });
        FAIL() << "nothing was thrown";
    } catch (const IOException& e) {
        EXPECT_EQ(e.getError(), EIO);
        EXPECT_STREQ(e.what(), "cannot read from PTTY: Input/output error");
    }
    EXPECT_NE(agent.master, -1);
}

TEST_F(VKAClientRelay, throwsForAFullConnectionAndLosesNothing) {
    TcpClient client(agent);
    ASSERT_TRUE(accept());
    const int small = 4096;
    setsockopt(agent.fdConn, SOL_SOCKET, SO_SNDBUF, &small, sizeof(small));
    fcntl(agent.fdConn, F_SETFL, O_NONBLOCK);
    const std::string output = randomBytes(1 << 18);
    for (size_t pos = 0; pos < output.size(); pos += 512)
        agent.bufChild2Conn.emplace_back(output.begin() + static_cast<ssize_t>(pos),
                                         output.begin() + static_cast<ssize_t>(pos + 512));
    try {
        while (!agent.bufChild2Conn.empty())
            agent.handleData(FdSet(), FdSet(agent.fdConn));
        FAIL() << "nothing was thrown";
    } catch (const IOException& e) {
        EXPECT_EQ(e.getError(), EAGAIN);
        EXPECT_STREQ(e.what(), "cannot write to TCP port: Resource temporarily unavailable");
    }
    EXPECT_FALSE(agent.bufChild2Conn.empty());
    EXPECT_TRUE(hearFrom(client, output.size()) == output);
}

TEST_F(VKAClientRelay, throwsForAFullTerminalAndKeepsTheInput) {
    fcntl(agent.master, F_SETFL, O_NONBLOCK);
    const std::string input = randomBytes(100000);
    try {
        while (true) {
            agent.bufConn2Child.assign(input.begin(), input.begin() + 512);
            agent.handleData(FdSet(), FdSet(agent.master));
        }
    } catch (const IOException& e) {
        EXPECT_EQ(e.getError(), EAGAIN);
        EXPECT_STREQ(e.what(), "cannot write to PTTY: Resource temporarily unavailable");
    }
    EXPECT_EQ(agent.bufConn2Child, byteVec_t(input.begin(), input.begin() + 512));
    EXPECT_NE(agent.master, -1);
}

TEST_F(VKAClientRelay, connectsAClientWithTheProgram) {
    VKA_REQUIRE_SANDBOX();
    const auto program = Program::copyOf("/bin/cat");
    fcntl(agent.slave, F_SETFL, 0);
    const pid_t host = getpid();
    try {
        agent.run();
    } catch (const IOException&) {
        if (getpid() != host)
            _exit(99);
        throw;
    }
    TcpClient client(agent);
    ASSERT_TRUE(client.say(everyByte() + everyByte()));
    EXPECT_EQ(hearFrom(client, 512), everyByte() + everyByte());
}

} // namespace
