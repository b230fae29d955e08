// SPDX-License-Identifier: MIT
#include <libqvproc/Proc>

#include "tests/support/child.h"
#include "tests/support/descriptors.h"
#include "tests/support/memory.h"
#include "tests/support/signals.h"
#include "tests/support/transfer.h"
#include "tests/support/wait.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <fcntl.h>
#include <sstream>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <type_traits>

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using vkatest::Child;
using vkatest::Fault;
using vkatest::SignalAction;
using vkatest::Stopwatch;

namespace {

typedef Proc::pidset_t pidset_t;

Fault forkFault, killFault, waitFault, pidfdFault;
std::vector<std::pair<pid_t, int>> sent; // what kill() was asked for
pid_t anothers;                          // a process that kill() may not reach

// Wide, for busy and emulated machines; what is told apart from them lasts longer.
const long promptMs = 1500;              // longest way of noticing an end at once
const long waitingCpuMs = 300;           // most that sleeping may take of the processor
const long graceMs = 2000;               // for all children together
const long stuckMs = 20000;              // nothing goes on any more
const long countedGraceMs = graceMs - 1; // the wait and the test both count whole milliseconds

static_assert(Proc::stopGraceMs == graceMs, "");
static_assert(std::is_same<std::set<int>, Proc::pidset_t>::value, "");
static_assert(std::is_same<std::vector<Proc::entry_t<std::set<int>>>, Proc::pidvec_t>::value, "");
static_assert(
    std::is_same<std::vector<Proc::entry_t<std::multiset<std::string>>>, Proc::statvec_t>::value,
    "");
static_assert(std::is_same<std::tuple<uint64_t, uint64_t, uint32_t>, Proc::timesMem_t>::value, "");
static_assert(std::is_copy_constructible<Proc>::value, "");
static_assert(std::is_copy_assignable<Proc>::value, "");

int idle() {
    while (true)
        pause();
}

/** Sleeps on when a signal comes. */
void sleepMs(int ms) {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

void ignoreTerm() {
    signal(SIGTERM, SIG_IGN);
}

/** Waits until a child is a zombie or was reaped. */
bool awaitEnd(pid_t pid) {
    siginfo_t info;
    return vkatest::waitUntil([&] {
        info.si_pid = 0;
        return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == -1 ||
               info.si_pid == pid;
    });
}

bool awaitStop(pid_t pid) {
    siginfo_t info;
    return vkatest::waitUntil([&] {
        info.si_pid = 0;
        return waitid(P_PID, static_cast<id_t>(pid), &info, WSTOPPED | WNOHANG | WNOWAIT) == 0 &&
               info.si_pid == pid;
    });
}

/** Repeats what has to be quick, as a busy machine may hold up anything for a while. */
class Promptly {
public:
    ~Promptly() { EXPECT_LT(best, promptMs); }
    bool again() { return best >= promptMs && left-- > 0; }

    /** Does it and looks at the clock. */
    template <typename Function>
    auto operator()(Function function) {
        const Stopwatch watch;
        const auto result = function();
        best = std::min(best, watch.ms());
        return result;
    }

private:
    long best = stuckMs;
    int left = 4;
};

/** Is it a child of this process, running or not reaped? */
bool isChild(pid_t pid) {
    siginfo_t info;
    return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0;
}

long cpuMs() {
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    const auto ms = [](const timeval& t) { return t.tv_sec * 1000 + t.tv_usec / 1000; };
    return static_cast<long>(ms(usage.ru_utime) + ms(usage.ru_stime));
}

void reapAll(int) {
    const int err = errno;
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
    errno = err;
}

class ProcTest : public testing::Test {
protected:
    void SetUp() override {
        openBefore = vkatest::openDescriptors();
        sent.reserve(1000); // must work also when memory runs out
    }
    void TearDown() override {
        for (Fault* fault :
             {&forkFault, &killFault, &waitFault, &pidfdFault, &vkatest::memoryFault()})
            fault->disarm();
        started.clear();
        EXPECT_EQ(openBefore, vkatest::openDescriptors()) << "descriptors left open";
        EXPECT_FALSE(vkatest::anyChildLeft()) << "a child left";
    }

    /** Forks a child through `proc` and waits until it has called setUp(). */
    pid_t start(int (*body)() = idle, void (*setUp)() = nullptr) {
        vkatest::Pipe ready(O_CLOEXEC);
        const pid_t pid = proc.fork();
        if (pid == 0) {
            vkatest::dieWithParent();
            if (setUp)
                setUp();
            _exit(write(ready.writeEnd.get(), "r", 1) == 1 ? body() : 121);
        }
        started.emplace_back(pid);
        ready.writeEnd.reset();
        char byte;
        ssize_t got;
        do {
            got = read(ready.readEnd.get(), &byte, 1);
        } while (got == -1 && errno == EINTR);
        EXPECT_EQ(1, got);
        return pid;
    }
    /** The same with a child that has ended. */
    pid_t startEnded(int (*body)() = [] { return 0; }) {
        const pid_t pid = start(body);
        EXPECT_TRUE(awaitEnd(pid));
        return pid;
    }
    /** Reaps a child behind the object's back. */
    void reapElsewhere(pid_t pid) {
        ::kill(pid, SIGKILL);
        EXPECT_EQ(pid, vkatest::uninterrupted([&] { return waitpid(pid, nullptr, 0); }));
    }
    pidset_t stop() {
        sent.clear();
        return proc.stopChildren();
    }

    Proc proc{getpid()};

private:
    std::vector<Child> started;
    std::set<int> openBefore;
};

/** Without and with a kernel that can tell of a process's end through a descriptor. */
class ProcWaiting : public ProcTest, public testing::WithParamInterface<bool> {
protected:
    void SetUp() override {
        ProcTest::SetUp();
        if (!GetParam())
            pidfdFault.failAlways(ENOSYS);
    }
};
INSTANTIATE_TEST_SUITE_P(Pidfd, ProcWaiting, testing::Bool(),
                         [](const testing::TestParamInfo<bool>& param) {
                             return param.param ? "with" : "without";
                         });

} // namespace

extern "C" pid_t __real_fork();
extern "C" pid_t __wrap_fork();
extern "C" pid_t __wrap_fork() {
    return forkFault.hit() ? -1 : __real_fork();
}

VKA_WRAP(waitFault, pid_t, waitpid, (pid_t pid, int* status, int flags), (pid, status, flags), -1)

extern "C" int __real_kill(pid_t pid, int sig);
extern "C" int __wrap_kill(pid_t pid, int sig);
extern "C" int __wrap_kill(pid_t pid, int sig) {
    sent.emplace_back(pid, sig);
    if (killFault.hit())
        return -1;
    if (pid <= 0 || pid == anothers) { // not a group or every process, either: no test may do that
        errno = EPERM;
        return -1;
    }
    return __real_kill(pid, sig);
}

extern "C" long __real_syscall(long number, ...);
extern "C" long __wrap_syscall(long number, ...);
extern "C" long __wrap_syscall(long number, ...) {
    if (number == SYS_pidfd_open && pidfdFault.hit())
        return -1;
    long args[6];
    va_list list;
    va_start(list, number);
    for (long& arg : args)
        arg = va_arg(list, long);
    va_end(list);
    return __real_syscall(number, args[0], args[1], args[2], args[3], args[4], args[5]);
}

TEST_F(ProcTest, StartsWithoutChildren) {
    EXPECT_EQ(getpid(), proc.getPid());
    EXPECT_FALSE(proc.hasChildren());
    EXPECT_EQ(1, Proc(1).getPid());
    EXPECT_EQ(-1, Proc(-1).getPid());
}

TEST_F(ProcTest, ForkedChildIsItsChild) {
    const pid_t pid = start([] { return 42; });
    EXPECT_TRUE(isChild(pid));
    EXPECT_TRUE(proc.hasChildren());
    int status;
    EXPECT_EQ(pid, proc.wait(pid, true, &status));
    EXPECT_EQ(42 << 8, status);
    EXPECT_FALSE(proc.hasChildren());
}

TEST_F(ProcTest, ForkedChildHasNoChildren) {
    start();
    const pid_t pid = proc.fork();
    if (pid == 0)
        _exit(proc.hasChildren() ? 1 : 0);
    int status;
    EXPECT_EQ(pid, proc.wait(pid, true, &status));
    EXPECT_EQ(0, status);
    stop();
}

TEST_F(ProcTest, ForkReportsFailure) {
    for (int err : {EAGAIN, ENOMEM}) {
        forkFault.failAt(1, err);
        errno = 0;
        EXPECT_EQ(-1, proc.fork());
        EXPECT_EQ(err, errno);
        EXPECT_FALSE(proc.hasChildren());
    }
    const pid_t pid = start();
    forkFault.failAt(1, EAGAIN);
    EXPECT_EQ(-1, proc.fork());
    EXPECT_THAT(stop(), ElementsAre(pid));
}

TEST_F(ProcTest, ForkWithoutMemoryForTheEntryLeavesNoChild) {
    for (int present = 0; present < 2; ++present) {
        vkatest::memoryFault().failAlways(ENOMEM);
        errno = 0;
        const pid_t pid = proc.fork();
        const int err = errno;
        if (pid == 0) {
            vkatest::dieWithParent();
            idle();
        }
        vkatest::memoryFault().disarm();
        EXPECT_EQ(-1, pid);
        EXPECT_EQ(ENOMEM, err);
        EXPECT_EQ(present == 1, proc.hasChildren());
        EXPECT_EQ(present == 1, vkatest::anyChildLeft());
        if (present == 0)
            start();
    }
    stop();
}

TEST_F(ProcTest, WaitLooksOrWaits) {
    vkatest::Pipe go;
    const pid_t pid = proc.fork();
    if (pid == 0) {
        char byte;
        const auto take = [&] { return read(go.readEnd.get(), &byte, 1); };
        _exit(vkatest::uninterrupted(take) == 1 ? 7 : 8);
    }
    int status = -1;
    EXPECT_EQ(0, proc.wait(pid, false, &status));
    EXPECT_TRUE(proc.hasChildren());
    ASSERT_EQ(1, write(go.writeEnd.get(), "g", 1));
    EXPECT_EQ(pid, proc.wait(pid, true, &status));
    EXPECT_EQ(7 << 8, status);
    EXPECT_FALSE(proc.hasChildren());
}

TEST_F(ProcTest, WaitTakesNoStatusIfNoneIsWanted) {
    const pid_t pid = startEnded();
    EXPECT_EQ(pid, proc.wait(pid, false, nullptr));
    EXPECT_FALSE(proc.hasChildren());
}

TEST_F(ProcTest, WaitReportsASignal) {
    const pid_t pid = start();
    ASSERT_EQ(0, ::kill(pid, SIGKILL));
    int status;
    EXPECT_EQ(pid, proc.wait(pid, true, &status));
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(SIGKILL, WTERMSIG(status));
}

TEST_F(ProcTest, WaitForTheProcessItStandsFor) {
    Child child = Child::run([] { return 9; });
    Proc other(child.id());
    int status;
    EXPECT_EQ(child.id(), other.wait(true, &status));
    EXPECT_EQ(9 << 8, status);
    child.release();

    Child running = Child::idle();
    EXPECT_EQ(0, Proc(running.id()).wait(false, &status));
}

TEST_F(ProcTest, WaitForWhatIsNoChild) {
    Child zombie = Child::run([] { return 3; });
    ASSERT_TRUE(zombie.awaitZombie());
    for (pid_t pid : {-1, 0, 1, static_cast<int>(getpid()), -getpgrp(), -zombie.id()}) {
        for (bool blocking : {false, true}) {
            errno = 0;
            EXPECT_EQ(-1, proc.wait(pid, blocking, nullptr)) << pid;
            EXPECT_EQ(ECHILD, errno);
            errno = 0;
            EXPECT_EQ(-1, Proc(pid).wait(blocking, nullptr)) << pid;
            EXPECT_EQ(ECHILD, errno);
        }
    }
    EXPECT_EQ(3, zombie.exitCode()) << "reaped by a wait for something else";
}

TEST_F(ProcTest, WaitForAGoneChildForgetsIt) {
    const pid_t pid = start();
    reapElsewhere(pid);
    EXPECT_TRUE(proc.hasChildren());
    errno = 0;
    EXPECT_EQ(-1, proc.wait(pid, true, nullptr));
    EXPECT_EQ(ECHILD, errno);
    EXPECT_FALSE(proc.hasChildren());
}

TEST_F(ProcTest, WaitKeepsTheChildWhenWaitingItselfFails) {
    const pid_t pid = startEnded();
    waitFault.failAt(1, EINVAL);
    errno = 0;
    EXPECT_EQ(-1, proc.wait(pid, false, nullptr));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_TRUE(proc.hasChildren());
    EXPECT_EQ(pid, proc.wait(pid, false, nullptr));
}

TEST_F(ProcTest, WaitGoesOnAfterInterruptions) {
    const pid_t pid = startEnded();
    waitFault.failAt(1, EINTR);
    EXPECT_EQ(pid, proc.wait(pid, true, nullptr));
    EXPECT_EQ(2, waitFault.calls());
}

TEST_F(ProcTest, WaitChildWithoutChildren) {
    for (bool blocking : {false, true}) {
        errno = 0;
        EXPECT_EQ(-1, proc.waitChild(blocking));
        EXPECT_EQ(ECHILD, errno);
    }
}

TEST_P(ProcWaiting, WaitChildReapsTheLowestThatHasEnded) {
    pidset_t ended;
    const pid_t running = start();
    for (int i = 0; i < 3; ++i)
        ended.insert(startEnded());
    for (pid_t expected : ended)
        EXPECT_EQ(expected, proc.waitChild(expected % 2 == 0));
    EXPECT_EQ(0, proc.waitChild(false));
    EXPECT_TRUE(isChild(running));
    EXPECT_THAT(stop(), ElementsAre(running));
}

TEST_P(ProcWaiting, WaitChildWaitsForAnyWithoutUsingTheProcessor) {
    const pid_t running = start();
    const Stopwatch watch;
    const pid_t ending = start([] {
        sleepMs(700);
        return 0;
    });
    const long cpu = cpuMs();
    EXPECT_EQ(ending, proc.waitChild(true));
    EXPECT_LT(cpuMs() - cpu, waitingCpuMs);
    EXPECT_GE(watch.ms(), 700);
    EXPECT_LT(watch.ms(), stuckMs);
    EXPECT_TRUE(isChild(running));
    stop();
}

TEST_P(ProcWaiting, WaitChildPassesGoneChildrenOver) {
    reapElsewhere(start());
    const pid_t pid = startEnded();
    reapElsewhere(start());
    EXPECT_EQ(pid, proc.waitChild(true));
    errno = 0;
    EXPECT_EQ(-1, proc.waitChild(true));
    EXPECT_EQ(ECHILD, errno);
    EXPECT_FALSE(proc.hasChildren());
}

TEST_F(ProcTest, WaitChildReportsThatWaitingFails) {
    startEnded();
    waitFault.failAt(1, EINVAL);
    errno = 0;
    EXPECT_EQ(-1, proc.waitChild(true));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_TRUE(proc.hasChildren());
    EXPECT_LT(0, proc.waitChild(true));
}

TEST_F(ProcTest, WaitChildrenWithoutChildren) {
    pidset_t pids;
    for (bool blocking : {false, true}) {
        EXPECT_EQ(0, proc.waitChildren(blocking, pids));
        EXPECT_EQ(0, proc.waitChildren(blocking));
    }
    EXPECT_THAT(pids, IsEmpty());
}

TEST_F(ProcTest, WaitChildrenReapsAllThatHaveEnded) {
    const pid_t running = start();
    pidset_t ended, pids;
    for (int i = 0; i < 3; ++i)
        ended.insert(startEnded());
    EXPECT_EQ(*ended.rbegin(), proc.waitChildren(false, pids));
    EXPECT_EQ(ended, pids);
    EXPECT_TRUE(proc.hasChildren());
    EXPECT_EQ(0, proc.waitChildren(false, pids));
    EXPECT_EQ(ended, pids) << "only what this call reaped";
    EXPECT_THAT(stop(), ElementsAre(running));
    EXPECT_FALSE(proc.hasChildren());
}

TEST_F(ProcTest, WaitChildrenAddsToTheSet) {
    const pid_t pid = startEnded();
    pidset_t pids = {0};
    EXPECT_EQ(pid, proc.waitChildren(false, pids));
    EXPECT_THAT(pids, ElementsAre(0, pid));
}

TEST_F(ProcTest, WaitChildrenNeedsNoSet) {
    const pid_t pid = startEnded();
    EXPECT_EQ(pid, proc.waitChildren(false));
    EXPECT_FALSE(proc.hasChildren());
}

TEST_F(ProcTest, WaitChildrenWaitsUntilAllHaveEnded) {
    pidset_t expected, pids;
    for (int i = 0; i < 2; ++i) {
        expected.insert(start([] {
            sleepMs(300);
            return 0;
        }));
        expected.insert(start([] { return 0; }));
    }
    EXPECT_EQ(*expected.rbegin(), proc.waitChildren(true, pids));
    EXPECT_EQ(expected, pids);
    EXPECT_FALSE(proc.hasChildren());
}

TEST_F(ProcTest, WaitChildrenForgetsGoneChildren) {
    for (bool blocking : {false, true}) {
        pidset_t pids;
        reapElsewhere(start());
        EXPECT_EQ(0, proc.waitChildren(blocking, pids));
        EXPECT_THAT(pids, IsEmpty());
        EXPECT_FALSE(proc.hasChildren());

        reapElsewhere(start());
        const pid_t pid = startEnded();
        reapElsewhere(start());
        EXPECT_EQ(pid, proc.waitChildren(blocking, pids));
        EXPECT_THAT(pids, ElementsAre(pid));
        EXPECT_FALSE(proc.hasChildren());
    }
}

TEST_F(ProcTest, WaitChildrenReportsThatWaitingFails) {
    pidset_t ended, pids;
    for (int i = 0; i < 3; ++i)
        ended.insert(startEnded());
    waitFault.failAt(1, EINVAL);
    errno = 0;
    EXPECT_EQ(-1, proc.waitChildren(false, pids));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_THAT(pids, ElementsAre(*std::next(ended.begin()), *ended.rbegin())) << "the others";
    EXPECT_EQ(*ended.begin(), proc.waitChildren(false, pids));
    EXPECT_EQ(ended, pids);
}

TEST_F(ProcTest, IgnoredSigchldDoesNotKeepChildrenForEver) {
    const SignalAction action(SIGCHLD, SIG_IGN);
    for (bool blocking : {false, true}) {
        pidset_t pids;
        const pid_t pid = start([] { return 0; });
        if (!blocking) {
            ASSERT_TRUE(awaitEnd(pid));
        }
        EXPECT_EQ(0, proc.waitChildren(blocking, pids));
        EXPECT_THAT(pids, IsEmpty());
        EXPECT_FALSE(proc.hasChildren());
    }
    startEnded();
    EXPECT_THAT(stop(), IsEmpty());
    EXPECT_FALSE(proc.hasChildren());
}

TEST_F(ProcTest, RunningChildrenStayWhileSigchldIsIgnored) {
    const SignalAction action(SIGCHLD, SIG_IGN);
    for (Promptly promptly; promptly.again();) {
        start();
        EXPECT_EQ(0, proc.waitChildren(false));
        EXPECT_TRUE(proc.hasChildren());
        promptly([&] { return stop(); });
        EXPECT_FALSE(proc.hasChildren());
    }
}

TEST_F(ProcTest, OtherChildrenOfTheHostAreLeftAlone) {
    Child zombie = Child::run([] { return 5; }), running = Child::idle();
    ASSERT_TRUE(zombie.awaitZombie());
    startEnded();
    start();
    EXPECT_LT(0, proc.waitChild(true));
    proc.killChildren(0);
    stop();
    EXPECT_EQ(0, proc.waitChildren(true));
    for (const auto& entry : sent) {
        EXPECT_NE(zombie.id(), entry.first);
        EXPECT_NE(running.id(), entry.first);
    }
    EXPECT_EQ(5, zombie.exitCode());
    EXPECT_TRUE(isChild(running.id()));
}

TEST_F(ProcTest, StopWithoutChildrenSendsNothing) {
    for (Promptly promptly; promptly.again();) {
        EXPECT_THAT(promptly([&] { return stop(); }), IsEmpty());
        EXPECT_THAT(sent, IsEmpty());
    }
}

TEST_P(ProcWaiting, StopReturnsAsSoonAsTheChildHasEnded) {
    for (Promptly promptly; promptly.again();) {
        const pid_t pid = start();
        EXPECT_THAT(promptly([&] { return stop(); }), ElementsAre(pid));
        EXPECT_FALSE(proc.hasChildren());
        EXPECT_FALSE(isChild(pid)) << "not reaped";
        EXPECT_THAT(sent, ElementsAre(Pair(pid, SIGTERM), Pair(pid, SIGCONT)));
    }
}

TEST_P(ProcWaiting, StopGivesTheChildTimeToEndByItself) {
    static vkatest::Pipe said;
    said = vkatest::Pipe();
    const pid_t pid = start(idle, [] {
        signal(SIGTERM, [](int) {
            sleepMs(500);
            _exit(write(said.writeEnd.get(), "bye", 3) == 3 ? 0 : 1);
        });
    });
    const Stopwatch watch;
    EXPECT_THAT(stop(), ElementsAre(pid));
    EXPECT_GE(watch.ms(), 500);
    EXPECT_THAT(sent, ElementsAre(Pair(pid, SIGTERM), Pair(pid, SIGCONT)));
    said.writeEnd.reset();
    EXPECT_EQ("bye", vkatest::readAll(said.readEnd.get(), 4));
    said.readEnd.reset();
}

TEST_P(ProcWaiting, StopKillsWhatIgnoresTheFirstSignal) {
    const pid_t pid = start(idle, ignoreTerm);
    const Stopwatch watch;
    const long cpu = cpuMs();
    EXPECT_THAT(stop(), ElementsAre(pid));
    EXPECT_LT(cpuMs() - cpu, waitingCpuMs) << "processor time used for waiting";
    EXPECT_GE(watch.ms(), countedGraceMs);
    EXPECT_LT(watch.ms(), stuckMs);
    EXPECT_FALSE(proc.hasChildren());
    EXPECT_FALSE(isChild(pid));
    EXPECT_THAT(sent, ElementsAre(Pair(pid, SIGTERM), Pair(pid, SIGCONT), Pair(pid, SIGKILL)));
}

TEST_P(ProcWaiting, StopGivesAllChildrenOneGrace) {
    pidset_t stubborn, all;
    for (int i = 0; i < 3; ++i) {
        stubborn.insert(start(idle, ignoreTerm));
        all.insert(start());
    }
    all.insert(stubborn.begin(), stubborn.end());
    const Stopwatch watch;
    EXPECT_EQ(all, stop());
    EXPECT_GE(watch.ms(), countedGraceMs);
    EXPECT_LT(watch.ms(), 3 * graceMs - 100);
    EXPECT_FALSE(proc.hasChildren());
    pidset_t killed;
    for (const auto& entry : sent) {
        if (entry.second == SIGKILL)
            killed.insert(entry.first);
    }
    EXPECT_EQ(stubborn, killed);
}

TEST_P(ProcWaiting, StopEndsAStoppedChild) {
    for (Promptly promptly; promptly.again();) {
        const pid_t pid = start();
        ASSERT_EQ(0, ::kill(pid, SIGSTOP));
        ASSERT_TRUE(awaitStop(pid));
        EXPECT_THAT(promptly([&] { return stop(); }), ElementsAre(pid));
        EXPECT_FALSE(proc.hasChildren());
    }
}

TEST_F(ProcTest, StopKillsAStoppedChildThatIgnoresTheFirstSignal) {
    const pid_t pid = start(
        []() -> int {
            while (true)
                raise(SIGSTOP);
        },
        ignoreTerm);
    ASSERT_TRUE(awaitStop(pid));
    const Stopwatch watch;
    EXPECT_THAT(stop(), ElementsAre(pid));
    EXPECT_GE(watch.ms(), countedGraceMs);
    EXPECT_LT(watch.ms(), stuckMs);
    EXPECT_FALSE(proc.hasChildren());
}

TEST_F(ProcTest, StopReapsAndReportsWhatHasEndedBeforehand) {
    for (Promptly promptly; promptly.again();) {
        const pid_t ended = startEnded();
        EXPECT_THAT(promptly([&] { return stop(); }), ElementsAre(ended));
        EXPECT_THAT(sent, IsEmpty());
    }

    pidset_t both = {startEnded(), start()};
    EXPECT_EQ(both, stop());
    EXPECT_FALSE(proc.hasChildren());
}

TEST_F(ProcTest, StopPassesGoneChildrenOver) {
    reapElsewhere(start());
    EXPECT_THAT(stop(), IsEmpty());
    EXPECT_THAT(sent, IsEmpty());
    EXPECT_FALSE(proc.hasChildren());
}

TEST_F(ProcTest, StopWorksWithAHandlerThatReaps) {
    const SignalAction action(SIGCHLD, reapAll, SA_RESTART);
    for (Promptly promptly; promptly.again();) {
        const pidset_t pids = {start(), start()};
        EXPECT_EQ(pids, promptly([&] { return stop(); }));
        EXPECT_FALSE(proc.hasChildren());
    }
}

TEST_P(ProcWaiting, InterruptionsNeitherEndNorStretchTheGrace) {
    const pid_t pid = start(idle, ignoreTerm);
    const vkatest::Ticker ticker;
    const Stopwatch watch;
    EXPECT_THAT(stop(), ElementsAre(pid));
    EXPECT_GE(watch.ms(), countedGraceMs);
    EXPECT_LT(watch.ms(), stuckMs);
    EXPECT_GT(ticker.ticks(), 5);
    EXPECT_FALSE(proc.hasChildren());
}

TEST_P(ProcWaiting, InterruptionsDoNotEndBlockingWaits) {
    const auto later = [] {
        sleepMs(200);
        return 0;
    };
    const vkatest::Ticker ticker;
    pid_t pid = start(later);
    EXPECT_EQ(pid, proc.wait(pid, true, nullptr));
    pid = start(later);
    EXPECT_EQ(pid, proc.waitChild(true));
    pid = start(later);
    EXPECT_EQ(pid, proc.waitChildren(true));
    EXPECT_GT(ticker.ticks(), 5);
}

TEST_F(ProcTest, StopWorksWhenDescriptorsRunOut) {
    for (int number : {1, 2, 3}) {
        for (Promptly promptly; promptly.again();) {
            const pidset_t pids = {start(), start(), start()};
            pidfdFault.failAt(number, EMFILE);
            EXPECT_EQ(pids, promptly([&] { return stop(); }));
            EXPECT_FALSE(proc.hasChildren());
        }
    }
}

TEST_F(ProcTest, KillChildrenSignalsEach) {
    const pidset_t pids = {start(), start()};
    sent.clear();
    EXPECT_EQ(0, proc.killChildren(SIGUSR1));
    EXPECT_THAT(sent, ElementsAre(Pair(*pids.begin(), SIGUSR1), Pair(*pids.rbegin(), SIGUSR1)));
    for (pid_t pid : pids) {
        int status;
        EXPECT_EQ(pid, proc.wait(pid, true, &status));
        EXPECT_EQ(SIGUSR1, status);
    }
}

TEST_F(ProcTest, KillChildrenPassesGoneChildrenOver) {
    EXPECT_EQ(0, proc.killChildren(SIGKILL));
    const pid_t gone = start(), running = start();
    reapElsewhere(gone);
    sent.clear();
    EXPECT_EQ(0, proc.killChildren(SIGKILL));
    EXPECT_THAT(sent, ElementsAre(Pair(running, SIGKILL)));
    EXPECT_EQ(running, proc.waitChildren(true));
}

TEST_F(ProcTest, KillChildrenAcceptsAZombie) {
    startEnded();
    EXPECT_EQ(0, proc.killChildren(SIGTERM));
    EXPECT_LT(0, proc.waitChildren(false));
}

TEST_F(ProcTest, KillChildrenTriesAllAndReportsTheFirstFailure) {
    for (int i = 0; i < 3; ++i)
        start();
    errno = 0;
    EXPECT_EQ(-1, proc.killChildren(4096));
    EXPECT_EQ(EINVAL, errno);

    sent.clear();
    killFault.failAt(1, EPERM);
    errno = 0;
    EXPECT_EQ(-1, proc.killChildren(SIGTERM));
    EXPECT_EQ(EPERM, errno);
    EXPECT_EQ(3u, sent.size());
    killFault.disarm();
    stop();
}

TEST_F(ProcTest, StopDoesNotWaitForAChildThatMayNotBeKilled) {
    const pid_t pid = start();
    killFault.failAlways(EPERM);
    const Stopwatch watch;
    EXPECT_THAT(stop(), ElementsAre(pid));
    EXPECT_LT(watch.ms(), stuckMs);
    EXPECT_TRUE(proc.hasChildren());
    killFault.disarm();
    stop();
    EXPECT_FALSE(proc.hasChildren());
}

TEST_F(ProcTest, StopReapsTheOthersOfAChildThatMayNotBeKilled) {
    const pidset_t pids = {start(idle, ignoreTerm), start(idle, ignoreTerm)};
    anothers = *pids.begin();
    EXPECT_EQ(pids, stop());
    EXPECT_TRUE(isChild(*pids.begin()));
    EXPECT_FALSE(isChild(*pids.rbegin()));
    anothers = 0;
    EXPECT_THAT(stop(), ElementsAre(*pids.begin()));
    EXPECT_FALSE(proc.hasChildren());
}

TEST_F(ProcTest, KillEndsTheProcessItStandsFor) {
    for (bool force : {false, true}) {
        Child child = Child::idle();
        EXPECT_EQ(0, Proc(child.id()).kill(force));
        const int status = child.wait();
        EXPECT_TRUE(WIFSIGNALED(status));
        EXPECT_EQ(force ? SIGKILL : SIGTERM, WTERMSIG(status));
    }
}

TEST_F(ProcTest, KillNeverReachesGroups) {
    for (pid_t pid : {-1, 0, -2, -getpgrp()}) {
        for (bool force : {false, true}) {
            sent.clear();
            errno = 0;
            EXPECT_EQ(-1, Proc(pid).kill(force));
            EXPECT_EQ(ESRCH, errno);
            EXPECT_THAT(sent, IsEmpty());
        }
    }
}

TEST_F(ProcTest, KillReportsFailure) {
    const pid_t pid = start();
    reapElsewhere(pid);
    errno = 0;
    EXPECT_EQ(-1, Proc(pid).kill(false));
    EXPECT_EQ(ESRCH, errno);
    EXPECT_EQ(0, proc.waitChildren(false));
}

TEST_F(ProcTest, CopyKnowsTheSameChildren) {
    const pid_t pid = start();
    Proc copy(proc), assigned(1);
    assigned = proc;
    EXPECT_EQ(getpid(), copy.getPid());
    EXPECT_EQ(getpid(), assigned.getPid());
    EXPECT_THAT(copy.stopChildren(), ElementsAre(pid));
    EXPECT_FALSE(copy.hasChildren());
    EXPECT_TRUE(proc.hasChildren());
    for (Proc* other : {&proc, &assigned}) {
        sent.clear();
        EXPECT_THAT(other->stopChildren(), IsEmpty());
        EXPECT_THAT(sent, IsEmpty());
        EXPECT_FALSE(other->hasChildren());
    }
}

TEST_F(ProcTest, DestructorNeitherStopsNorWaits) {
    pid_t pid;
    {
        Proc other(getpid());
        pid = other.fork();
        if (pid == 0) {
            vkatest::dieWithParent();
            idle();
        }
        sent.clear();
    }
    EXPECT_THAT(sent, IsEmpty());
    EXPECT_TRUE(isChild(pid));
    Child(pid).end();
}

TEST(ProcOutput, ShowsIdsInAscendingOrder) {
    const auto text = [](const Proc::pidset_t& pids) {
        std::ostringstream os;
        EXPECT_EQ(&os, &(os << pids));
        return os.str();
    };
    EXPECT_EQ("{}", text({}));
    EXPECT_EQ("{812}", text({812}));
    EXPECT_EQ("{9,812,813}", text({813, 9, 812}));
}
