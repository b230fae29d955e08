// SPDX-License-Identifier: MIT
#include <tests/support/child.h>
#include <tests/support/client_agent.h>
#include <tests/support/client_log.h>
#include <tests/support/descriptors.h>
#include <tests/support/fault.h>
#include <tests/support/tempdir.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <memory>
#include <optional>
#include <type_traits>
#include <unistd.h>
#include <vector>

using namespace vkatest;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const Log* watchedLog = nullptr;
std::vector<std::string> events; // calls with what had been logged by then
bool closeForReal = true;
Fault closeFault;

void note(const std::string& call) {
    if (watchedLog)
        events.push_back(call + (watchedLog->out().empty() ? "" : " after the line"));
}

} // namespace

extern "C" {
int __real_close(int fd);
int __wrap_close(int fd);
int __wrap_close(int fd) {
    if (closeForReal)
        return __real_close(fd);
    note("close " + std::to_string(fd));
    return closeFault.hit() ? -1 : 0;
}

int __real_kill(pid_t pid, int signo) noexcept;
int __wrap_kill(pid_t pid, int signo) noexcept;
int __wrap_kill(pid_t pid, int signo) noexcept {
    note("kill " + std::to_string(signo));
    return __real_kill(pid, signo);
}
}

namespace {

static_assert(std::is_nothrow_destructible<VKAClient>::value, "the destructor never throws");

class VKAClientDestruction : public testing::Test {
protected:
    VKAClientDestruction() { events.clear(); }
    ~VKAClientDestruction() override {
        watchedLog = nullptr;
        closeForReal = true;
        closeFault.disarm();
    }

    /** An agent outside console mode; what it has logged so far is dropped. */
    void construct(unsigned int debug) {
        agent.emplace("/w", false, 0, 0, "", debug);
        log.clear();
    }

    /** Destroys the agent, whose descriptors need not exist: what it would close is noted. */
    void destroy() {
        watchedLog = &log;
        closeForReal = false;
        agent.reset();
        closeForReal = true;
        watchedLog = nullptr;
    }

    Log log;
    std::optional<Agent> agent;
};

TEST_F(VKAClientDestruction, closesWhatIsOpenInOrder) {
    for (int open = 0; open < 16; ++open) {
        construct(0);
        std::vector<std::string> expected;
        // 0 is a descriptor like any other
        if (open & 1)
            expected.push_back("close " + std::to_string(agent->master = 0));
        if (open & 2)
            expected.push_back("close " + std::to_string(agent->slave = 903));
        if (open & 4)
            expected.push_back("close " + std::to_string(agent->fdServer = 902));
        if (open & 8)
            expected.push_back("close " + std::to_string(agent->fdConn = 901));
        events.clear();
        destroy();
        EXPECT_EQ(events, expected);
        EXPECT_EQ(log.out(), "");
    }
}

TEST_F(VKAClientDestruction, closesTheDescriptorsOfAConsole) {
    const auto before = openDescriptors();
    agent.emplace("/w", true, 0, 0, "", 0);
    agent->fdConn = dup(agent->slave);
    EXPECT_EQ(openDescriptors().size(), before.size() + 4);
    agent.reset();
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(VKAClientDestruction, writesItsLineFromLevelTwoOnBeforeItCloses) {
    for (unsigned int debug : {0u, 1u, 2u, 3u}) {
        construct(debug);
        agent->master = 905;
        agent->slave = 906;
        agent->fdConn = 907;
        events.clear();
        destroy();
        if (debug > 1) {
            EXPECT_EQ(log.out(),
                      pidLine("~VKAClient", ": close master=905 slave=906 fdServer=-1 fdConn=907"));
            EXPECT_THAT(events, ElementsAre("close 905 after the line", "close 906 after the line",
                                            "close 907 after the line"));
        } else {
            EXPECT_EQ(log.out(), "");
        }
        EXPECT_EQ(log.unflushed(), "");
        EXPECT_EQ(log.unlocked(), "");
        EXPECT_EQ(log.err(), "");
    }
}

TEST_F(VKAClientDestruction, ignoresWhatCloseReturns) {
    construct(0);
    agent->master = 901;
    agent->slave = 902;
    agent->fdServer = 903;
    agent->fdConn = 904;
    closeFault.failAlways(EIO);
    destroy();
    EXPECT_THAT(events, ElementsAre("close 901", "close 902", "close 903", "close 904"));
}

TEST_F(VKAClientDestruction, stopsTheChildBeforeAnythingElse) {
    construct(2);
    const pid_t pid = agent->vkaproc.fork();
    if (pid == 0) {
        while (true)
            pause();
    }
    Child child(pid);
    watchedLog = &log;
    agent.reset();
    watchedLog = nullptr;
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(events.front(), "kill " + std::to_string(SIGTERM));
    EXPECT_EQ(log.out(), pidLine("~VKAClient", ": close master=-1 slave=-1 fdServer=-1 fdConn=-1"));
    siginfo_t info;
    EXPECT_NE(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT), 0)
        << "the child is still there";
}

TEST_F(VKAClientDestruction, withoutChildOrDescriptorsDoesNothingVisible) {
    construct(1);
    destroy();
    EXPECT_THAT(events, IsEmpty());
    EXPECT_EQ(log.out() + log.err(), "");
}

TEST_F(VKAClientDestruction, removesNoFile) {
    const TempDir dir;
    dir.makeDir("src");
    dir.makeDir("build");
    agent.emplace(dir.path().c_str(), false, 0, 0, "", 0);
    agent.reset();
    EXPECT_TRUE(exists(dir / "src"));
    EXPECT_TRUE(exists(dir / "build"));
}

struct Derived : VKAClient {
    explicit Derived(bool& _destroyed)
        : VKAClient("/w", true, 0, 0, "", 0), destroyed(_destroyed) {}
    ~Derived() override { destroyed = true; }
    bool& destroyed;
};

TEST_F(VKAClientDestruction, worksThroughAPointerToTheBase) {
    const auto before = openDescriptors();
    bool destroyed = false;
    VKAClient* const host = new Derived(destroyed);
    delete host;
    EXPECT_TRUE(destroyed);
    EXPECT_EQ(openDescriptors(), before);
}

struct BrokenBuf : std::streambuf {};

TEST_F(VKAClientDestruction, endsTheProcessWhenItsLineCannotBeWritten) {
    const auto destroyOnBrokenStream = [] {
        auto broken = std::make_unique<Agent>("/w", false, 0, 0, "", 2);
        BrokenBuf buf;
        std::streambuf* const before = std::cout.rdbuf(&buf);
        std::cout.exceptions(std::ios::badbit);
        broken.reset();
        std::cout.exceptions(std::ios::goodbit);
        std::cout.rdbuf(before);
    };
    EXPECT_EXIT(destroyOnBrokenStream(), testing::KilledBySignal(SIGABRT), "terminate");
}

} // namespace
