// SPDX-License-Identifier: MIT
// What the relay writes to the log, at each level.
#include <tests/support/client_io.h>
#include <tests/support/client_log.h>

#include <gtest/gtest.h>

#include <functional>

using namespace vkatest;

namespace {

/** The complete log of one handleData() at the levels 0 to 3. */
class VKAClientRelayLog : public testing::Test {
protected:
    void expect(const std::function<void(RelayAgent&)>& act, const std::string& levelOne,
                const std::string& levelTwo, const std::string& levelThree,
                const std::string& dumps = "") {
        const std::string expected[] = {"", levelOne, levelTwo, levelThree};
        for (unsigned int debug = 0; debug < 4; ++debug) {
            Log log;
            RelayAgent agent(debug);
            log.clear();
            act(agent);
            EXPECT_EQ(log.out(), expected[debug]) << "level " << debug;
            EXPECT_EQ(log.unlocked(), debug == 3 ? dumps : "") << "level " << debug;
            EXPECT_EQ(log.unflushed(), "");
            EXPECT_EQ(log.err(), "");
            agent.debug = 0;
        }
    }
    void expectFrom(unsigned int level, const std::function<void(RelayAgent&)>& act,
                    const std::string& lines) {
        expect(act, level <= 1 ? lines : "", lines, lines);
    }
};

std::string line(const std::string& message) {
    return debugLine("handleData", message);
}
std::string lineWithPid(const std::string& message) {
    return pidLine("handleData", message);
}

const std::string twentyBytes("\x00\xff"
                              "ABCDEFGHIJKLMNOPQR",
                              20);

/** The dump of twentyBytes under a prefix. */
std::string twoRows(const std::string& prefix) {
    return prefix + " 00 ff 41 42 43 44 45 46 47 48 49 4a 4b 4c 4d 4e\n" + prefix +
           " 4f 50 51 52\n";
}

TEST_F(VKAClientRelayLog, ofReadingTheClient) {
    const std::string told = line("read (20) data from fdConn=608 to bufConn2Child");
    expect(
        [](RelayAgent& agent) {
            io.yield(twentyBytes);
            agent.handle({fakeConn}, {});
        },
        "", told, told + twoRows("fdconn"), twoRows("fdconn"));
}

TEST_F(VKAClientRelayLog, ofReadingTheTerminal) {
    const std::string told = line("read (20) data from the PTY master=605 to bufChild2Conn");
    expect(
        [](RelayAgent& agent) {
            io.yield(twentyBytes);
            agent.handle({fakeMaster}, {});
        },
        "", told, told + twoRows("master"), twoRows("master"));
}

TEST_F(VKAClientRelayLog, dumpsOnlyTheBytesOfThisRead) {
    const std::string told = line("read (5) data from fdConn=608 to bufConn2Child");
    const std::string dump = "fdconn 68 65 6c 6c 6f\n";
    expect(
        [](RelayAgent& agent) {
            agent.bufConn2Child = toBytes("before");
            io.yield("hello");
            agent.handle({fakeConn}, {});
        },
        "", told, told + dump, dump);
}

TEST_F(VKAClientRelayLog, ofWritingToTheClient) {
    expectFrom(
        2,
        [](RelayAgent& agent) {
            agent.bufChild2Conn = {byteVec_t(300, 'x'), byteVec_t(5, 'y')};
            io.writes = {100};
            agent.handle({}, {fakeConn});
        },
        line("write (300/100) data from bufChild2Conn to fdConn=608"));
}

TEST_F(VKAClientRelayLog, ofWritingToTheTerminal) {
    expectFrom(
        2,
        [](RelayAgent& agent) {
            agent.bufConn2Child = toBytes("0123456789");
            io.writes = {3};
            agent.handle({}, {fakeMaster});
        },
        line("write (10/3) data from bufConn2Child to the PTY master=605"));
}

TEST_F(VKAClientRelayLog, ofAClientThatTakesNothing) {
    const std::string end = lineWithPid(": EOF, shutdown connection, close fdConn=608");
    const std::string both = line("write (3/0) data from bufChild2Conn to fdConn=608") + end;
    expect(
        [](RelayAgent& agent) {
            agent.bufChild2Conn = {toBytes("out")};
            io.writes = {0};
            agent.handle({}, {fakeConn});
        },
        end, both, both);
}

TEST_F(VKAClientRelayLog, ofATerminalThatTakesNothing) {
    expectFrom(
        2,
        [](RelayAgent& agent) {
            agent.bufConn2Child = toBytes("in");
            io.writes = {0};
            agent.handle({}, {fakeMaster});
        },
        line("write (2/0) data from bufConn2Child to the PTY master=605") +
            line("handleData: pid=" + std::to_string(getpid()) +
                 "EOF: close master=605 slave=606"));
}

TEST_F(VKAClientRelayLog, ofAcceptingAClient) {
    expectFrom(
        1,
        [](RelayAgent& agent) {
            agent.fdConn = -1;
            agent.handle({fakeServer}, {});
        },
        lineWithPid(": connection request: fdConn=609"));
}

TEST_F(VKAClientRelayLog, ofAFailedAccept) {
    expectFrom(
        1,
        [](RelayAgent& agent) {
            io.accepted = -EMFILE;
            agent.handle({fakeServer}, {});
        },
        lineWithPid(": connection request: fdConn=-1"));
}

TEST_F(VKAClientRelayLog, ofDroppedOutputSaysNothing) {
    const std::string told = line("read (5) data from the PTY master=605 to bufChild2Conn");
    const std::string dump = "master 68 65 6c 6c 6f\n";
    expect(
        [](RelayAgent& agent) {
            agent.maxbufsize = 4;
            io.yield("hello");
            agent.handle({fakeMaster}, {});
            EXPECT_TRUE(agent.bufChild2Conn.empty());
        },
        "", told, told + dump, dump);
}

TEST_F(VKAClientRelayLog, ofACallWithNothingReadySaysNothing) {
    expectFrom(
        1, [](RelayAgent& agent) { agent.handle({}, {}); }, "");
}

TEST_F(VKAClientRelayLog, ofAWholePassStandsInTheOrderOfTheSteps) {
    const std::string accepted = lineWithPid(": connection request: fdConn=609");
    const std::string readConn = line("read (2) data from fdConn=608 to bufConn2Child"),
                      writeConn = line("write (3/3) data from bufChild2Conn to fdConn=608"),
                      readMaster = line("read (1) data from the PTY master=605 to bufChild2Conn"),
                      writeMaster =
                          line("write (2/2) data from bufConn2Child to the PTY master=605");
    expect(
        [](RelayAgent& agent) {
            agent.bufChild2Conn = {toBytes("out")};
            io.yield("in");
            io.yield("!");
            agent.handle({fakeConn, fakeMaster, fakeServer}, {fakeConn, fakeMaster});
        },
        accepted, readConn + writeConn + readMaster + writeMaster + accepted,
        readConn + "fdconn 69 6e\n" + writeConn + readMaster + "master 21\n" + writeMaster +
            accepted,
        "fdconn 69 6e\nmaster 21\n");
}

} // namespace
