// SPDX-License-Identifier: MIT
#include <libqvio/IOException>
#include <libqvutil/QVException>
#include <tests/support/client_agent.h>
#include <tests/support/client_commands.h>
#include <tests/support/client_log.h>
#include <tests/support/fault.h>
#include <tests/support/tempdir.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <unistd.h>

using namespace vkatest;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

namespace {
Fault mkdirFault, unlinkatFault, chdirFault, spawnFault;
std::vector<std::string> directories;  // made, with their modes
std::optional<unsigned long> totalram; // what sysinfo() tells in place of the truth
} // namespace

VKA_WRAP(unlinkatFault, int, unlinkat, (int dir, const char* path, int flags), (dir, path, flags),
         -1)
VKA_WRAP(chdirFault, int, chdir, (const char* path), (path), -1)
VKA_WRAP(spawnFault, int, posix_spawn,
         (pid_t * pid, const char* path, const posix_spawn_file_actions_t* actions,
          const posix_spawnattr_t* attr, char* const argv[], char* const envp[]),
         (pid, path, actions, attr, argv, envp), spawnFault.number())

extern "C" {
int __real_mkdir(const char* path, mode_t mode) noexcept;
int __wrap_mkdir(const char* path, mode_t mode) noexcept;
int __wrap_mkdir(const char* path, mode_t mode) noexcept {
    if (mkdirFault.hit())
        return -1;
    const int ret = __real_mkdir(path, mode);
    const int err = errno;
    if (ret == 0)
        directories.push_back(path + (' ' + std::to_string(mode)));
    errno = err;
    return ret;
}

int __real_sysinfo(struct sysinfo* info) noexcept;
int __wrap_sysinfo(struct sysinfo* info) noexcept;
int __wrap_sysinfo(struct sysinfo* info) noexcept {
    const int ret = __real_sysinfo(info);
    if (totalram) {
        info->totalram = *totalram;
        info->mem_unit = 1;
    }
    return ret;
}
}

namespace {

class VKAClientBuild : public testing::Test {
protected:
    VKAClientBuild() {
        totalram = 536870912;
        directories.clear();
        for (Fault* fault : {&mkdirFault, &unlinkatFault, &chdirFault, &spawnFault})
            fault->disarm();
        commands.define("unzip", "echo inflating; echo; echo done; touch main.c");
        commands.define("make", "echo compiling; echo; echo warning >&2");
        construct(0);
    }
    ~VKAClientBuild() override {
        totalram.reset();
        for (Fault* fault : {&mkdirFault, &unlinkatFault, &chdirFault, &spawnFault})
            fault->disarm();
    }

    void construct(unsigned int debug) {
        agent.emplace((dir / "w").c_str(), false, 0, 0, "", debug);
        sink.clear();
    }
    std::string srcdir() const { return dir / "w/src"; }

    /** What make was called with, up to the first of its fixed words. */
    std::string makeCall() const {
        const std::string calls = commands.calls();
        const size_t start = calls.find("make ");
        return start == std::string::npos ? "" : calls.substr(start, calls.find(" <BIN=") - start);
    }

    const WorkingDirectory before;
    const TempDir dir;
    Commands commands;
    Log sink;
    std::optional<Agent> agent;
    VKAClient::args_t log;
};

const std::string unzipMark = "\n\nunzip log:\n", makeMark = "\n\nmake log:\n";

TEST_F(VKAClientBuild, unpacksAndMakesInTheSourceDirectory) {
    agent->build("/data/a.zip", log, false);
    EXPECT_THAT(commands.calls(),
                StartsWith("unzip <-o> </data/a.zip> in " + srcdir() + "\nmake "));
    EXPECT_THAT(commands.calls(), testing::EndsWith(" in " + srcdir() + '\n'));
    EXPECT_EQ(makeCall(), "make <-f> </opt/quorvel/share/vka/Makefile> <-j> <2>");
    EXPECT_EQ(std::filesystem::current_path(), srcdir());
}

TEST_F(VKAClientBuild, appendsBothLogsBehindTheirMarks) {
    log = {"of before"};
    agent->build("/data/a.zip", log, false);
    EXPECT_THAT(log, ElementsAre("of before", unzipMark, "inflating", "done", makeMark, "compiling",
                                 "warning"));
}

TEST_F(VKAClientBuild, addsASecondLogToTheFirst) {
    agent->build("/data/a.zip", log, false);
    agent->build("/data/b.zip", log, true);
    EXPECT_THAT(log, ElementsAre(unzipMark, "inflating", "done", makeMark, "compiling", "warning",
                                 unzipMark, "inflating", "done", makeMark, "compiling", "warning"));
}

/** What a whole build writes to standard output, up to make's own lines. */
TEST_F(VKAClientBuild, logsItsCallsAndTheDirectoryFromLevelTwoOn) {
    for (unsigned int debug : {0u, 1u, 2u, 3u}) {
        for (bool force : {false, true}) {
            construct(debug);
            agent->build("/data/a.zip", log, force);
            const std::string expected =
                (debug > 1 ? debugLine("build", "srcdir=" + srcdir()) : "") +
                infoLine("build", "call: unzip -o /data/a.zip") +
                (force ? infoLine("build", "forced build") : "") +
                "[INFO] VKAClient::make() call: make -f /opt/quorvel/share/vka/Makefile -j 2 BIN=";
            EXPECT_THAT(sink.out(), StartsWith(expected));
            const std::string rest = sink.out().substr(expected.size());
            EXPECT_EQ(rest.find("VKAClient::build"), std::string::npos);
            EXPECT_EQ(std::count(rest.begin(), rest.end(), '\n'), 2);
            EXPECT_NE(rest.find("\n[DEBUG] VKAClient::make() getCmdCallOutput: ret=0 "),
                      std::string::npos);
            EXPECT_EQ(sink.err(), "");
            EXPECT_EQ(sink.unlocked(), "");
            EXPECT_EQ(sink.unflushed(), "");
        }
    }
}

TEST_F(VKAClientBuild, doesTheSameWhenForced) {
    agent->build("/data/a.zip", log, false);
    const std::string calls = commands.calls();
    VKAClient::args_t forcedLog;
    agent->build("/data/a.zip", forcedLog, true);
    EXPECT_EQ(commands.calls(), calls + calls);
    EXPECT_EQ(forcedLog, log);
}

TEST_F(VKAClientBuild, takesASecondJobFrom512MebibytesOn) {
    const struct {
        unsigned long bytes;
        const char* jobs;
    } rows[] = {{0, "1"},         {1, "1"},         {536870911, "1"},
                {536870912, "2"}, {536870913, "2"}, {4294967295, "2"}};
    for (const auto& row : rows) {
        totalram = row.bytes;
        construct(0);
        commands.define("make", "");
        const size_t earlier = commands.calls().size();
        agent->build("/data/a.zip", log, false);
        EXPECT_NE(
            commands.calls().find("Makefile> <-j> <" + std::string(row.jobs) + "> <BIN=", earlier),
            std::string::npos)
            << row.bytes;
    }
}

TEST_F(VKAClientBuild, createsTheSourceDirectoryWithItsParents) {
    const mode_t mask = umask(0);
    agent->build("/data/a.zip", log, false);
    umask(mask);
    EXPECT_THAT(directories, ElementsAre(dir / "w 511", srcdir() + " 511"));
    struct stat info;
    ASSERT_EQ(stat(srcdir().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0777u);
}

TEST_F(VKAClientBuild, emptiesTheSourceDirectoryFirst) {
    dir.makeDir("w/src/sub/deeper");
    for (const char* old : {"old.c", ".hidden", "sub/a.h", "sub/deeper/b.h"})
        dir.makeFile(std::string("w/src/") + old);
    dir.makeFile("w/beside");
    struct stat first, second;
    ASSERT_EQ(stat(srcdir().c_str(), &first), 0);

    commands.define("unzip", "ls -A");
    commands.define("make", "ls -A");
    agent->build("/data/a.zip", log, false);
    EXPECT_THAT(log, ElementsAre(unzipMark, makeMark)) << "something was left";
    ASSERT_EQ(stat(srcdir().c_str(), &second), 0);
    EXPECT_EQ(first.st_ino, second.st_ino);
    EXPECT_TRUE(exists(dir / "w/beside"));
}

TEST_F(VKAClientBuild, doesNotCompileFilesOfAnEarlierArchive) {
    commands.define("unzip", "touch one.c two.c");
    commands.define("make", "ls");
    agent->build("/data/a.zip", log, false);
    EXPECT_THAT(log, ElementsAre(unzipMark, makeMark, "one.c", "two.c"));
    log.clear();
    commands.define("unzip", "touch two.c");
    agent->build("/data/a.zip", log, false);
    EXPECT_THAT(log, ElementsAre(unzipMark, makeMark, "two.c"));
}

TEST_F(VKAClientBuild, unpacksARealArchive) {
    const std::string archive = dir / "a.zip";
    dir.makeFile("main.c", "int main;\n");
    ASSERT_EQ(system(("cd " + dir.path() + " && zip -q a.zip main.c").c_str()), 0);
    std::filesystem::remove(dir / "main.c");

    commands.define("unzip", "PATH=${PATH#*:} exec unzip \"$@\"");
    commands.define("make", "cat main.c");
    agent->build(archive, log, false);
    EXPECT_EQ(log.back(), "int main;");
    EXPECT_THAT(log, Contains(StartsWith("Archive:  " + archive)));
    EXPECT_EQ(contentOf(srcdir() + "/main.c"), "int main;\n");

    log.clear();
    agent->build("../../a.zip", log, false); // starts at the source directory
    EXPECT_EQ(log.back(), "int main;");
}

TEST_F(VKAClientBuild, goesOnToMakeWithoutAnArchive) {
    dir.makeDir("w/src");
    dir.makeFile("w/src/old.c");
    commands.define("unzip", "PATH=${PATH#*:} exec unzip \"$@\"");
    commands.define("make", "ls -A; echo no sources; exit 2");
    try {
        agent->build(dir / "missing.zip", log, false);
        FAIL() << "passed";
    } catch (const QVException& e) {
        EXPECT_STREQ(e.what(), "make error");
    }
    EXPECT_EQ(log.front(), unzipMark);
    EXPECT_THAT(log, Contains(makeMark));
    EXPECT_EQ(log.back(), "no sources");
    EXPECT_TRUE(std::filesystem::is_empty(srcdir()));
    EXPECT_NE(sink.out().find(" WEXITSTATUS=2 "), std::string::npos);
}

TEST_F(VKAClientBuild, ignoresTheExitStatusOfUnzip) {
    for (int code : {1, 9, 81, 255}) {
        commands.define("unzip", "echo bad; exit " + std::to_string(code));
        log.clear();
        agent->build("/data/a.zip", log, false);
        EXPECT_THAT(log, ElementsAre(unzipMark, "bad", makeMark, "compiling", "warning"));
    }
    commands.define("unzip", "kill -KILL $$");
    EXPECT_NO_THROW(agent->build("/data/a.zip", log, false));
}

TEST_F(VKAClientBuild, putsTheArchiveInUnquoted) {
    agent->build("a.zip -d sub", log, false);
    EXPECT_THAT(commands.calls(), StartsWith("unzip <-o> <a.zip> <-d> <sub> in "));
    EXPECT_THAT(sink.out(), StartsWith(infoLine("build", "call: unzip -o a.zip -d sub")));
}

/** A step that fails, and how far the log vector and the output came. */
struct Failure {
    Fault* fault;
    int err;
    const char* message; // followed by the source directory or the archive
    bool ofArchive;
    size_t logged;
};

void PrintTo(const Failure& failure, std::ostream* os) {
    *os << failure.message;
}

class VKAClientBuildFailure : public VKAClientBuild, public testing::WithParamInterface<Failure> {};

TEST_P(VKAClientBuildFailure, isThrownWithItsNumber) {
    const Failure& failure = GetParam();
    for (unsigned int debug : {0u, 1u, 2u, 3u}) {
        std::filesystem::remove_all(dir / "w");
        if (failure.fault == &unlinkatFault)
            dir.makeDir("w/src/old");
        std::filesystem::current_path(dir.path());
        construct(debug);
        log = {"of before"};
        failure.fault->failAlways(failure.err);
        try {
            agent->build("/data/a.zip", log, true);
            ADD_FAILURE() << "passed";
        } catch (const IOException& e) {
            EXPECT_EQ(e.getError(), failure.err);
            const IOException expected(
                failure.err, failure.message + (failure.ofArchive ? "/data/a.zip" : srcdir()));
            EXPECT_STREQ(e.what(), expected.what());
        }
        failure.fault->disarm();
        EXPECT_EQ(commands.calls(), "");
        EXPECT_EQ(log.size(), 1 + failure.logged);
        EXPECT_EQ(log.front(), "of before");
        EXPECT_EQ(sink.out(),
                  (debug > 1 ? debugLine("build", "srcdir=" + srcdir()) : "") +
                      (failure.ofArchive ? infoLine("build", "call: unzip -o /data/a.zip") : ""));
        EXPECT_EQ(sink.err(), "");
        EXPECT_EQ(std::filesystem::current_path(), failure.ofArchive ? srcdir() : dir.path());
    }
}

INSTANTIATE_TEST_SUITE_P(EachStep, VKAClientBuildFailure,
                         testing::Values(Failure{&mkdirFault, EACCES, "create src dir ", false, 0},
                                         Failure{&unlinkatFault, EBUSY,
                                                 "remove old source files in ", false, 0},
                                         Failure{&chdirFault, EACCES, "change dir to ", false, 0},
                                         Failure{&spawnFault, EAGAIN, "cannot unzip ", true, 1}));

TEST_F(VKAClientBuild, failsWhereAFileIsInTheWay) {
    dir.makeFile("w");
    try {
        agent->build("/data/a.zip", log, false);
        FAIL() << "passed";
    } catch (const IOException& e) {
        EXPECT_EQ(e.getError(), ENOTDIR);
        EXPECT_STREQ(e.what(), IOException(ENOTDIR, "create src dir " + srcdir()).what());
    }
}

TEST_F(VKAClientBuild, passesOnThatMakeCannotBeCalled) {
    spawnFault.failAt(2, ENOMEM);
    try {
        agent->build("/data/a.zip", log, false);
        FAIL() << "passed";
    } catch (const IOException& e) {
        EXPECT_EQ(e.getError(), ENOMEM);
        EXPECT_STREQ(e.what(), IOException(ENOMEM, "cannot call make").what());
    }
    EXPECT_THAT(log, ElementsAre(unzipMark, "inflating", "done", makeMark));
    EXPECT_EQ(std::filesystem::current_path(), srcdir());
}

TEST_F(VKAClientBuild, keepsTheLogOfAFailedMake) {
    commands.define("make", "echo 'main.c:1: error'; exit 2");
    EXPECT_THROW(agent->build("/data/a.zip", log, false), QVException);
    EXPECT_THAT(log, ElementsAre(unzipMark, "inflating", "done", makeMark, "main.c:1: error"));
}

TEST_F(VKAClientBuild, leavesTheRelayAlone) {
    agent->bufChild2Conn = {{'o'}};
    agent->bufConn2Child = {'i'};
    agent->bufsize = 5;
    agent->build("/data/a.zip", log, false);
    EXPECT_EQ(agent->bufChild2Conn, Agent::buf_t{{'o'}});
    EXPECT_EQ(agent->bufConn2Child, byteVec_t{'i'});
    EXPECT_EQ(agent->bufsize, 5u);
}

} // namespace
