// SPDX-License-Identifier: MIT
// Compiled without access control: fills the private set with ids that must never be signalled.
#include <libqvproc/Proc>

#include "tests/support/child.h"
#include "tests/support/sandbox.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <fstream>
#include <vector>

using testing::Each;
using testing::ElementsAre;
using testing::Gt;
using testing::IsEmpty;
using testing::Pair;
using vkatest::Child;

namespace {

typedef std::vector<std::pair<pid_t, int>> signals_t;

signals_t sent;             // what kill() was asked for
std::vector<pid_t> awaited; // what waitpid() was asked for

/**
 * Runs the function in a process namespace of its own, where process 1 is not its child, so that
 * nobody else is there who could be hit.
 */
template <typename Function>
void inProcessNamespace(Function function) {
    Child outer = Child::run([&] {
        if (!vkatest::enterNamespaces(CLONE_NEWPID))
            return 1;
        return Child::run([&] {
                   return Child::run([&] {
                              function();
                              return testing::Test::HasFailure() ? 2 : 0;
                          })
                       .exitCode();
               })
            .exitCode();
    });
    EXPECT_EQ(0, outer.exitCode());
}

/** Ids that are no children: groups, everybody, strangers, ourselves, a child reaped before. */
std::vector<int> foreignIds() {
    Child reaped = Child::run([] { return 0; });
    const int id = reaped.id();
    reaped.wait();
    return {-1, 0, -2, INT_MIN, -getpgrp(), 1, getppid(), getpid(), id, INT_MAX};
}

} // namespace

extern "C" int __real_kill(pid_t pid, int sig);
extern "C" int __wrap_kill(pid_t pid, int sig);
extern "C" int __wrap_kill(pid_t pid, int sig) {
    sent.emplace_back(pid, sig);
    if (pid <= 0) {
        errno = EPERM;
        return -1;
    }
    return __real_kill(pid, sig);
}

extern "C" pid_t __real_waitpid(pid_t pid, int* status, int flags);
extern "C" pid_t __wrap_waitpid(pid_t pid, int* status, int flags);
extern "C" pid_t __wrap_waitpid(pid_t pid, int* status, int flags) {
    awaited.push_back(pid);
    return __real_waitpid(pid, status, flags);
}

TEST(ProcForeignIds, AreNeverSignalled) {
    inProcessNamespace([] {
        for (int id : foreignIds()) {
            SCOPED_TRACE(id);
            Proc proc(getpid());
            proc.children = {id};
            sent.clear();
            EXPECT_EQ(0, proc.killChildren(SIGKILL));
            EXPECT_THAT(sent, IsEmpty());
            EXPECT_THAT(proc.stopChildren(), IsEmpty());
            EXPECT_THAT(sent, IsEmpty());
            EXPECT_FALSE(proc.hasChildren());
        }
    });
}

TEST(ProcForeignIds, DoNotKeepChildrenFromBeingStopped) {
    inProcessNamespace([] {
        const std::vector<int> foreign = foreignIds();
        Proc proc(getpid());
        Child child(proc.fork());
        if (child.id() == 0)
            pause();
        proc.children.insert(foreign.begin(), foreign.end());
        sent.clear();
        EXPECT_EQ(0, proc.killChildren(SIGCONT));
        EXPECT_THAT(sent, ElementsAre(Pair(child.id(), SIGCONT)));
        EXPECT_THAT(proc.stopChildren(), ElementsAre(child.id()));
        EXPECT_THAT(sent, Each(Pair(child.id(), testing::_)));
        EXPECT_FALSE(proc.hasChildren());
    });
}

TEST(ProcForeignIds, AreNeverWaitedForAsGroups) {
    inProcessNamespace([] {
        Child zombie = Child::run([] { return 6; });
        ASSERT_TRUE(zombie.awaitZombie());
        for (bool blocking : {false, true}) {
            Proc proc(getpid());
            const std::vector<int> foreign = foreignIds();
            awaited.clear();
            Proc::pidset_t pids;
            proc.children.insert(foreign.begin(), foreign.end());
            EXPECT_EQ(0, proc.waitChildren(blocking, pids));
            EXPECT_FALSE(proc.hasChildren());
            proc.children.insert(foreign.begin(), foreign.end());
            EXPECT_EQ(-1, proc.waitChild(blocking));
            EXPECT_EQ(ECHILD, errno);
            EXPECT_FALSE(proc.hasChildren());
            EXPECT_THAT(pids, IsEmpty());
            EXPECT_THAT(awaited, Each(Gt(0)));
        }
        EXPECT_EQ(6, zombie.exitCode());
    });
}

TEST(ProcPrivate, WorkerWaitsForPositiveIdsOnly) {
    Child zombie = Child::run([] { return 6; });
    ASSERT_TRUE(zombie.awaitZombie());
    awaited.clear();
    for (pid_t pid : {-1, 0, -getpgrp()}) {
        errno = 0;
        EXPECT_EQ(-1, Proc::doWait(pid, false, nullptr));
        EXPECT_EQ(ECHILD, errno);
    }
    EXPECT_THAT(awaited, IsEmpty());
    int status;
    EXPECT_EQ(zombie.id(), Proc::doWait(zombie.id(), true, &status));
    EXPECT_EQ(6 << 8, status);
    zombie.release();
}

TEST(ProcPrivate, ProcessComesBeforeChildren) {
    const Proc proc(12);
    EXPECT_EQ(static_cast<const void*>(&proc), &proc.pid);
    EXPECT_LT(static_cast<const void*>(&proc.pid), static_cast<const void*>(&proc.children));
}

TEST(ProcPrivate, ProgramIsMatchedByBaseNameOrWholePath) {
    EXPECT_TRUE(Proc::matchesExe("/usr/bin/make", "make"));
    EXPECT_TRUE(Proc::matchesExe("make", "make"));
    EXPECT_TRUE(Proc::matchesExe("./make", "make"));
    EXPECT_TRUE(Proc::matchesExe("/usr/bin/make", "/usr/bin/make"));
    EXPECT_FALSE(Proc::matchesExe("/usr/bin/make", "/bin/make"));
    EXPECT_FALSE(Proc::matchesExe("/usr/bin/make", "bin/make"));
    EXPECT_FALSE(Proc::matchesExe("/usr/bin/make", "bin"));
    EXPECT_FALSE(Proc::matchesExe("/usr/bin/gmake", "make"));
    EXPECT_FALSE(Proc::matchesExe("/usr/bin/make3", "make"));
    EXPECT_FALSE(Proc::matchesExe("/usr/bin/make", ""));
    EXPECT_FALSE(Proc::matchesExe("", ""));
    EXPECT_FALSE(Proc::matchesExe("", "make"));
}

TEST(ProcPrivate, EntriesOfProcThatAreNoProcessesMatchNothing) {
    for (const char* entry : {"self", "thread-self", "net", ".", "..", "sys", ""})
        EXPECT_EQ(-1, Proc::pidofProc(entry, "ProcPrivate_test")) << entry;
    EXPECT_EQ(getpid(), Proc::pidofProc(std::to_string(getpid()).c_str(), "ProcPrivate_test"));
}

TEST(ProcPrivate, ArgumentZeroEndsTheCommandLine) {
    std::ifstream file("/proc/self/cmdline");
    std::string expected;
    std::getline(file, expected, '\0');
    EXPECT_EQ(expected, Proc::cmdlinePid(std::to_string(getpid()).c_str()));
    EXPECT_EQ("", Proc::cmdlinePid("0"));
}

TEST(ProcPrivate, StatusLineByEachKindOfId) {
    const std::string id = std::to_string(getpid());
    const std::string start = id + " (ProcPrivate_tes) ";
    EXPECT_EQ(start, Proc::statPid(getpid()).substr(0, start.size()));
    EXPECT_EQ(start, Proc::statPid(id.c_str()).substr(0, start.size()));
    EXPECT_EQ(start, Proc::statExe("ProcPrivate_test").substr(0, start.size()));
    EXPECT_EQ("", Proc::statPid("no such entry"));
}
