// SPDX-License-Identifier: MIT
// How much of the child's output is kept for clients.
#include <tests/support/client_io.h>
#include <tests/support/client_log.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>

using namespace vkatest;

namespace {

class VKAClientRelayLimit : public testing::Test {
protected:
    /** What the child writes, `size` bytes that tell where they stand in its output. */
    std::string output(size_t size) {
        std::string bytes;
        while (bytes.size() < size)
            bytes += static_cast<char>('a' + produced++ % 26);
        return bytes;
    }

    typedef std::vector<size_t> sizes;

    static sizes chunkSizes(const RelayAgent& agent) {
        sizes found;
        for (const byteVec_t& chunk : agent.bufChild2Conn)
            found.push_back(chunk.size());
        return found;
    }

    Log log;
    size_t produced = 0;
};

TEST_F(VKAClientRelayLimit, dropsTheOldestChunksOverTheBound) {
    RelayAgent agent(0, 1000);
    agent.fdConn = -1;
    const std::string first = output(512), second = output(512), third = output(512);
    agent.childWrites(first);
    EXPECT_EQ(agent.bufsize, 512u);
    agent.childWrites(second);
    EXPECT_EQ(agent.bufsize, 512u);
    EXPECT_EQ(agent.bufChild2Conn, Agent::buf_t{toBytes(second)});
    agent.childWrites(third);
    EXPECT_EQ(agent.bufsize, 512u);
    EXPECT_EQ(agent.bufChild2Conn, Agent::buf_t{toBytes(third)});
}

TEST_F(VKAClientRelayLimit, keepsExactlyTheBound) {
    RelayAgent agent(0, 1000);
    agent.childWrites(output(500));
    agent.childWrites(output(499));
    agent.childWrites(output(1));
    EXPECT_EQ(chunkSizes(agent), (sizes{500, 499, 1}));
    EXPECT_EQ(agent.bufsize, 1000u);
    agent.childWrites(output(1));
    EXPECT_EQ(chunkSizes(agent), (sizes{499, 1, 1}));
    EXPECT_EQ(agent.bufsize, 501u);
}

TEST_F(VKAClientRelayLimit, dropsAReadLargerThanTheBoundAtOnce) {
    for (size_t bound : {size_t(0), size_t(1), size_t(99)}) {
        RelayAgent agent(0, bound);
        agent.childWrites(output(100));
        EXPECT_TRUE(agent.bufChild2Conn.empty());
        EXPECT_EQ(agent.bufsize, 0u);
    }
}

TEST_F(VKAClientRelayLimit, dropsTheWholeQueueForAReadLargerThanTheBound) {
    RelayAgent agent(0, 100);
    agent.childWrites(output(60));
    agent.childWrites(output(40));
    agent.childWrites(output(101));
    EXPECT_TRUE(agent.bufChild2Conn.empty());
    EXPECT_EQ(agent.bufsize, 0u);
}

TEST_F(VKAClientRelayLimit, dropsAsManyChunksAsItTakes) {
    RelayAgent agent(0, 600);
    for (int i = 0; i < 5; ++i)
        agent.childWrites(output(100));
    agent.childWrites(output(350));
    EXPECT_EQ(chunkSizes(agent), (sizes{100, 100, 350}));
    EXPECT_EQ(agent.bufsize, 550u);
}

TEST_F(VKAClientRelayLimit, countsADroppedChunkByWhatWasLeftOfIt) {
    RelayAgent agent(0, 600);
    agent.childWrites(output(300));
    io.writes = {100};
    agent.handle({}, {fakeConn});
    EXPECT_EQ(agent.bufsize, 300u);
    agent.childWrites(output(400));
    EXPECT_EQ(chunkSizes(agent), (sizes{400}));
    EXPECT_EQ(agent.bufsize, 500u); // 100 delivered and 400 queued
}

TEST_F(VKAClientRelayLimit, countsWhatClientsHaveFetchedForever) {
    RelayAgent agent(0, 1000);
    std::string delivered;
    const auto childWrites = [&](size_t size, bool kept) {
        const std::string bytes = output(size);
        agent.childWrites(bytes);
        EXPECT_EQ(agent.bufChild2Conn.empty(), !kept) << size << " bytes";
        agent.handle({}, {fakeConn});
        EXPECT_TRUE(agent.bufChild2Conn.empty());
        if (kept)
            delivered += bytes;
        EXPECT_EQ(agent.bufsize, delivered.size());
    };
    childWrites(512, true);
    childWrites(512, false);
    childWrites(400, true);
    EXPECT_EQ(agent.bufsize, 912u);
    childWrites(100, false);
    childWrites(88, true);
    EXPECT_EQ(agent.bufsize, 1000u);
    for (size_t size : {size_t(1), size_t(2), size_t(100), size_t(512)})
        childWrites(size, false);
    EXPECT_EQ(io.written, delivered);
}

TEST_F(VKAClientRelayLimit, goesOnCountingAcrossClientsAndRunLogs) {
    RelayAgent agent(0, 1000);
    agent.childWrites(output(400));
    agent.handle({}, {fakeConn});
    agent.childWrites(output(300));
    io.writes = {0};
    agent.handle({}, {fakeConn}); // closes the client
    EXPECT_EQ(agent.fdConn, -1);
    EXPECT_EQ(agent.bufsize, 700u);
    agent.handle({fakeServer}, {});
    EXPECT_EQ(agent.bufsize, 700u);

    VKAClient::args_t runLog;
    agent.getRunLog(runLog);
    agent.childWrites(output(301));
    EXPECT_TRUE(agent.bufChild2Conn.empty());
    EXPECT_EQ(agent.bufsize, 700u);
    agent.childWrites(output(300));
    EXPECT_EQ(chunkSizes(agent), (sizes{300}));
    EXPECT_EQ(agent.bufsize, 1000u);
}

TEST_F(VKAClientRelayLimit, mayBeMovedByADerivedClass) {
    RelayAgent agent(0, 1000);
    agent.childWrites(output(512));
    agent.handle({}, {fakeConn});
    agent.bufsize = 0;
    agent.childWrites(output(512));
    EXPECT_EQ(chunkSizes(agent), (sizes{512}));
}

TEST_F(VKAClientRelayLimit, isTakenFromConstructionInItsWholeRange) {
    for (size_t bound : {size_t(INT32_MAX), size_t(INT32_MAX) + 1, size_t(UINT32_MAX), SIZE_MAX / 2,
                         SIZE_MAX / 2 + 1, SIZE_MAX - 1, SIZE_MAX}) {
        const RelayAgent agent(0, bound);
        EXPECT_EQ(agent.maxbufsize, bound);
        EXPECT_EQ(agent.bufsize, 0u);
    }
}

/** The last bound is the highest below which a whole read still leaves room to count. */
TEST_F(VKAClientRelayLimit, isKeptExactlyHoweverHighItIs) {
    for (size_t bound : {size_t(INT32_MAX), size_t(INT32_MAX) + 1, size_t(UINT32_MAX) - 512,
                         SIZE_MAX / 2, SIZE_MAX / 2 + 1, SIZE_MAX - 512}) {
        SCOPED_TRACE(bound);
        RelayAgent agent(0, bound);
        agent.childWrites(output(100));
        EXPECT_EQ(chunkSizes(agent), (sizes{100})) << "far below";
        agent.bufsize = bound - 512; // all but these 100 fetched
        agent.childWrites(output(512));
        EXPECT_EQ(chunkSizes(agent), (sizes{100, 512})) << "exactly the bound";
        EXPECT_EQ(agent.bufsize, bound);
        agent.childWrites(output(1));
        EXPECT_EQ(chunkSizes(agent), (sizes{512, 1})) << "one byte above it";
        EXPECT_EQ(agent.bufsize, bound - 99);
        agent.handle({}, {fakeConn});
        agent.handle({}, {fakeConn});
        EXPECT_EQ(agent.bufsize, bound - 99);
        agent.childWrites(output(100));
        EXPECT_TRUE(agent.bufChild2Conn.empty());
        agent.childWrites(output(99));
        EXPECT_EQ(chunkSizes(agent), (sizes{99}));
        agent.handle({}, {fakeConn});
        EXPECT_EQ(agent.bufsize, bound);
        for (size_t size : {size_t(1), size_t(511), size_t(512)}) {
            agent.childWrites(output(size));
            EXPECT_TRUE(agent.bufChild2Conn.empty()) << size << " bytes";
            EXPECT_EQ(agent.bufsize, bound);
        }
    }
}

TEST_F(VKAClientRelayLimit, isKeptUpToTheEndOfTheCount) {
    RelayAgent agent(0, SIZE_MAX - 1);
    agent.bufsize = SIZE_MAX - 512;
    agent.childWrites(output(512)); // counted to SIZE_MAX
    EXPECT_TRUE(agent.bufChild2Conn.empty());
    EXPECT_EQ(agent.bufsize, SIZE_MAX - 512);
    agent.childWrites(output(511));
    EXPECT_EQ(chunkSizes(agent), (sizes{511}));
    EXPECT_EQ(agent.bufsize, SIZE_MAX - 1);
    agent.childWrites(output(1));
    EXPECT_EQ(chunkSizes(agent), (sizes{1}));
    EXPECT_EQ(agent.bufsize, SIZE_MAX - 511);
}

TEST_F(VKAClientRelayLimit, ofTheHighestNumberDropsNothing) {
    RelayAgent agent(0, SIZE_MAX);
    agent.childWrites(output(100));
    agent.bufsize = SIZE_MAX - 512;
    agent.childWrites(output(512));
    EXPECT_EQ(agent.bufsize, SIZE_MAX);
    EXPECT_EQ(chunkSizes(agent), (sizes{100, 512}));
}

/** The count has the width of a size_t and starts over, which only these bounds let happen. */
TEST_F(VKAClientRelayLimit, withinOneReadOfTheHighestNumberIsCountedModulo) {
    for (size_t below : {size_t(0), size_t(1), size_t(511)}) {
        SCOPED_TRACE(below);
        const size_t bound = SIZE_MAX - below;
        RelayAgent agent(0, bound);
        agent.childWrites(output(100));
        agent.bufsize = bound;
        agent.childWrites(output(512));
        EXPECT_EQ(agent.bufsize, 511 - below);
        EXPECT_EQ(chunkSizes(agent), (sizes{100, 512}));
        agent.childWrites(output(512));
        EXPECT_EQ(agent.bufsize, 1023 - below);
        EXPECT_EQ(chunkSizes(agent), (sizes{100, 512, 512}));
    }
}

/** Any mixture of reads, partial writes and full ones. */
TEST_F(VKAClientRelayLimit, neverDeliversMoreThanTheBoundInTotal) {
    for (unsigned int seed = 1; seed <= 20; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        const auto upTo = [&](size_t most) { return 1 + random() % most; };
        const size_t bound = upTo(5000);
        RelayAgent agent(0, bound);
        for (int step = 0; step < 400; ++step) {
            if (random() % 2 == 0) {
                agent.childWrites(output(upTo(512)));
            } else if (!agent.bufChild2Conn.empty()) {
                io.writes = {static_cast<ssize_t>(upTo(agent.bufChild2Conn.front().size()))};
                agent.handle({}, {fakeConn});
            }
            size_t queued = 0;
            for (size_t size : chunkSizes(agent)) {
                ASSERT_GT(size, 0u);
                queued += size;
            }
            ASSERT_EQ(agent.bufsize, io.written.size() + queued);
            ASSERT_LE(agent.bufsize, bound);
        }
    }
}

} // namespace
