// SPDX-License-Identifier: MIT
// run() as the host sees it.
#include <libqvio/IOException>
#include <tests/support/capture.h>
#include <tests/support/child.h>
#include <tests/support/client_agent.h>
#include <tests/support/client_launch.h>
#include <tests/support/client_log.h>
#include <tests/support/client_terminal.h>
#include <tests/support/descriptors.h>
#include <tests/support/fault.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <fcntl.h>
#include <ios>
#include <iterator>
#include <optional>
#include <termios.h>
#include <typeinfo>
#include <vector>

using namespace vkatest;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

Fault getattrFault, setattrFault;
std::vector<int> closed;   // by the agent
bool closeForReal = true;  // false: only noted
const Log* watchedLog;     // at the time of each close it has to hold the error line
int tcsetattrActions = -1; // the last call's argument

} // namespace

extern "C" {
int __real_close(int fd);
int __wrap_close(int fd);
int __wrap_close(int fd) {
    if (watchedLog) {
        closed.push_back(fd);
        EXPECT_NE(watchedLog->err(), "") << "closes before it reports";
        if (!closeForReal)
            return 0;
    }
    return __real_close(fd);
}

int __real_tcgetattr(int fd, termios* tios) noexcept;
int __wrap_tcgetattr(int fd, termios* tios) noexcept;
int __wrap_tcgetattr(int fd, termios* tios) noexcept {
    return getattrFault.hit() ? -1 : __real_tcgetattr(fd, tios);
}

int __real_tcsetattr(int fd, int actions, const termios* tios) noexcept;
int __wrap_tcsetattr(int fd, int actions, const termios* tios) noexcept;
int __wrap_tcsetattr(int fd, int actions, const termios* tios) noexcept {
    tcsetattrActions = actions;
    return setattrFault.hit() ? -1 : __real_tcsetattr(fd, actions, tios);
}
}

namespace {

class VKAClientRun : public testing::Test {
protected:
    VKAClientRun() {
        program = idle;
        forkFault.disarm();
        getattrFault.disarm();
        setattrFault.disarm();
        closed.clear();
    }
    ~VKAClientRun() override {
        watchedLog = nullptr;
        closeForReal = true;
        program = nullptr;
    }

    void construct(unsigned int debug, bool console = true) {
        agent.emplace("/w", console, 1000, 0, "/dev/null", debug);
        log.clear();
    }

    /** Calls run(), which has to fail. */
    void expectFailure(int err, const std::string& message) {
        log.clear();
        closed.clear();
        watchedLog = &log;
        try {
            runHere(*agent);
            ADD_FAILURE() << "run() succeeded instead of failing with " << message;
        } catch (const IOException& e) {
            EXPECT_EQ(typeid(e), typeid(IOException));
            EXPECT_EQ(e.getError(), err);
            const IOException expected(err, message);
            EXPECT_STREQ(e.what(), expected.what());
        }
        watchedLog = nullptr;
    }

    static std::string errorLine(int err) {
        std::string end;
        {
            const Capture capture(std::cerr);
            LogUtil::printError(err);
            end = capture.text();
        }
        return std::string("[ERROR] VKAClient::run() ") + strerror(err) + end;
    }

    static std::string pollLine(pid_t ret, const VKAClient::pidset_t& pids) {
        return pidLine("run", ": waitChildren ret=" + std::to_string(ret) + " pids=" + text(pids));
    }

    static std::string closeLine(int fdServer, int master, int slave) {
        return pidLine("run", ": close fdServer=" + std::to_string(fdServer) + " master=" +
                                  std::to_string(master) + " slave=" + std::to_string(slave));
    }

    void expectNoConsole() {
        EXPECT_EQ(agent->fdServer, -1);
        EXPECT_EQ(agent->master, -1);
        EXPECT_EQ(agent->slave, -1);
    }

    Log log;
    std::optional<Agent> agent;
};

bool isOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

bool isRunning(pid_t pid) {
    siginfo_t info = {};
    return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == 0;
}

TEST_F(VKAClientRun, startsOneChildAndRecordsIt) {
    construct(0);
    runHere(*agent);
    EXPECT_EQ(forkFault.calls(), 1);
    EXPECT_TRUE(agent->vkaproc.hasChildren());
    EXPECT_TRUE(isRunning(lastForked));
}

TEST_F(VKAClientRun, logsOnlyThePollFromLevelTwoOn) {
    for (unsigned int debug : {0u, 1u, 2u, 3u}) {
        construct(debug);
        runHere(*agent);
        EXPECT_EQ(log.out(), debug > 1 ? pollLine(0, {}) : "");
        EXPECT_EQ(log.unflushed(), "");
        EXPECT_EQ(log.unlocked(), "");
        EXPECT_EQ(log.err(), "");
    }
}

TEST_F(VKAClientRun, leavesTheTerminalInRawModeAtOnce) {
    construct(0);
    termios expected;
    ASSERT_EQ(__real_tcgetattr(agent->slave, &expected), 0);
    ASSERT_NE(expected.c_lflag & ICANON, 0u) << "was raw before";
    cfmakeraw(&expected);

    runHere(*agent);
    termios actual;
    ASSERT_EQ(__real_tcgetattr(agent->slave, &actual), 0);
    EXPECT_EQ(actual.c_iflag, expected.c_iflag);
    EXPECT_EQ(actual.c_oflag, expected.c_oflag);
    EXPECT_EQ(actual.c_cflag, expected.c_cflag);
    EXPECT_EQ(actual.c_lflag, expected.c_lflag);
    EXPECT_EQ(actual.c_cc[VMIN], 1);
    EXPECT_EQ(actual.c_cc[VTIME], 0);
    EXPECT_EQ(memcmp(actual.c_cc, expected.c_cc, sizeof(expected.c_cc)), 0);
    EXPECT_EQ(tcsetattrActions, TCSANOW);
}

TEST_F(VKAClientRun, leavesDescriptorsOpen) {
    construct(0);
    const int master = agent->master, slave = agent->slave, fdServer = agent->fdServer;
    const auto before = openDescriptors();
    runHere(*agent);
    EXPECT_EQ(agent->master, master);
    EXPECT_EQ(agent->slave, slave);
    EXPECT_EQ(agent->fdServer, fdServer);
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(VKAClientRun, dropsTheInputOfAnEarlierClientAndKeepsTheOutput) {
    construct(0);
    agent->bufConn2Child = {'i', 'n'};
    agent->bufChild2Conn = {{'o', 'u', 't'}, {'!'}};
    agent->bufsize = 77;
    runHere(*agent);
    EXPECT_TRUE(agent->bufConn2Child.empty());
    EXPECT_EQ(agent->bufChild2Conn, (Agent::buf_t{{'o', 'u', 't'}, {'!'}}));
    EXPECT_EQ(agent->bufsize, 77u);
}

TEST_F(VKAClientRun, reapsAChildThatEndedUnnoticedAndStartsANewOne) {
    for (unsigned int debug : {0u, 1u, 2u, 3u}) {
        program = [](const char*, char* const[]) { return 0; };
        construct(debug);
        runHere(*agent);
        const pid_t first = lastForked;
        ASSERT_EQ(exitCodeOf(first), 0);
        log.clear();

        program = idle;
        runHere(*agent);
        EXPECT_NE(lastForked, first);
        EXPECT_TRUE(isRunning(lastForked));
        EXPECT_EQ(waitpid(first, nullptr, WNOHANG), -1) << "not reaped";
        EXPECT_EQ(log.out(), debug > 1 ? pollLine(first, {first}) : "");
        EXPECT_NE(agent->master, -1);
    }
}

TEST_F(VKAClientRun, refusesWhileTheChildRunsAndClosesTheConsole) {
    for (unsigned int debug : {0u, 1u, 2u, 3u}) {
        construct(debug);
        runHere(*agent);
        const pid_t child = lastForked;
        const Fd conn(dup(agent->slave));
        agent->fdConn = conn.get();
        agent->bufConn2Child = {'i', 'n'};
        agent->bufChild2Conn = {{'o', 'u', 't'}};
        const int fdServer = agent->fdServer, master = agent->master, slave = agent->slave;
        forkFault.disarm();

        expectFailure(16, "VKA process(es) already running");

        expectNoConsole();
        EXPECT_THAT(closed, ElementsAre(fdServer, master, slave));
        for (int fd : {fdServer, master, slave})
            EXPECT_FALSE(isOpen(fd)) << fd;
        EXPECT_EQ(agent->fdConn, conn.get());
        EXPECT_TRUE(isOpen(conn.get()));
        EXPECT_EQ(agent->bufConn2Child, (byteVec_t{'i', 'n'}));
        EXPECT_EQ(agent->bufChild2Conn, (Agent::buf_t{{'o', 'u', 't'}}));
        EXPECT_EQ(forkFault.calls(), 0) << "a new process";
        EXPECT_TRUE(isRunning(child));

        EXPECT_EQ(log.err(), errorLine(EBUSY));
        EXPECT_EQ(log.out(), debug > 1 ? pollLine(0, {}) + closeLine(fdServer, master, slave) : "");
        EXPECT_EQ(log.unlocked(), "");
        EXPECT_EQ(log.unflushed(), "");
        EXPECT_TRUE(LogUtil::logMutex.try_lock()) << "still locked";
        LogUtil::logMutex.unlock();
        agent->fdConn = -1;
    }
}

TEST_F(VKAClientRun, staysWithoutAConsoleOnceItWasClosed) {
    construct(0);
    runHere(*agent);
    expectFailure(EBUSY, "VKA process(es) already running");
    agent->stop();
    VKAClient::pidset_t pids;
    agent->waitChildren(true, pids);

    expectFailure(EBADF, "tcgetattr");
    expectNoConsole();
    EXPECT_THAT(closed, IsEmpty());
}

TEST_F(VKAClientRun, reportsAFailedForkWithItsOwnNumber) {
    for (unsigned int debug : {0u, 1u, 2u, 3u}) {
        for (int err : {EAGAIN, ENOMEM, ENOSYS}) {
            construct(debug);
            agent->bufConn2Child = {'i', 'n'};
            const int fdServer = agent->fdServer, master = agent->master, slave = agent->slave;
            forkFault.failAt(1, err);
            expectFailure(err, "cannot fork");
            expectNoConsole();
            EXPECT_THAT(closed, ElementsAre(fdServer, master, slave));
            EXPECT_FALSE(agent->vkaproc.hasChildren());
            EXPECT_TRUE(agent->bufConn2Child.empty());
            EXPECT_EQ(log.err(), errorLine(err));
            EXPECT_EQ(log.out(),
                      debug > 1 ? pollLine(0, {}) + closeLine(fdServer, master, slave) : "");
        }
    }
}

TEST_F(VKAClientRun, closesOnlyWhatIsOpen) {
    for (int open = 0; open < 8; ++open) {
        construct(0, false);
        std::vector<int> expected;
        if (open & 1)
            expected.push_back(agent->fdServer = 0); // a descriptor like any other
        if (open & 2)
            expected.push_back(agent->master = 901);
        if (open & 4)
            expected.push_back(agent->slave = 902);
        forkFault.failAt(1, EAGAIN);
        closeForReal = false;
        expectFailure(EAGAIN, "cannot fork");
        closeForReal = true;
        EXPECT_EQ(closed, expected);
        expectNoConsole();
    }
}

TEST_F(VKAClientRun, reportsATerminalThatCannotBeAsked) {
    construct(2);
    const int fdServer = agent->fdServer, master = agent->master, slave = agent->slave;
    getattrFault.failAt(1, EIO);
    expectFailure(EIO, "tcgetattr");
    EXPECT_EQ(setattrFault.calls(), 0);
    EXPECT_THAT(closed, ElementsAre(fdServer, master, slave));
    expectNoConsole();
    EXPECT_TRUE(isRunning(lastForked)) << "the child was started before";
    EXPECT_EQ(log.err(), errorLine(EIO));
    EXPECT_EQ(log.out(), pollLine(0, {}) + closeLine(fdServer, master, slave));
}

TEST_F(VKAClientRun, reportsATerminalThatCannotBeSet) {
    construct(2);
    const int fdServer = agent->fdServer, master = agent->master, slave = agent->slave;
    setattrFault.failAt(1, EINTR);
    expectFailure(EINTR, "tcsetattr");
    EXPECT_THAT(closed, ElementsAre(fdServer, master, slave));
    expectNoConsole();
    EXPECT_TRUE(isRunning(lastForked));
    EXPECT_EQ(log.err(), errorLine(EINTR));
    EXPECT_EQ(log.out(), pollLine(0, {}) + closeLine(fdServer, master, slave));
}

TEST_F(VKAClientRun, outsideConsoleModeStartsTheChildAndFailsAllTheSame) {
    for (unsigned int debug : {0u, 1u, 2u, 3u}) {
        construct(debug, false);
        expectFailure(EBADF, "tcgetattr");
        EXPECT_TRUE(isRunning(lastForked));
        EXPECT_TRUE(agent->vkaproc.hasChildren());
        expectNoConsole();
        EXPECT_THAT(closed, IsEmpty());
        EXPECT_EQ(log.err(), errorLine(EBADF));
        EXPECT_EQ(log.out(), debug > 1 ? pollLine(0, {}) + closeLine(-1, -1, -1) : "");
    }
}

TEST_F(VKAClientRun, leavesTheConsoleAloneForOtherExceptions) {
    construct(2);
    const auto before = openDescriptors();
    FailingBuf broken(10);
    std::streambuf* const buf = std::cout.rdbuf(&broken);
    std::cout.exceptions(std::ios::badbit);
    EXPECT_THROW(runHere(*agent), std::ios_base::failure);
    std::cout.exceptions(std::ios::goodbit);
    std::cout.clear();
    std::cout.rdbuf(buf);

    EXPECT_EQ(openDescriptors(), before);
    EXPECT_NE(agent->fdServer, -1);
    EXPECT_NE(agent->master, -1);
    EXPECT_NE(agent->slave, -1);
    EXPECT_EQ(log.err(), "");
    EXPECT_TRUE(LogUtil::logMutex.try_lock()) << "still locked";
    LogUtil::logMutex.unlock();
    EXPECT_EQ(forkFault.calls(), 0);
}

TEST_F(VKAClientRun, leavesNothingOpenAfterManyRuns) {
    program = [](const char*, char* const[]) { return 0; };
    construct(0);
    const auto before = openDescriptors();
    for (int i = 0; i < 50; ++i) {
        runHere(*agent);
        ASSERT_EQ(exitCodeOf(lastForked), 0);
    }
    EXPECT_EQ(openDescriptors(), before);
    VKAClient::pidset_t pids;
    agent->waitChildren(true, pids);
    EXPECT_FALSE(anyChildLeft());
}

} // namespace
