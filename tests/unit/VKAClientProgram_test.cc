// SPDX-License-Identifier: MIT
// Launching and supervising real programs at /tmp/vkabin.
#include <libqvio/IOException>
#include <tests/support/child.h>
#include <tests/support/client_agent.h>
#include <tests/support/client_log.h>
#include <tests/support/client_program.h>
#include <tests/support/client_terminal.h>
#include <tests/support/sandbox.h>
#include <tests/support/tempdir.h>
#include <tests/support/transfer.h>
#include <tests/support/wait.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <optional>
#include <unistd.h>

using namespace vkatest;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {
pid_t lastForked = -1;
}

extern "C" {
pid_t __real_fork(void) noexcept;
pid_t __wrap_fork(void) noexcept;
pid_t __wrap_fork(void) noexcept {
    return lastForked = __real_fork();
}
}

namespace {

class VKAClientProgram : public testing::Test {
protected:
    void SetUp() override { VKA_REQUIRE_SANDBOX(); }

    void console(unsigned int debug = 0) {
        agent.emplace("/w", true, 1000, 0, "", debug);
        makeRaw(agent->master); // so that the program need not wait until run() has done it
    }
    void logFile(const std::string& path) { agent.emplace("/w", false, 1000, 0, path, 0); }

    /** Calls run(). @return the child's id */
    pid_t run() {
        const pid_t host = getpid();
        try {
            agent->run();
            EXPECT_TRUE(agent->console);
        } catch (const IOException& e) {
            if (getpid() != host)
                _exit(e.getError());
            EXPECT_FALSE(agent->console) << e.what();
            EXPECT_EQ(e.getError(), EBADF);
        }
        return lastForked;
    }

    std::optional<Agent> agent;
};

std::string inProc(pid_t pid, const std::string& entry) {
    return "/proc/" + std::to_string(pid) + '/' + entry;
}

std::string linkTarget(const std::string& link) {
    std::error_code error;
    return std::filesystem::read_symlink(link, error).string();
}

/** This process's own, as /proc would show it. */
std::string environment() {
    std::string entries;
    for (char** entry = environ; *entry; ++entry)
        entries.append(*entry).push_back('\0');
    return entries;
}

/** Waits until the child's argument 0 is the given one. */
bool executes(pid_t pid, const std::string& name) {
    return waitUntil(
        [&] { return contentOf(inProc(pid, "cmdline")).compare(0, name.size(), name) == 0; });
}

/** Waits for a child's end, leaving it unreaped. @return its exit code, a signal's negative */
int awaitEnd(pid_t pid) {
    siginfo_t info = {};
    if (uninterrupted(
            [&] { return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT); }) == -1)
        return -1000;
    return info.si_code == CLD_EXITED ? info.si_status : -info.si_status;
}

TEST_F(VKAClientProgram, runsUnderItsNameWithoutArguments) {
    const auto program = Program::copyOf("/bin/cat");
    console();
    const pid_t pid = run();
    ASSERT_TRUE(executes(pid, "vkabin"));
    EXPECT_EQ(contentOf(inProc(pid, "cmdline")), std::string("vkabin\0", 7));
    EXPECT_EQ(linkTarget(inProc(pid, "exe")), Program::path);
    EXPECT_EQ(contentOf(inProc(pid, "environ")), environment());
    EXPECT_EQ(linkTarget(inProc(pid, "cwd")), std::filesystem::current_path());
    for (const char* fd : {"fd/0", "fd/1", "fd/2"})
        EXPECT_EQ(linkTarget(inProc(pid, fd)), ttyname(agent->slave)) << fd;
}

TEST_F(VKAClientProgram, talksThroughTheTerminalUntouched) {
    const auto program = Program::copyOf("/bin/cat");
    console();
    run();
    std::string bytes;
    for (int i = 0; i < 256; ++i)
        bytes += static_cast<char>(i);
    ASSERT_TRUE(writeAll(agent->master, bytes));
    EXPECT_EQ(readUntil(agent->master, bytes), bytes);
}

TEST_F(VKAClientProgram, writesOutputAndErrorsToTheTerminal) {
    const Program program("printf out; printf err >&2; exit 7");
    console();
    EXPECT_EQ(awaitEnd(run()), 7);
    EXPECT_EQ(takeOutput(*agent), "outerr");
}

TEST_F(VKAClientProgram, writesOverTheStartOfTheLogFile) {
    const TempDir dir;
    const Program program("printf out; printf err >&2; exit 7");
    logFile(dir.makeFile("log", "0123456789"));
    EXPECT_EQ(awaitEnd(run()), 7);
    EXPECT_EQ(contentOf(dir / "log"), "outerr6789");
}

TEST_F(VKAClientProgram, keepsTheLogFilesDescriptorAndTheHostsInput) {
    const TempDir dir;
    const Program program("exec sleep 1000");
    const std::string log = dir.makeFile("log");
    logFile(log);
    const pid_t pid = run();
    ASSERT_TRUE(executes(pid, "sleep"));
    EXPECT_EQ(linkTarget(inProc(pid, "fd/0")), linkTarget("/proc/self/fd/0"));
    int toLog = 0;
    for (const auto& entry : std::filesystem::directory_iterator(inProc(pid, "fd")))
        toLog += linkTarget(entry.path()) == log;
    EXPECT_EQ(toLog, 3);
}

TEST_F(VKAClientProgram, missingIsReportedOnTheTerminalWithStatusOne) {
    std::filesystem::remove(Program::path);
    console();
    EXPECT_EQ(awaitEnd(run()), 1);
    EXPECT_EQ(takeOutput(*agent), "cannot exec: No such file or directory\n");
}

TEST_F(VKAClientProgram, missingIsReportedInTheLogFile) {
    const TempDir dir;
    std::filesystem::remove(Program::path);
    logFile(dir.makeFile("log", ""));
    EXPECT_EQ(awaitEnd(run()), 1);
    EXPECT_EQ(contentOf(dir / "log"), "cannot exec: No such file or directory\n");
}

TEST_F(VKAClientProgram, thatIsNotExecutableIsReported) {
    const Program program("");
    std::filesystem::permissions(Program::path, std::filesystem::perms::owner_read);
    console();
    EXPECT_EQ(awaitEnd(run()), 1);
    EXPECT_EQ(takeOutput(*agent), "cannot exec: Permission denied\n");
}

TEST_F(VKAClientProgram, runsAgainAfterItsEnd) {
    const Program program("printf '[%s]' $$; exit 3");
    console();
    std::string expected;
    for (int i = 0; i < 3; ++i) {
        const pid_t pid = run();
        EXPECT_EQ(awaitEnd(pid), 3);
        expected += '[' + std::to_string(pid) + ']';
    }
    EXPECT_EQ(takeOutput(*agent), expected);
}

TEST_F(VKAClientProgram, isEndedByStop) {
    const Program program("exec sleep 1000");
    console(3);
    const pid_t pid = run();
    ASSERT_TRUE(executes(pid, "sleep"));
    agent->bufConn2Child = {'i'};
    agent->bufChild2Conn = {{'o'}};
    agent->bufsize = 9;
    const int fdServer = agent->fdServer, master = agent->master, slave = agent->slave;

    Log log;
    agent->stop();
    EXPECT_TRUE(waitUntil([&] {
        VKAClient::pidset_t pids;
        agent->waitChildren(false, pids);
        return kill(pid, 0) == -1;
    }));
    EXPECT_EQ(log.out() + log.err(), "");
    EXPECT_EQ(agent->fdServer, fdServer);
    EXPECT_EQ(agent->master, master);
    EXPECT_EQ(agent->slave, slave);
    EXPECT_EQ(agent->bufConn2Child, byteVec_t{'i'});
    EXPECT_EQ(agent->bufChild2Conn, Agent::buf_t{{'o'}});
    EXPECT_EQ(agent->bufsize, 9u);
}

TEST_F(VKAClientProgram, isStartedAnewAfterStop) {
    const Program program("printf go; exec sleep 1000");
    console();
    const pid_t first = run();
    EXPECT_EQ(readUntil(agent->master, "go"), "go");
    agent->stop();
    VKAClient::pidset_t pids;
    agent->waitChildren(true, pids);
    EXPECT_NE(run(), first);
    EXPECT_EQ(readUntil(agent->master, "go"), "go");
}

TEST_F(VKAClientProgram, isEndedWithItsAgent) {
    const Program program("exec sleep 1000");
    console();
    const pid_t pid = run();
    ASSERT_TRUE(executes(pid, "sleep"));
    agent.reset();
    EXPECT_EQ(kill(pid, 0), -1);
    EXPECT_FALSE(anyChildLeft());
}

TEST_F(VKAClientProgram, isReapedByAWait) {
    const Program program("exit 5");
    console();
    const pid_t pid = run();
    EXPECT_EQ(awaitEnd(pid), 5);
    Log log;
    agent->debug = 3;
    VKAClient::pidset_t pids;
    EXPECT_EQ(agent->waitChildren(false, pids), pid);
    EXPECT_THAT(pids, ElementsAre(pid));
    EXPECT_FALSE(agent->vkaproc.hasChildren());
    EXPECT_EQ(log.out() + log.err(), "");
    agent->debug = 0;
}

TEST_F(VKAClientProgram, isLeftAloneByAWaitThatOnlyPolls) {
    const Program program("exec sleep 1000");
    console();
    const pid_t pid = run();
    VKAClient::pidset_t pids;
    EXPECT_EQ(agent->waitChildren(false, pids), 0);
    EXPECT_THAT(pids, IsEmpty());
    EXPECT_EQ(kill(pid, 0), 0);
}

TEST_F(VKAClientProgram, isAwaitedByABlockingWait) {
    const Program program("sleep 0.2; exit 5");
    console();
    const pid_t pid = run();
    VKAClient::pidset_t pids;
    EXPECT_EQ(agent->waitChildren(true, pids), pid);
    EXPECT_THAT(pids, ElementsAre(pid));
}

TEST_F(VKAClientProgram, withoutAnyNothingIsStoppedOrAwaited) {
    agent.emplace("/w", false, 0, 0, "", 3);
    const Child other = Child::idle();
    Log log;
    agent->stop();
    VKAClient::pidset_t pids;
    EXPECT_EQ(agent->waitChildren(false, pids), 0);
    EXPECT_EQ(agent->waitChildren(true, pids), 0);
    EXPECT_THAT(pids, IsEmpty());
    EXPECT_EQ(log.out() + log.err(), "");
    EXPECT_EQ(kill(other.id(), 0), 0) << "a child of the host's own";
}

} // namespace
