// SPDX-License-Identifier: MIT
// run() in the child process, up to its program.
#include <libqvio/IOException>
#include <tests/support/child.h>
#include <tests/support/client_agent.h>
#include <tests/support/client_launch.h>
#include <tests/support/client_log.h>
#include <tests/support/client_terminal.h>
#include <tests/support/descriptors.h>
#include <tests/support/fault.h>
#include <tests/support/tempdir.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <new>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using namespace vkatest;
using testing::ElementsAre;

namespace {

Fault dup2Fault, openFault, strdupFault;
std::vector<std::string> calls; // of the agent, in this process
std::string openName;           // the name by which open() was called last

std::string call(const char* name, std::initializer_list<int> arguments) {
    std::string text = name;
    for (int argument : arguments)
        text += ' ' + std::to_string(argument);
    return text;
}

} // namespace

extern "C" {
int __real_dup2(int from, int to) noexcept;
int __wrap_dup2(int from, int to) noexcept;
int __wrap_dup2(int from, int to) noexcept {
    calls.push_back(call("dup2", {from, to}));
    return dup2Fault.hit() ? -1 : __real_dup2(from, to);
}

int __real_close(int fd);
int __wrap_close(int fd);
int __wrap_close(int fd) {
    calls.push_back(call("close", {fd}));
    return __real_close(fd);
}

char* __real_strdup(const char* text) noexcept;
char* __wrap_strdup(const char* text) noexcept;
char* __wrap_strdup(const char* text) noexcept {
    return strdupFault.hit() ? nullptr : __real_strdup(text);
}

// open() goes by several names, depending on fortification and the size of off_t.
#define WRAP_OPEN(name)                                                                            \
    __attribute__((weak)) int __real_##name(const char* path, int flags, ...);                     \
    int __wrap_##name(const char* path, int flags, ...);                                           \
    int __wrap_##name(const char* path, int flags, ...) {                                          \
        va_list arguments;                                                                         \
        va_start(arguments, flags);                                                                \
        const mode_t mode = flags & O_CREAT ? va_arg(arguments, mode_t) : 0;                       \
        va_end(arguments);                                                                         \
        calls.push_back(call("open", {flags}));                                                    \
        openName = #name;                                                                          \
        return openFault.hit() ? -1 : __real_##name(path, flags, mode);                            \
    }
WRAP_OPEN(open)
WRAP_OPEN(open64)
WRAP_OPEN(__open_2)
WRAP_OPEN(__open64_2)
}

namespace {

class VKAClientChild : public testing::Test {
protected:
    VKAClientChild() {
        for (Fault* fault : {&forkFault, &execFault, &dup2Fault, &openFault, &strdupFault})
            fault->disarm();
    }
    ~VKAClientChild() override { program = nullptr; }

    void console(unsigned int debug = 0) { agent.emplace("/w", true, 1000, 0, "", debug); }
    void logFile(const std::string& path, unsigned int debug = 0) {
        agent.emplace("/w", false, 1000, 0, path, debug);
    }

    /**
     * Calls run(), outside console mode with the exception that it ends with.
     *
     * @param failed called in the child if an exception leaves run() there
     * @return the child's exit code
     */
    int run(const std::function<void(const IOException&)>& failed = nullptr) {
        const pid_t host = getpid();
        calls.clear();
        try {
            agent->run();
        } catch (const IOException& e) {
            if (getpid() != host) {
                if (!failed)
                    _exit(99);
                failed(e);
                endChild();
            }
            EXPECT_FALSE(agent->console);
        } catch (...) {
            if (getpid() != host)
                _exit(98);
            throw;
        }
        return exitCodeOf(lastForked);
    }

    std::optional<Agent> agent;
};

std::string identity(int fd) {
    struct stat info;
    return fstat(fd, &info) == 0 ? std::to_string(info.st_dev) + ':' + std::to_string(info.st_ino)
                                 : "closed";
}

TEST_F(VKAClientChild, executesTheFixedProgramUnderItsName) {
    program = [](const char* path, char* const argv[]) {
        EXPECT_STREQ(path, "/tmp/vkabin");
        EXPECT_STREQ(argv[0], "vkabin");
        EXPECT_EQ(argv[1], nullptr);
        return testing::Test::HasFailure() ? 1 : 0;
    };
    console();
    EXPECT_EQ(run(), 0);
    logFile("/dev/null");
    EXPECT_EQ(run(), 0);
}

TEST_F(VKAClientChild, hasTheTerminalAsItsThreeStandardStreams) {
    console();
    const std::string terminal = identity(agent->slave);
    program = [&](const char*, char* const[]) {
        EXPECT_THAT(calls,
                    ElementsAre(call("dup2", {agent->slave, 0}), call("dup2", {agent->slave, 1}),
                                call("dup2", {agent->slave, 2})));
        for (int fd : {0, 1, 2})
            EXPECT_EQ(identity(fd), terminal) << fd;
        return testing::Test::HasFailure() ? 1 : 0;
    };
    EXPECT_EQ(run(), 0) << takeOutput(*agent);
}

TEST_F(VKAClientChild, hasTheLogFileAsOutputAndErrorAndTheHostsInput) {
    const TempDir dir;
    logFile(dir.makeFile("log"));
    const Fd logFd(open((dir / "log").c_str(), O_RDONLY));
    const std::string input = identity(0), log = identity(logFd.get());
    program = [&](const char*, char* const[]) {
        EXPECT_EQ(calls.size(), 3u);
        EXPECT_EQ(calls[0], call("open", {O_WRONLY})); // nothing else
        int fd = -1;
        EXPECT_EQ(sscanf(calls[1].c_str(), "dup2 %d 1", &fd), 1);
        EXPECT_EQ(calls[1], call("dup2", {fd, 1}));
        EXPECT_EQ(calls[2], call("dup2", {fd, 2}));
        EXPECT_EQ(identity(0), input);
        for (int target : {1, 2, fd})
            EXPECT_EQ(identity(target), log) << target;
        EXPECT_EQ(fcntl(fd, F_GETFD), 0) << "close-on-exec";
        return testing::Test::HasFailure() ? 1 : 0;
    };
    EXPECT_EQ(run(), 0) << contentOf(dir / "log");
}

TEST_F(VKAClientChild, takesALogFileOfAnySize) {
    for (off_t size : {off_t(1) << 31, off_t(1) << 32, off_t(5) << 30}) {
        SCOPED_TRACE(size);
        const TempDir dir;
        const std::string log = dir.makeFile("log", "0123456789");
        ASSERT_EQ(truncate(log.c_str(), size), 0);
        logFile(log);
        program = [&](const char*, char* const[]) {
#ifdef __GLIBC__ // not every kernel refuses what was opened by the other names
            if (sizeof(long) == 4 && openName.find("open64") == std::string::npos)
                return 1;
#endif
            if (write(1, "out", 3) != 3 || lseek(1, 0, SEEK_END) != size)
                return 2;
            return write(2, "err", 3) == 3 && lseek(1, 0, SEEK_CUR) == size + 3 ? 0 : 3;
        };
        EXPECT_EQ(run(), 0);

        const Fd fd(open(log.c_str(), O_RDONLY));
        char start[11] = "", end[4] = "";
        EXPECT_EQ(pread(fd.get(), start, 10, 0), 10);
        EXPECT_STREQ(start, "out3456789");
        EXPECT_EQ(pread(fd.get(), end, 4, size), 3);
        EXPECT_STREQ(end, "err");
    }
}

TEST_F(VKAClientChild, inheritsEveryDescriptorOfTheAgent) {
    console();
    const Fd conn(dup(agent->master));
    agent->fdConn = conn.get();
    const auto before = openDescriptors();
    program = [&](const char*, char* const[]) {
        EXPECT_EQ(openDescriptors(), before);
        for (int fd : {agent->master, agent->slave, agent->fdServer, agent->fdConn})
            EXPECT_EQ(fcntl(fd, F_GETFD), 0) << fd;
        return testing::Test::HasFailure() ? 1 : 0;
    };
    EXPECT_EQ(run(), 0) << takeOutput(*agent);
    agent->fdConn = -1;
}

/** Dispositions of all signals and the mask. */
std::string signalState() {
    std::string state;
    for (int signo = 1; signo <= SIGRTMAX; ++signo) {
        struct sigaction action = {};
        if (sigaction(signo, nullptr, &action) == 0)
            state += action.sa_handler == SIG_DFL ? 'd' : action.sa_handler == SIG_IGN ? 'i' : 'h';
    }
    sigset_t mask;
    sigprocmask(SIG_SETMASK, nullptr, &mask);
    for (int signo = 1; signo <= SIGRTMAX; ++signo)
        state += sigismember(&mask, signo) ? '1' : '0';
    return state;
}

TEST_F(VKAClientChild, isSetUpInNoOtherWay) {
    console();
    const pid_t group = getpgrp(), session = getsid(0);
    const std::string signals = signalState();
    setenv("VKA_TEST_VARIABLE", "kept", 1);
    program = [&](const char*, char* const[]) {
        EXPECT_EQ(getpgrp(), group);
        EXPECT_EQ(getsid(0), session);
        EXPECT_EQ(tcgetsid(0), -1) << "controlling terminal";
        EXPECT_EQ(signalState(), signals);
        EXPECT_STREQ(getenv("VKA_TEST_VARIABLE"), "kept");
        return testing::Test::HasFailure() ? 1 : 0;
    };
    EXPECT_EQ(run(), 0) << takeOutput(*agent);
    unsetenv("VKA_TEST_VARIABLE");
}

TEST_F(VKAClientChild, writesItsLinesToTheTerminal) {
    program = [](const char*, char* const[]) { return 0; };
    for (unsigned int debug : {0u, 1u, 2u, 3u}) {
        testing::internal::CaptureStdout();
        console(debug);
        makeRaw(agent->master); // so that lines arrive as they were written
        ASSERT_EQ(run(), 0);
        const std::string hosts = testing::internal::GetCapturedStdout();
        EXPECT_EQ(hosts.find("dup slave"), std::string::npos);
        EXPECT_EQ(hosts.find("exec"), std::string::npos);

        std::string expected;
        if (debug > 1)
            expected += pidLine(
                "run", ": dup slave fd=" + std::to_string(agent->slave) + " to 0,1,2", lastForked);
        if (debug > 0)
            expected += pidLine("exec", ": exec", lastForked);
        EXPECT_EQ(takeOutput(*agent), expected) << debug;
    }
}

TEST_F(VKAClientChild, writesItsLinesToTheHostsOutputAndThenToTheLogFile) {
    for (unsigned int debug : {0u, 1u, 2u, 3u}) {
        const TempDir dir;
        int fd = -1;
        program = [&](const char*, char* const[]) {
            sscanf(calls[1].c_str(), "dup2 %d", &fd);
            return fd;
        };
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        logFile(dir.makeFile("log", ""), debug);
        fd = run();
        const std::string hosts = testing::internal::GetCapturedStdout();
        testing::internal::GetCapturedStderr();
        ASSERT_GT(fd, 2);

        const std::string openLine =
            pidLine("run", ": open log file: fd=" + std::to_string(fd), lastForked);
        EXPECT_EQ(hosts.find(openLine) != std::string::npos, debug > 1) << hosts;
        EXPECT_EQ(hosts.find("dup log file"), std::string::npos);
        std::string expected;
        if (debug > 1)
            expected +=
                pidLine("run", ":: dup log file fd=" + std::to_string(fd) + " to 1,2", lastForked);
        if (debug > 0)
            expected += pidLine("exec", ": exec", lastForked);
        EXPECT_EQ(contentOf(dir / "log"), expected);
    }
}

TEST_F(VKAClientChild, holdsTheLogLockForEachOfItsLines) {
    for (bool inConsole : {true, false}) {
        if (inConsole)
            console(3);
        else
            logFile("/dev/null", 3);
        Log log;
        program = [&](const char*, char* const[]) {
            EXPECT_NE(log.out(), "");
            EXPECT_EQ(log.unlocked(), "");
            EXPECT_EQ(log.unflushed(), "");
            EXPECT_EQ(log.err(), "");
            return testing::Test::HasFailure() ? 1 : 0;
        };
        EXPECT_EQ(run(), 0);
    }
}

TEST_F(VKAClientChild, writesTheLogFileFromItsStartWithoutTruncatingIt) {
    const TempDir dir;
    logFile(dir.makeFile("log", "0123456789"));
    program = [](const char*, char* const[]) {
        return write(1, "ab", 2) == 2 && write(2, "cd", 2) == 2 ? 0 : 1;
    };
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(contentOf(dir / "log"), "abcd456789");
}

/** A failing call in the child. */
struct Failure {
    bool console;
    Fault* fault;
    int number; // which call of the function fails
    int err;
    const char* message;
};

void PrintTo(const Failure& failure, std::ostream* os) {
    *os << failure.message;
}

class VKAClientChildFailure : public VKAClientChild, public testing::WithParamInterface<Failure> {};

TEST_P(VKAClientChildFailure, leavesRunInTheChildWithItsConsoleClosed) {
    const Failure& failure = GetParam();
    program = [](const char*, char* const[]) { return 97; };
    for (unsigned int debug : {0u, 1u, 2u, 3u}) {
        Log log;
        if (failure.console)
            console(debug);
        else
            logFile("/dev/null", debug);
        const Fd conn(dup(0));
        agent->fdConn = conn.get();
        const int fdServer = agent->fdServer, master = agent->master, slave = agent->slave;
        failure.fault->failAt(failure.number, failure.err);
        log.clear();

        const int code = run([&](const IOException& e) {
            EXPECT_EQ(e.getError(), failure.err);
            const IOException expected(failure.err, failure.message);
            EXPECT_STREQ(e.what(), expected.what());

            EXPECT_EQ(agent->fdServer, -1);
            EXPECT_EQ(agent->master, -1);
            EXPECT_EQ(agent->slave, -1);
            EXPECT_EQ(agent->fdConn, conn.get());
            EXPECT_EQ(fcntl(conn.get(), F_GETFD), 0);
            std::vector<std::string> closings;
            for (const std::string& done : calls) {
                if (done.find("close") == 0)
                    closings.push_back(done);
            }
            if (failure.console) {
                EXPECT_THAT(closings, ElementsAre(call("close", {fdServer}),
                                                  call("close", {master}), call("close", {slave})));
                EXPECT_EQ(calls.size(), static_cast<size_t>(failure.number + 3));
            } else {
                EXPECT_TRUE(closings.empty());
            }

            EXPECT_EQ(
                log.err().find(std::string("[ERROR] VKAClient::run() ") + strerror(failure.err)),
                0u);
            const std::string expectedEnd =
                pidLine("run", ": close fdServer=" + std::to_string(fdServer) + " master=" +
                                   std::to_string(master) + " slave=" + std::to_string(slave));
            const bool opened = !failure.console && failure.fault == &dup2Fault;
            if (debug > 1) {
                EXPECT_NE(log.out().find(expectedEnd), std::string::npos);
                EXPECT_EQ(log.out().find("open log file") != std::string::npos, opened);
                EXPECT_EQ(log.out().find("dup "), std::string::npos);
            } else {
                EXPECT_EQ(log.out(), "");
            }
            EXPECT_EQ(log.unlocked(), "");
        });
        failure.fault->disarm();
        EXPECT_EQ(code, 0) << "level " << debug;
        agent->fdConn = -1;
    }
}

const char cannotOpen[] = "cannot open VKA child log file for writing";
const char cannotReplace[] = "cannot replace stdin/stdout/stderr of VKA child";

INSTANTIATE_TEST_SUITE_P(EachCall, VKAClientChildFailure,
                         testing::Values(Failure{true, &dup2Fault, 1, EBUSY, cannotReplace},
                                         Failure{true, &dup2Fault, 2, EINTR, cannotReplace},
                                         Failure{true, &dup2Fault, 3, EMFILE, cannotReplace},
                                         Failure{false, &openFault, 1, EACCES, cannotOpen},
                                         Failure{false, &dup2Fault, 1, EBUSY, cannotReplace},
                                         Failure{false, &dup2Fault, 2, EINTR, cannotReplace}));

TEST_F(VKAClientChild, doesNotCreateTheLogFile) {
    const TempDir dir;
    program = [](const char*, char* const[]) { return 97; };
    logFile(dir / "log");
    Log log;
    EXPECT_EQ(run([](const IOException& e) {
                  EXPECT_EQ(e.getError(), ENOENT);
                  EXPECT_STREQ(e.what(), "cannot open VKA child log file for writing: "
                                         "No such file or directory");
              }),
              0);
    EXPECT_FALSE(exists(dir / "log"));
}

TEST_F(VKAClientChild, withoutMemoryForItsNameThrowsBadAllocAndKeepsTheConsole) {
    console(2);
    Log log;
    const pid_t host = getpid();
    strdupFault.failAt(1, ENOMEM);
    const auto before = openDescriptors();
    try {
        agent->run();
    } catch (const std::bad_alloc&) {
        if (getpid() == host)
            throw;
        EXPECT_EQ(openDescriptors(), before);
        EXPECT_NE(agent->fdServer, -1);
        EXPECT_NE(agent->master, -1);
        EXPECT_NE(agent->slave, -1);
        EXPECT_EQ(log.err(), "");
        EXPECT_EQ(log.out().find("close fdServer"), std::string::npos);
        endChild();
    } catch (...) {
        if (getpid() == host)
            throw;
        _exit(99);
    }
    strdupFault.disarm();
    EXPECT_EQ(exitCodeOf(lastForked), 0);
}

/** What the child wrote when its program cannot be executed; checked when it exits. */
std::function<void()> atExit;

TEST_F(VKAClientChild, saysWhyItCannotExecuteAndExitsNormally) {
    static const bool registered = atexit([] {
                                       if (atExit)
                                           atExit();
                                   }) == 0;
    ASSERT_TRUE(registered);
    for (int err : {ENOENT, EACCES, ENOEXEC, ETXTBSY}) {
        Log log;
        console(1);
        const pid_t host = getpid();
        const Pipe verdict;
        atExit = [&] {
            if (getpid() == host)
                return;
            EXPECT_EQ(log.err(), std::string("cannot exec: ") + strerror(err) + '\n');
            EXPECT_EQ(log.unlocked(), log.err());
            EXPECT_EQ(log.out(), pidLine("exec", ": exec"));
            const char result = testing::Test::HasFailure() ? 'n' : 'y';
            EXPECT_EQ(write(verdict.writeEnd.get(), &result, 1), 1);
        };
        execFault.failAt(1, err);
        log.clear();
        EXPECT_EQ(run(), 1);
        atExit = nullptr;
        execFault.disarm();

        char result = '?';
        ASSERT_EQ(fcntl(verdict.readEnd.get(), F_SETFL, O_NONBLOCK), 0);
        EXPECT_EQ(read(verdict.readEnd.get(), &result, 1), 1) << "no normal exit";
        EXPECT_EQ(result, 'y') << takeOutput(*agent);
    }
}

TEST_F(VKAClientChild, logsTheExecutionFromLevelOneOn) {
    for (unsigned int debug : {0u, 1u, 2u, 3u}) {
        console(debug);
        Child child = Child::run([&] {
            Log log;
            program = [&](const char*, char* const[]) {
                EXPECT_EQ(log.out(), debug > 0 ? pidLine("exec", ": exec") : "");
                return testing::Test::HasFailure() ? 1 : 0;
            };
            agent->exec();
            return 96;
        });
        EXPECT_EQ(child.exitCode(), 0);
    }
}

} // namespace
