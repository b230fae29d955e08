// SPDX-License-Identifier: MIT
#include <libqvio/fileutils>

#include "tests/support/child.h"
#include "tests/support/descriptors.h"
#include "tests/support/memory.h"
#include "tests/support/signals.h"
#include "tests/support/tempdir.h"
#include "tests/support/transfer.h"
#include "tests/support/variants.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <malloc.h>
#include <spawn.h>
#include <sstream>
#include <sys/resource.h>

using testing::ElementsAre;
using testing::IsEmpty;
using vkatest::Child;
using vkatest::Fault;
using vkatest::openDescriptors;
using vkatest::SignalAction;
using vkatest::TempDir;

namespace {

typedef std::vector<std::string> lines_t;

Fault pipeFault, spawnFault, actionsFault, attrFault, dupFault, readFault, waitFault;
size_t readLimit = SIZE_MAX; // bytes that one read() gives at most

/** Runs a command. @return its output, both kinds of lines kept */
lines_t outputOf(const std::string& cmd, int expectedStatus = 0) {
    lines_t output;
    EXPECT_EQ(expectedStatus, getCmdCallOutput(cmd, output, false));
    return output;
}

/** What splits at line feeds, made another way. */
lines_t split(const std::string& bytes, bool dropEmpty) {
    lines_t lines;
    std::istringstream stream(bytes);
    for (std::string line; std::getline(stream, line);) {
        if (!line.empty() || !dropEmpty)
            lines.push_back(line);
    }
    return lines;
}

sigset_t currentMask() {
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    return mask;
}

bool sameMask(const sigset_t& a, const sigset_t& b) {
    for (int signo = 1; signo < NSIG; ++signo) {
        if (sigismember(&a, signo) != sigismember(&b, signo))
            return false;
    }
    return true;
}

/** The mask as /proc/PID/status prints it. */
uint64_t maskBits(const sigset_t& mask) {
    uint64_t bits = 0;
    for (int signo = 1; signo <= 64; ++signo) {
        if (sigismember(&mask, signo) == 1)
            bits |= UINT64_C(1) << (signo - 1);
    }
    return bits;
}

/** Reads a mask out of the command's own /proc/self/status. */
uint64_t maskOfCommand(const std::string& field) {
    const lines_t line = outputOf("exec grep ^" + field + ": /proc/self/status");
    return line.size() == 1 ? std::stoull(line[0].substr(field.size() + 1), nullptr, 16)
                            : UINT64_MAX;
}

/** Another child of the host; a program, as a sanitizer's thread would delay its end. */
Child sleeper() {
    return Child::program("/bin/sleep", "sleep", "1000");
}

/** Shell text that waits until a process is a zombie or gone. */
std::string awaitEndOf(pid_t pid) {
    return "while grep -q '^State:.[^Z]' /proc/" + std::to_string(pid) + "/status; do :; done; ";
}

// What a host's SIGCHLD handler reaped.
const int maxReaped = 8;
volatile pid_t reaped[maxReaped];
volatile sig_atomic_t reapedCount = 0;

void reapAll(int) {
    const int err = errno;
    pid_t pid;
    while ((pid = waitpid(-1, nullptr, WNOHANG)) > 0 && reapedCount < maxReaped) {
        reaped[reapedCount] = pid;
        reapedCount = reapedCount + 1;
    }
    errno = err;
}

class GetCmdCallOutput : public testing::Test {
protected:
    void SetUp() override {
        reapedCount = 0;
        openBefore = openDescriptors();
        maskBefore = currentMask();
        sigaction(SIGCHLD, nullptr, &actionBefore);
    }
    void TearDown() override {
        readLimit = SIZE_MAX;
        for (Fault* fault : {&pipeFault, &spawnFault, &actionsFault, &attrFault, &dupFault,
                             &readFault, &waitFault, &vkatest::memoryFault()})
            fault->disarm();
        expectNothingLeft();
    }
    void expectNothingLeft() {
        EXPECT_EQ(openBefore, openDescriptors()) << "descriptors left open";
        EXPECT_FALSE(vkatest::anyChildLeft()) << "a child left";
        EXPECT_TRUE(sameMask(maskBefore, currentMask())) << "signal mask changed";
        struct sigaction now;
        sigaction(SIGCHLD, nullptr, &now);
        EXPECT_EQ(actionBefore.sa_handler, now.sa_handler) << "action of SIGCHLD changed";
        const int flags = SA_RESTART | SA_NOCLDWAIT | SA_NOCLDSTOP | SA_SIGINFO;
        EXPECT_EQ(actionBefore.sa_flags & flags, now.sa_flags & flags)
            << "action of SIGCHLD changed";
    }

private:
    std::set<int> openBefore;
    sigset_t maskBefore;
    struct sigaction actionBefore;
};

} // namespace

VKA_WRAP(pipeFault, int, pipe2, (int* fds, int flags), (fds, flags), -1)
VKA_WRAP(spawnFault, int, posix_spawn,
         (pid_t * pid, const char* path, const posix_spawn_file_actions_t* actions,
          const posix_spawnattr_t* attr, char* const argv[], char* const envp[]),
         (pid, path, actions, attr, argv, envp), spawnFault.number())
VKA_WRAP(actionsFault, int, posix_spawn_file_actions_init, (posix_spawn_file_actions_t * actions),
         (actions), actionsFault.number())
VKA_WRAP(attrFault, int, posix_spawnattr_init, (posix_spawnattr_t * attr), (attr),
         attrFault.number())
VKA_WRAP(dupFault, int, posix_spawn_file_actions_adddup2,
         (posix_spawn_file_actions_t * actions, int from, int to), (actions, from, to),
         dupFault.number())
VKA_WRAP_READ_NAMED(readFault, read, (int fd, void* buf, size_t n),
                    (fd, buf, std::min(n, readLimit)))
VKA_WRAP_READ_NAMED(readFault, __read_chk, (int fd, void* buf, size_t n, size_t room),
                    (fd, buf, std::min(n, readLimit), room))
VKA_WRAP(waitFault, pid_t, waitpid, (pid_t pid, int* status, int flags), (pid, status, flags), -1)

TEST_F(GetCmdCallOutput, DropsEmptyLinesIfTold) {
    lines_t output;
    EXPECT_EQ(0, getCmdCallOutput("printf 'one\\n\\ntwo\\n'", output, true));
    EXPECT_THAT(output, ElementsAre("one", "two"));
}

TEST_F(GetCmdCallOutput, KeepsEmptyLinesOtherwise) {
    EXPECT_THAT(outputOf("printf 'one\\n\\ntwo\\n'"), ElementsAre("one", "", "two"));
    EXPECT_THAT(outputOf("printf '\\n\\n'"), ElementsAre("", ""));
}

TEST_F(GetCmdCallOutput, LeavesTheOutputAloneIfThereIsNone) {
    for (bool dropEmpty : {false, true}) {
        lines_t output = {"unzip log:\n"};
        EXPECT_EQ(0, getCmdCallOutput(":", output, dropEmpty));
        EXPECT_EQ(3 << 8, getCmdCallOutput("exit 3", output, dropEmpty));
        EXPECT_THAT(output, ElementsAre("unzip log:\n"));
    }
}

TEST_F(GetCmdCallOutput, AppendsBehindWhatIsThere) {
    lines_t output = {"\n\nmake log:\n", ""};
    EXPECT_EQ(0, getCmdCallOutput("echo one; echo two", output, true));
    EXPECT_EQ(0, getCmdCallOutput(std::string("echo three"), output, true));
    EXPECT_THAT(output, ElementsAre("\n\nmake log:\n", "", "one", "two", "three"));
}

TEST_F(GetCmdCallOutput, KeepsALastLineWithoutLineFeed) {
    EXPECT_THAT(outputOf("printf 'one\\ntwo'"), ElementsAre("one", "two"));
    EXPECT_THAT(outputOf("printf x"), ElementsAre("x"));
    lines_t output;
    EXPECT_EQ(0, getCmdCallOutput("printf '\\none\\n\\ntwo'", output, true));
    EXPECT_THAT(output, ElementsAre("one", "two"));
}

TEST_F(GetCmdCallOutput, KeepsEveryOtherByte) {
    EXPECT_THAT(outputOf("printf 'a\\0b\\n\\0\\nc\\r\\n\\r\\n'"),
                ElementsAre(std::string("a\0b", 3), std::string(1, '\0'), "c\r", "\r"));
    lines_t output;
    EXPECT_EQ(0, getCmdCallOutput("printf '\\r\\n\\0\\n'", output, true));
    EXPECT_THAT(output, ElementsAre("\r", std::string(1, '\0')));

    const TempDir dir;
    std::string bytes;
    for (int value = 0; value < 256; ++value)
        bytes.push_back(static_cast<char>(value));
    EXPECT_EQ(split(bytes, false), outputOf("cat " + dir.makeFile("bytes", bytes)));
}

TEST_F(GetCmdCallOutput, ReturnsTheStatusOfEveryExitCode) {
    for (int code = 0; code < 256; ++code)
        ASSERT_THAT(outputOf("exit " + std::to_string(code), code << 8), IsEmpty());
}

TEST_F(GetCmdCallOutput, ReturnsTheStatusOfEverySignal) {
    const rlimit none = {0, 0};
    rlimit limit;
    ASSERT_EQ(0, getrlimit(RLIMIT_CORE, &limit));
    const rlimit noCore = {none.rlim_cur, limit.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_CORE, &noCore));
    for (int signo : {SIGHUP, SIGINT, SIGQUIT, SIGILL, SIGABRT, SIGFPE, SIGKILL, SIGSEGV, SIGPIPE,
                      SIGALRM, SIGTERM, SIGUSR1, SIGUSR2, SIGBUS, SIGSYS}) {
        lines_t output;
        const int status =
            getCmdCallOutput("echo x; kill -" + std::to_string(signo) + " $$", output, true);
        EXPECT_TRUE(WIFSIGNALED(status)) << signo;
        EXPECT_EQ(signo, status & 0x7f);
        EXPECT_EQ(0, (status >> 8) & 0xff);
        EXPECT_THAT(output, ElementsAre("x"));
    }
    setrlimit(RLIMIT_CORE, &limit);
}

TEST_F(GetCmdCallOutput, DoesAsPopenDoes) {
    for (const char* cmd :
         {"echo one; echo; echo two; exit 2", "printf x", "", "no-such-program 2>/dev/null",
          "echo \"$0\"", "echo $#", "ls / | sort; exit 9", "echo 'a  b' \"$HOME\" /*",
          "cat < /dev/null", "seq 5 | while read n; do echo \"<$n>\"; done", "(exit 4) | cat",
          "kill -9 $$"}) {
        SCOPED_TRACE(cmd);
        const std::pair<int, std::string> expected = vkatest::popenOf(cmd);
        lines_t output;
        EXPECT_EQ(expected.first, getCmdCallOutput(cmd, output, false));
        EXPECT_EQ(split(expected.second, false), output);
    }
}

TEST_F(GetCmdCallOutput, TakesACommandThatLooksLikeAnOption) {
    EXPECT_THAT(outputOf("-c 2>/dev/null", 127 << 8), IsEmpty());
}

TEST_F(GetCmdCallOutput, ReadsAMillionLines) {
    const lines_t output = outputOf("seq 1000000");
    ASSERT_EQ(1000000u, output.size());
    for (size_t i = 0; i < output.size(); ++i)
        ASSERT_EQ(std::to_string(i + 1), output[i]);
}

TEST_F(GetCmdCallOutput, ReadsLinesOfEveryLengthAroundTheBuffers) {
    const TempDir dir;
    for (size_t buffer : {size_t(4096), size_t(65536), size_t(131072)}) {
        for (size_t length = buffer - 2; length <= buffer + 2; ++length) {
            const std::string bytes =
                std::string(length, 'x') + "\n\nshort\n" + std::string(length, 'y');
            EXPECT_EQ(split(bytes, false), outputOf("cat " + dir.makeFile("bytes", bytes)));
        }
    }
}

TEST_F(GetCmdCallOutput, ReadsALineMuchLongerThanABuffer) {
    const lines_t output = outputOf("head -c 5000000 /dev/zero | tr '\\0' x; echo; echo end");
    ASSERT_EQ(2u, output.size());
    EXPECT_TRUE(output[0] == std::string(5000000, 'x'));
    EXPECT_EQ("end", output[1]);
}

TEST_F(GetCmdCallOutput, PiecesOfTheOutputDoNotMatter) {
    const std::string bytes = "one\n\n\ntwo and more\nx\n\nlast";
    const TempDir dir;
    const std::string cmd = "cat " + dir.makeFile("bytes", bytes);
    for (size_t limit = 1; limit <= bytes.size() + 1; ++limit) {
        readLimit = limit;
        for (bool dropEmpty : {false, true}) {
            lines_t output;
            ASSERT_EQ(0, getCmdCallOutput(cmd, output, dropEmpty));
            ASSERT_EQ(split(bytes, dropEmpty), output) << limit;
        }
    }
}

TEST_F(GetCmdCallOutput, CollectsStandardErrorOnlyIfAskedFor) {
    EXPECT_THAT(outputOf("(echo out; echo err >&2) 2>/dev/null"), ElementsAre("out"));
    EXPECT_THAT(outputOf("(echo out; echo err >&2) 2>&1"), ElementsAre("out", "err"));
}

TEST_F(GetCmdCallOutput, LeavesStandardInputAndErrorToTheCommand) {
    const TempDir dir;
    const std::string in = dir.makeFile("in", "from the caller\n"), err = dir.makeFile("err", "");
    Child child = Child::run([&] {
        if (dup2(open(in.c_str(), O_RDONLY), 0) == -1 || dup2(open(err.c_str(), O_WRONLY), 2) == -1)
            return 1;
        return outputOf("cat; echo error >&2") == lines_t{"from the caller"} ? 0 : 2;
    });
    EXPECT_EQ(0, child.exitCode());
    EXPECT_EQ("error\n", vkatest::contentOf(err));
}

TEST_F(GetCmdCallOutput, WaitsForEveryHolderOfTheOutput) {
    EXPECT_THAT(outputOf("(sleep 0.3; echo late) & echo early; exit 5", 5 << 8),
                ElementsAre("early", "late"));
}

TEST_F(GetCmdCallOutput, WaitsForACommandThatClosedItsOutput) {
    EXPECT_THAT(outputOf("echo x; exec >&-; sleep 0.3; exit 6", 6 << 8), ElementsAre("x"));
}

TEST_F(GetCmdCallOutput, CommandSeesOnlyInheritableDescriptors) {
    const vkatest::Pipe inherited, own(O_CLOEXEC);
    std::set<int> expected = {1};
    for (int fd : openDescriptors()) {
        if ((fcntl(fd, F_GETFD) & FD_CLOEXEC) == 0)
            expected.insert(fd);
    }
    std::set<int> seen;
    // The shell's own descriptor for listing the directory is closed again when they are tested.
    for (const std::string& fd :
         outputOf("for fd in /proc/$$/fd/*; do [ -L $fd ] && echo ${fd##*/}; done; exit 0"))
        seen.insert(std::stoi(fd));
    EXPECT_EQ(expected, seen);
}

TEST_F(GetCmdCallOutput, KeepsNoMemory) {
    std::vector<std::string> output;
    getCmdCallOutput("true", output, false);
    const size_t before = mallinfo2().uordblks;
    for (int i = 0; i < 3; ++i)
        getCmdCallOutput("true", output, false);
    EXPECT_EQ(before, mallinfo2().uordblks);
}

TEST_F(GetCmdCallOutput, WorksWithoutStandardDescriptors) {
    for (int closed = 0; closed < 8; ++closed) {
        Child child = Child::run([closed] {
            for (int fd = 0; fd < 3; ++fd) {
                if ((closed >> fd) & 1)
                    close(fd);
            }
            const std::set<int> before = openDescriptors();
            lines_t output;
            const int status = getCmdCallOutput("echo one; echo two; exit 3", output, true);
            if (status != 3 << 8)
                return 1;
            if (output != lines_t{"one", "two"})
                return 2;
            return before == openDescriptors() ? 0 : 3;
        });
        EXPECT_EQ(0, child.exitCode()) << closed;
    }
}

TEST_F(GetCmdCallOutput, CommandStartsWithTheCallersMask) {
    sigset_t empty, some;
    sigemptyset(&empty);
    sigemptyset(&some);
    for (int signo : {SIGUSR1, SIGCHLD, SIGALRM})
        sigaddset(&some, signo);
    const sigset_t before = currentMask();
    for (const sigset_t& mask : {empty, some}) {
        pthread_sigmask(SIG_SETMASK, &mask, nullptr);
        const uint64_t bits = maskOfCommand("SigBlk");
        const sigset_t after = currentMask();
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        EXPECT_EQ(maskBits(mask), bits);
        EXPECT_TRUE(sameMask(mask, after));
    }
}

TEST_F(GetCmdCallOutput, CommandStartsWithTheDefaultActionOfSigchld) {
    const uint64_t bit = UINT64_C(1) << (SIGCHLD - 1);
    for (void (*handler)(int) : {SIG_DFL, SIG_IGN, reapAll}) {
        const SignalAction action(SIGCHLD, handler);
        EXPECT_EQ(0u, maskOfCommand("SigIgn") & bit);
    }
}

TEST_F(GetCmdCallOutput, WorksWhileSigchldIsIgnored) {
    const SignalAction action(SIGCHLD, SIG_IGN);
    EXPECT_THAT(outputOf("echo x; exit 7", 7 << 8), ElementsAre("x"));
    EXPECT_EQ(SIG_IGN, action.current().sa_handler);
    Child::run([] { return 0; }).release(); // the kernel goes on reaping
    EXPECT_TRUE(vkatest::waitUntil([] { return !vkatest::anyChildLeft(); }));
}

TEST_F(GetCmdCallOutput, WorksWhileTheKernelReaps) {
    const SignalAction action(SIGCHLD, reapAll, SA_NOCLDWAIT | SA_RESTART);
    EXPECT_THAT(outputOf("echo x; exit 7", 7 << 8), ElementsAre("x"));
    EXPECT_EQ(&reapAll, action.current().sa_handler);
    EXPECT_EQ(SA_NOCLDWAIT | SA_RESTART, action.current().sa_flags & (SA_NOCLDWAIT | SA_RESTART));
    EXPECT_EQ(0, reapedCount);
}

TEST_F(GetCmdCallOutput, LeavesNoZombieOfTheHostWhereTheKernelReaps) {
    for (int flags : {0, SA_NOCLDWAIT}) {
        const SignalAction action(SIGCHLD, flags == 0 ? SIG_IGN : SIG_DFL, flags);
        Child other = sleeper();
        const std::string id = std::to_string(other.id());
        EXPECT_THAT(outputOf("kill -9 " + id + "; " + awaitEndOf(other.id()) + "exit 8", 8 << 8),
                    IsEmpty());
        EXPECT_FALSE(vkatest::anyChildLeft());
        other.release();
    }
}

TEST_F(GetCmdCallOutput, LeavesChildrenOfTheHostAloneOtherwise) {
    Child other = sleeper();
    const std::string id = std::to_string(other.id());
    outputOf("kill -9 " + id + "; " + awaitEndOf(other.id()));
    EXPECT_EQ(SIGKILL, other.wait());
}

TEST_F(GetCmdCallOutput, HandlerOfTheHostCannotTakeTheStatus) {
    const SignalAction action(SIGCHLD, reapAll, SA_RESTART);
    for (int code : {0, 9, 255}) {
        reapedCount = 0;
        Child other = sleeper();
        const std::string id = std::to_string(other.id());
        EXPECT_THAT(outputOf("kill -9 " + id + "; " + awaitEndOf(other.id()) + "echo x; exit " +
                                 std::to_string(code),
                             code << 8),
                    ElementsAre("x"));
        ASSERT_TRUE(vkatest::waitUntil([] { return reapedCount != 0; }));
        EXPECT_EQ(1, reapedCount) << "of the host's children only its own";
        EXPECT_EQ(other.release(), reaped[0]);
    }
}

TEST_F(GetCmdCallOutput, HandlerOfTheHostIsCalledAfterwards) {
    static volatile sig_atomic_t calls;
    calls = 0;
    const SignalAction action(SIGCHLD, [](int) { calls = calls + 1; });
    readFault.beforeCall(1, [] {
        siginfo_t info; // the command has ended while its output is still to be read
        waitid(P_ALL, 0, &info, WEXITED | WNOWAIT);
        EXPECT_EQ(0, calls);
    });
    EXPECT_THAT(outputOf("echo x"), ElementsAre("x"));
    EXPECT_EQ(1, calls);
}

TEST_F(GetCmdCallOutput, InterruptionsLoseNothing) {
    const vkatest::Ticker ticker;
    const lines_t output = outputOf("seq 100000; sleep 0.1; seq 100000; exit 11", 11 << 8);
    ASSERT_EQ(200000u, output.size());
    for (size_t i = 0; i < output.size(); ++i)
        ASSERT_EQ(std::to_string(i % 100000 + 1), output[i]);
    EXPECT_GT(ticker.ticks(), 5);
}

TEST_F(GetCmdCallOutput, InterruptionsDoNotEndTheWait) {
    const vkatest::Ticker ticker;
    EXPECT_THAT(outputOf("exec >&-; sleep 0.2; exit 12", 12 << 8), IsEmpty());
    EXPECT_GT(ticker.ticks(), 5);
}

TEST_F(GetCmdCallOutput, ReportsThatItCannotStart) {
    for (Fault* fault : {&pipeFault, &spawnFault, &actionsFault, &attrFault, &dupFault}) {
        for (int err : {EMFILE, EAGAIN, ENOMEM}) {
            lines_t output = {"before"};
            fault->failAt(1, err);
            errno = 0;
            EXPECT_EQ(-1, getCmdCallOutput("echo x", output, true));
            EXPECT_EQ(err, errno);
            EXPECT_EQ(1, fault->failures());
            EXPECT_THAT(output, ElementsAre("before"));
            expectNothingLeft();
            EXPECT_THAT(outputOf("echo again"), ElementsAre("again"));
        }
    }
}

TEST_F(GetCmdCallOutput, ReportsARealLackOfDescriptors) {
    Child child = Child::run([] {
        const rlimit limit = {4, 4};
        if (setrlimit(RLIMIT_NOFILE, &limit) == -1)
            return 1;
        while (dup(0) != -1) {
        }
        lines_t output;
        errno = 0;
        return getCmdCallOutput("echo x", output, true) == -1 && errno == EMFILE ? 0 : 2;
    });
    EXPECT_EQ(0, child.exitCode());
}

TEST_F(GetCmdCallOutput, ReportsAFailedReadAndEndsTheCommand) {
    for (void (*handler)(int) : {SIG_DFL, SIG_IGN}) {
        const SignalAction action(SIGCHLD, handler);
        for (int number : {1, 2, 3}) {
            lines_t output = {"before"};
            readFault.failAt(number, EIO);
            errno = 0;
            EXPECT_EQ(-1, getCmdCallOutput("yes", output, true)); // never ends by itself
            EXPECT_EQ(EIO, errno);
            EXPECT_EQ("before", output[0]);
            EXPECT_EQ(number > 1, output.size() > 1 && output[1] == "y") << "lines read stay";
            EXPECT_FALSE(vkatest::anyChildLeft());
        }
    }
}

TEST_F(GetCmdCallOutput, ReportsThatTheStatusCannotBeCollected) {
    lines_t output;
    waitFault.failAt(1, ECHILD);
    errno = 0;
    EXPECT_EQ(-1, getCmdCallOutput("echo x", output, true));
    EXPECT_EQ(ECHILD, errno);
    EXPECT_THAT(output, ElementsAre("x"));
    int status;
    EXPECT_LT(0, vkatest::uninterrupted([&] { return waitpid(-1, &status, 0); }))
        << "the pretended failure left the child unreaped";
}

TEST_F(GetCmdCallOutput, RepeatsInterruptedCalls) {
    readFault.failAt(1, EINTR);
    waitFault.failAt(1, EINTR);
    EXPECT_THAT(outputOf("echo x; exit 13", 13 << 8), ElementsAre("x"));
    EXPECT_EQ(1, readFault.failures());
    EXPECT_EQ(1, waitFault.failures());
}

TEST_F(GetCmdCallOutput, LackOfMemoryEndsTheCommandFirst) {
    const std::string line(300, 'x');
    const TempDir dir;
    std::string bytes;
    for (int i = 0; i < 50; ++i)
        bytes += line + '\n';
    const std::string cmd = "cat " + dir.makeFile("bytes", bytes) + "; yes";
    const char* const text = cmd.c_str();
    for (int number = 1; number <= 40; ++number) {
        for (size_t limit : {size_t(7), SIZE_MAX}) {
            readLimit = limit;
            bool thrown = false;
            lines_t output;
            vkatest::memoryFault().failAt(number, ENOMEM);
            try {
                getCmdCallOutput(text, output, true);
            } catch (const std::bad_alloc&) {
                thrown = true;
            }
            vkatest::memoryFault().disarm();
            EXPECT_TRUE(thrown) << number;
            EXPECT_LE(output.size(), static_cast<size_t>(number));
            for (const std::string& got : output)
                EXPECT_EQ(line, got);
            expectNothingLeft();
        }
    }
}
