// SPDX-License-Identifier: MIT
// handleData() step by step, on descriptors that the test answers for.
#include <libqvio/IOException>
#include <tests/support/client_io.h>
#include <tests/support/client_log.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <iterator>

using namespace vkatest;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const std::string readConn = "read 608 512", readMaster = "read 605 512";

class VKAClientHandleData : public testing::Test {
protected:
    VKAClientHandleData() { log.clear(); }

    Log log;
    RelayAgent agent;
};

TEST_F(VKAClientHandleData, takesEachStepOnceInOrder) {
    agent.bufConn2Child = toBytes("in");
    agent.bufChild2Conn = {toBytes("out"), toBytes("more")};
    io.yield("from client");
    io.yield("from child");
    agent.handle({fakeConn, fakeMaster, fakeServer}, {fakeConn, fakeMaster});
    EXPECT_THAT(io.calls, ElementsAre(readConn, "write 608 3", readMaster, "write 605 13",
                                      "accept 607 " + std::to_string(sizeof(sockaddr))));
    EXPECT_EQ(io.written, "outinfrom client");
    EXPECT_EQ(agent.bufChild2Conn, (Agent::buf_t{toBytes("more"), toBytes("from child")}));
    EXPECT_TRUE(agent.bufConn2Child.empty());
    EXPECT_EQ(agent.fdConn, newConn);
}

/** Every combination of ready descriptors, of what is open, and of filled buffers. */
TEST_F(VKAClientHandleData, takesOnlyTheStepsThatArePossible) {
    for (int bits = 0; bits < 1024; ++bits) {
        const auto bit = [bits](int number) { return (bits >> number & 1) != 0; };
        const bool connOpen = bit(0), connReadable = bit(1), connWritable = bit(2);
        const bool masterOpen = bit(3), masterReadable = bit(4), masterWritable = bit(5);
        const bool serverOpen = bit(6), serverReadable = bit(7);
        const bool input = bit(8), output = bit(9);

        RelayAgent subject;
        if (!connOpen)
            subject.fdConn = -1;
        if (!masterOpen)
            subject.master = subject.slave = -1;
        if (!serverOpen)
            subject.fdServer = -1;
        if (input)
            subject.bufConn2Child = toBytes("in");
        if (output)
            subject.bufChild2Conn = {toBytes("out")};
        FdSet rfds, wfds;
        if (connReadable)
            rfds += fakeConn;
        if (masterReadable)
            rfds += fakeMaster;
        if (serverReadable)
            rfds += fakeServer;
        if (connWritable)
            wfds += fakeConn;
        if (masterWritable)
            wfds += fakeMaster;
        io.reads = {{"x", 0}, {"y", 0}};
        subject.handleData(rfds, wfds);

        std::vector<std::string> expected;
        const bool readsConn = connOpen && connReadable;
        if (readsConn)
            expected.push_back(readConn);
        if (connOpen && connWritable && output)
            expected.push_back("write 608 3");
        if (masterOpen && masterReadable)
            expected.push_back(readMaster);
        if (masterOpen && masterWritable && (input || readsConn))
            expected.push_back("write 605 " +
                               std::to_string((input ? 2 : 0) + (readsConn ? 1 : 0)));
        if (serverOpen && serverReadable)
            expected.push_back("accept 607 " + std::to_string(sizeof(sockaddr)));
        EXPECT_EQ(io.calls, expected) << "combination " << bits;
    }
}

TEST_F(VKAClientHandleData, appendsTheClientsBytesToWhatWaits) {
    std::string bytes;
    for (int i = 0; i < 512; ++i)
        bytes += static_cast<char>(i);
    agent.bufConn2Child = toBytes("before");
    io.yield(bytes);
    agent.handle({fakeConn}, {});
    EXPECT_EQ(agent.bufConn2Child, toBytes("before" + bytes));
    EXPECT_EQ(agent.bufsize, 0u);
}

TEST_F(VKAClientHandleData, queuesEachReadOfTheTerminalAsOneChunk) {
    std::string bytes;
    for (int i = 0; i < 512; ++i)
        bytes += static_cast<char>(i);
    agent.childWrites(bytes);
    agent.childWrites("x");
    agent.childWrites(std::string(3, '\0'));
    EXPECT_EQ(agent.bufChild2Conn, (Agent::buf_t{toBytes(bytes), toBytes("x"), byteVec_t(3, 0)}));
    EXPECT_EQ(agent.bufsize, 516u);
}

TEST_F(VKAClientHandleData, writesTheFrontChunkOnly) {
    agent.bufChild2Conn = {toBytes("first"), toBytes("second")};
    agent.bufsize = 11;
    agent.handle({}, {fakeConn});
    EXPECT_THAT(io.calls, ElementsAre("write 608 5"));
    EXPECT_EQ(io.written, "first");
    EXPECT_EQ(agent.bufChild2Conn, Agent::buf_t{toBytes("second")});
    EXPECT_EQ(agent.bufsize, 11u);
}

TEST_F(VKAClientHandleData, keepsWhatTheClientDidNotTake) {
    std::string bytes;
    for (int i = 0; i < 300; ++i)
        bytes += static_cast<char>(i);
    agent.bufChild2Conn = {toBytes(bytes), toBytes("next")};
    agent.bufsize = 304;
    io.writes = {100, 199, 1};

    agent.handle({}, {fakeConn});
    EXPECT_EQ(agent.bufChild2Conn, (Agent::buf_t{toBytes(bytes.substr(100)), toBytes("next")}));
    agent.handle({}, {fakeConn});
    EXPECT_EQ(agent.bufChild2Conn, (Agent::buf_t{toBytes(bytes.substr(299)), toBytes("next")}));
    agent.handle({}, {fakeConn});
    EXPECT_EQ(agent.bufChild2Conn, Agent::buf_t{toBytes("next")});

    EXPECT_THAT(io.calls, ElementsAre("write 608 300", "write 608 200", "write 608 1"));
    EXPECT_EQ(io.written, bytes);
    EXPECT_EQ(agent.bufsize, 304u);
}

TEST_F(VKAClientHandleData, keepsWhatTheTerminalDidNotTake) {
    agent.bufConn2Child = toBytes("0123456789");
    io.writes = {3, 6, 1};
    agent.handle({}, {fakeMaster});
    EXPECT_EQ(agent.bufConn2Child, toBytes("3456789"));
    agent.handle({}, {fakeMaster});
    EXPECT_EQ(agent.bufConn2Child, toBytes("9"));
    agent.handle({}, {fakeMaster});
    EXPECT_TRUE(agent.bufConn2Child.empty());
    EXPECT_THAT(io.calls, ElementsAre("write 605 10", "write 605 7", "write 605 1"));
    EXPECT_EQ(io.written, "0123456789");
}

TEST_F(VKAClientHandleData, closesAClientThatTakesNothingAndGoesOn) {
    agent.bufConn2Child = toBytes("in");
    agent.bufChild2Conn = {toBytes("out")};
    agent.bufsize = 3;
    io.writes = {0, 2};
    io.yield("more");
    agent.handle({fakeMaster}, {fakeConn, fakeMaster});
    EXPECT_THAT(io.calls, ElementsAre("write 608 3", "close 608", readMaster, "write 605 2"));
    EXPECT_EQ(agent.fdConn, -1);
    EXPECT_EQ(agent.bufChild2Conn, (Agent::buf_t{toBytes("out"), toBytes("more")}));
    EXPECT_EQ(agent.bufsize, 7u);
}

TEST_F(VKAClientHandleData, keepsInputWhenItClosesTheClient) {
    agent.bufConn2Child = toBytes("in");
    agent.bufChild2Conn = {toBytes("out")};
    agent.bufsize = 3;
    io.writes = {0};
    agent.handle({}, {fakeConn});
    EXPECT_EQ(agent.bufConn2Child, toBytes("in"));
    EXPECT_EQ(agent.bufChild2Conn, Agent::buf_t{toBytes("out")});
    EXPECT_EQ(agent.bufsize, 3u);
}

TEST_F(VKAClientHandleData, closesATerminalThatTakesNothingAndGoesOn) {
    agent.bufConn2Child = toBytes("in");
    agent.bufChild2Conn = {toBytes("out")};
    agent.bufsize = 3;
    io.writes = {0};
    agent.handle({fakeServer}, {fakeMaster});
    EXPECT_THAT(io.calls, ElementsAre("write 605 2", "close 605", "close 606",
                                      "accept 607 " + std::to_string(sizeof(sockaddr))));
    EXPECT_EQ(agent.master, -1);
    EXPECT_EQ(agent.slave, -1);
    EXPECT_EQ(agent.fdServer, fakeServer);
    EXPECT_EQ(agent.bufConn2Child, toBytes("in"));
    EXPECT_EQ(agent.bufChild2Conn, Agent::buf_t{toBytes("out")});
    EXPECT_EQ(agent.bufsize, 3u);
}

TEST_F(VKAClientHandleData, ignoresWhatCloseReturns) {
    agent.bufConn2Child = toBytes("in");
    agent.bufChild2Conn = {toBytes("out")};
    io.writes = {0, 0};
    io.closeFails = true;
    agent.handle({}, {fakeConn, fakeMaster});
    EXPECT_EQ(agent.fdConn, -1);
    EXPECT_EQ(agent.master, -1);
    EXPECT_EQ(agent.slave, -1);
}

TEST_F(VKAClientHandleData, acceptsAClientWhateverTheResult) {
    for (int result : {int(newConn), -EMFILE, -ECONNABORTED}) {
        agent.fdConn = -1;
        io.calls.clear();
        io.accepted = result;
        agent.handle({fakeServer}, {});
        EXPECT_EQ(io.calls.size(), 1u);
        EXPECT_EQ(agent.fdConn, result < 0 ? -1 : result);
    }
}

TEST_F(VKAClientHandleData, replacesAClientWithoutClosingItWhenTheHostAsksForIt) {
    agent.handle({fakeServer}, {});
    EXPECT_THAT(io.calls, ElementsAre("accept 607 " + std::to_string(sizeof(sockaddr))));
    EXPECT_EQ(agent.fdConn, newConn);
}

/** While it lives, abort() first tells in what state the agent is. */
class LastWords {
public:
    LastWords(const RelayAgent& _agent, const Log& _log) {
        agent = &_agent;
        log = &_log;
    }
    ~LastWords() { agent = nullptr; }

    static void say() {
        if (!agent)
            return;
        std::string words = "fdConn=" + std::to_string(agent->fdConn) +
                            " master=" + std::to_string(agent->master) +
                            " slave=" + std::to_string(agent->slave) +
                            " input=" + std::to_string(agent->bufConn2Child.size()) +
                            " chunks=" + std::to_string(agent->bufChild2Conn.size()) +
                            " bufsize=" + std::to_string(agent->bufsize);
        for (const std::string& call : io.calls)
            words += ", " + call;
        words += "\n" + log->out();
        fprintf(stderr, "%s", words.c_str());
    }

private:
    static inline const RelayAgent* agent = nullptr;
    static inline const Log* log = nullptr;
};

} // namespace

extern "C" {
[[noreturn]] void __real_abort();
[[noreturn]] void __wrap_abort();
void __wrap_abort() {
    LastWords::say();
    __real_abort();
}
}

namespace {

void fillBuffers(RelayAgent& agent) {
    agent.bufConn2Child = toBytes("in");
    agent.bufChild2Conn = {toBytes("out"), toBytes("put")};
    agent.bufsize = 6;
}

TEST_F(VKAClientHandleData, endsTheProcessInTheCallThatSeesTheClientsEnd) {
    for (bool writable : {false, true}) {
        const auto meetTheEnd = [&] {
            const LastWords words(agent, log);
            fillBuffers(agent);
            io.yield("");
            if (writable)
                agent.handle({fakeConn, fakeMaster}, {fakeConn, fakeMaster});
            else
                agent.handle({fakeConn}, {});
        };
        EXPECT_EXIT(meetTheEnd(), testing::KilledBySignal(SIGABRT),
                    "terminated(.|\n)*fdConn=-1 master=605 slave=606 input=2 chunks=2 bufsize=6, "
                    "read 608 512, close 608\n");
    }
}

TEST_F(VKAClientHandleData, endsTheProcessInTheCallThatSeesTheTerminalsEnd) {
    for (bool writable : {false, true}) {
        const auto meetTheEnd = [&] {
            const LastWords words(agent, log);
            fillBuffers(agent);
            io.yield("");
            if (writable)
                agent.handle({fakeMaster, fakeServer}, {fakeMaster});
            else
                agent.handle({fakeMaster}, {});
        };
        EXPECT_EXIT(meetTheEnd(), testing::KilledBySignal(SIGABRT),
                    "terminated(.|\n)*fdConn=608 master=-1 slave=-1 input=2 chunks=2 bufsize=6, "
                    "read 605 512, close 605, close 606\n");
    }
}

TEST_F(VKAClientHandleData, tellsOfTheEndFromLevelTwoOn) {
    for (unsigned int debug : {0u, 1u, 2u, 3u}) {
        agent.debug = debug;
        const auto meetTheEnd = [&](int fd) {
            const LastWords words(agent, log);
            io.yield("");
            agent.handle({fd}, {});
        };
        const std::string pid = "pid=[0-9]+";
        const std::string prefix = "\\[DEBUG\\] VKAClient::handleData\\(\\) ";
        std::string conn = "close 608\n", terminal = "close 606\n";
        if (debug > 1) {
            conn += prefix + "read \\(0\\) data from fdConn=608 to bufConn2Child\n" + prefix +
                    "handleData: " + pid + ": EOF, shutdown connection, close fdConn=608\n";
            terminal += prefix + "read \\(0\\) data from the PTY master=605 to bufChild2Conn\n" +
                        prefix + "handleData: " + pid + ": close master=605 slave=606\n";
        }
        EXPECT_EXIT(meetTheEnd(fakeConn), testing::KilledBySignal(SIGABRT), conn + "$");
        EXPECT_EXIT(meetTheEnd(fakeMaster), testing::KilledBySignal(SIGABRT), terminal + "$");
    }
    agent.debug = 0;
}

/** A transfer that fails. */
struct Failure {
    const char* call;
    const char* message;
};

class VKAClientHandleDataFailure
    : public VKAClientHandleData,
      public testing::WithParamInterface<std::tuple<Failure, int, unsigned int>> {};

const Failure failures[] = {
    {"read 608 512", "cannot read from TCP port"},
    {"write 608 3", "cannot write to TCP port"},
    {"read 605 512", "cannot read from PTTY"},
    {"write 605 2", "cannot write to PTTY"},
};

/** Prepares agent and descriptors so that the numbered transfer fails after those before it. */
void letFail(RelayAgent& agent, const std::string& call, int err) {
    io = Io();
    fillBuffers(agent);
    if (call == "read 608 512") {
        io.failRead(err);
    } else if (call == "write 608 3") {
        io.writes = {-err};
    } else if (call == "read 605 512") {
        io.failRead(err);
    } else {
        io.writes = {-err};
    }
}

TEST_P(VKAClientHandleDataFailure, isThrownWithItsNumberAndChangesNothing) {
    const auto [failure, err, debug] = GetParam();
    const std::string call = failure.call;
    const int fd = call.find("608") != std::string::npos ? fakeConn : fakeMaster;
    const bool reading = call[0] == 'r';
    agent.debug = debug;
    letFail(agent, call, err);
    FdSet rfds, wfds;
    if (reading)
        rfds += fd;
    // Steps that come later are possible and left out.
    rfds += fakeServer;
    wfds += fakeMaster;
    if (fd == fakeConn) {
        wfds += fakeConn;
        rfds += fakeMaster;
    }
    if (call == "read 605 512")
        rfds += fakeMaster;

    try {
        agent.handleData(rfds, wfds);
        ADD_FAILURE() << "nothing was thrown";
    } catch (const IOException& e) {
        EXPECT_EQ(e.getError(), err);
        EXPECT_STREQ(e.what(), IOException(err, failure.message).what());
    }
    EXPECT_THAT(io.calls, ElementsAre(call));
    EXPECT_EQ(agent.fdConn, fakeConn);
    EXPECT_EQ(agent.master, fakeMaster);
    EXPECT_EQ(agent.slave, fakeSlave);
    EXPECT_EQ(agent.fdServer, fakeServer);
    EXPECT_EQ(agent.bufConn2Child, toBytes("in"));
    EXPECT_EQ(agent.bufChild2Conn, (Agent::buf_t{toBytes("out"), toBytes("put")}));
    EXPECT_EQ(agent.bufsize, 6u);

    // The line comes before the throw.
    std::string line;
    if (call == "read 608 512")
        line = "read (-1) data from fdConn=608 to bufConn2Child";
    else if (call == "write 608 3")
        line = "write (3/-1) data from bufChild2Conn to fdConn=608";
    else if (call == "read 605 512")
        line = "read (-1) data from the PTY master=605 to bufChild2Conn";
    else
        line = "write (2/-1) data from bufConn2Child to the PTY master=605";
    EXPECT_EQ(log.out(), debug > 1 ? debugLine("handleData", line) : "");
    EXPECT_EQ(log.unlocked(), "");
    agent.debug = 0;

    // The host calls again, and nothing was lost.
    io = Io();
    io.reads = {{"1", 0}, {"2", 0}};
    agent.handle({fakeConn, fakeMaster}, {fakeConn, fakeMaster});
    EXPECT_EQ(io.written, "outin1");
    EXPECT_EQ(agent.bufChild2Conn, (Agent::buf_t{toBytes("put"), toBytes("2")}));
}

INSTANTIATE_TEST_SUITE_P(EachTransfer, VKAClientHandleDataFailure,
                         testing::Combine(testing::ValuesIn(failures),
                                          testing::Values(EINTR, EAGAIN, EIO, EPIPE, ECONNRESET),
                                          testing::Values(0u, 1u, 2u, 3u)));

} // namespace
