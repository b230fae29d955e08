// SPDX-License-Identifier: MIT
// Handing back sources and output, and linking data files.
#include <libqvio/IOException>
#include <tests/support/client_agent.h>
#include <tests/support/client_commands.h>
#include <tests/support/client_log.h>
#include <tests/support/fault.h>
#include <tests/support/tempdir.h>
#include <tests/support/transfer.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <optional>
#include <spawn.h>
#include <unistd.h>

using namespace vkatest;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {
Fault chdirFault, spawnFault, unlinkFault, symlinkFault;
}

VKA_WRAP(chdirFault, int, chdir, (const char* path), (path), -1)
VKA_WRAP(unlinkFault, int, unlink, (const char* path), (path), -1)
VKA_WRAP(symlinkFault, int, symlink, (const char* target, const char* path), (target, path), -1)
VKA_WRAP(spawnFault, int, posix_spawn,
         (pid_t * pid, const char* path, const posix_spawn_file_actions_t* actions,
          const posix_spawnattr_t* attr, char* const argv[], char* const envp[]),
         (pid, path, actions, attr, argv, envp), spawnFault.number())

namespace {

class SourceDirectoryTest : public testing::Test {
protected:
    SourceDirectoryTest() : agent(dir.path().c_str(), false, 0, 0, "", 3) {
        disarm();
        dir.makeDir("src");
        sink.clear();
    }
    ~SourceDirectoryTest() override {
        agent.debug = 0;
        disarm();
    }

    std::string srcdir() const { return dir / "src"; }
    std::string source(const std::string& name) const { return dir / ("src/" + name); }

    void expectFailure(const std::function<void()>& act, int err, const std::string& message) {
        try {
            act();
            ADD_FAILURE() << "passed instead of: " << message;
        } catch (const IOException& e) {
            EXPECT_EQ(e.getError(), err);
            EXPECT_STREQ(e.what(), IOException(err, message).what());
        }
    }

    const WorkingDirectory before;
    const TempDir dir;
    Log sink;
    Agent agent;
    VKAClient::args_t log;

private:
    static void disarm() {
        for (Fault* fault : {&chdirFault, &spawnFault, &unlinkFault, &symlinkFault})
            fault->disarm();
    }
};

class VKAClientGetSources : public SourceDirectoryTest {
protected:
    /** Names in an archive, one a line, sorted. */
    static std::string listing(const std::string& archive) {
        return popenOf("unzip -Z1 " + archive + " | LC_ALL=C sort").second;
    }

    std::string archive = dir / "out.zip";
};

TEST_F(VKAClientGetSources, packsTheFourKindsOfFilesOfTheDirectoryItself) {
    dir.makeDir("src/sub");
    for (const char* name : {"a.h", "b.hh", "c.c", "d.cc", "e.cpp", "f.txt", "Makefile", ".g.c",
                             "h.c.orig", "sub/i.c"})
        dir.makeFile(std::string("src/") + name);
    agent.getSources(archive, log);
    EXPECT_EQ(listing(archive), "a.h\nb.hh\nc.c\nd.cc\n");
    EXPECT_EQ(std::filesystem::current_path(), srcdir());
}

TEST_F(VKAClientGetSources, appendsTheMarkAndTheOutputOfZip) {
    Commands commands;
    commands.define("zip", "echo adding; echo; echo done");
    dir.makeFile("src/a.h");
    dir.makeFile("src/c.c");
    log = {"of before"};
    agent.getSources("out.zip", log);
    EXPECT_THAT(log, ElementsAre("of before", "\n\nzip log:\n", "adding", "done"));
    // Patterns that match nothing reach zip as they are.
    EXPECT_EQ(commands.calls(), "zip <out.zip> <a.h> <*.hh> <c.c> <*.cc> in " + srcdir() + '\n');
}

TEST_F(VKAClientGetSources, logsItsCallAtEveryLevel) {
    const Commands commands;
    commands.define("zip", "");
    for (unsigned int debug : {0u, 1u, 2u, 3u}) {
        agent.debug = debug;
        sink.clear();
        agent.getSources("/data/out.zip -x y", log);
        EXPECT_EQ(sink.out(),
                  infoLine("getSources", "call: zip /data/out.zip -x y *.h *.hh *.c *.cc"));
        EXPECT_EQ(sink.err(), "");
        EXPECT_EQ(sink.unlocked(), "");
        EXPECT_EQ(sink.unflushed(), "");
    }
}

TEST_F(VKAClientGetSources, startsARelativePathAtTheSourceDirectory) {
    dir.makeFile("src/c.c");
    agent.getSources("out.zip", log);
    EXPECT_EQ(listing(source("out.zip")), "c.c\n");
}

TEST_F(VKAClientGetSources, addsToAnArchiveThatExists) {
    dir.makeFile("src/a.h");
    agent.getSources(archive, log);
    std::filesystem::remove(source("a.h"));
    dir.makeFile("src/c.c");
    agent.getSources(archive, log);
    EXPECT_EQ(listing(archive), "a.h\nc.c\n");
}

TEST_F(VKAClientGetSources, passesWithNothingToPack) {
    agent.getSources(archive, log);
    EXPECT_EQ(log.front(), "\n\nzip log:\n");
    EXPECT_THAT(log, Contains(HasSubstr("Nothing to do")));
    EXPECT_FALSE(exists(archive));
}

TEST_F(VKAClientGetSources, ignoresTheExitStatusOfZip) {
    const Commands commands;
    for (int code : {1, 12, 255}) {
        commands.define("zip", "exit " + std::to_string(code));
        EXPECT_NO_THROW(agent.getSources(archive, log)) << code;
    }
}

TEST_F(VKAClientGetSources, failsWithoutTheDirectory) {
    std::filesystem::remove(srcdir());
    log = {"of before"};
    expectFailure([&] { agent.getSources(archive, log); }, ENOENT, "no src dir " + srcdir());
    dir.makeFile("src");
    expectFailure([&] { agent.getSources(archive, log); }, ENOTDIR, "no src dir " + srcdir());
    EXPECT_THAT(log, ElementsAre("of before"));
    EXPECT_EQ(sink.out(), "");
    EXPECT_EQ(chdirFault.calls(), 0);
}

TEST_F(VKAClientGetSources, failsWhereTheDirectoryCannotBeEntered) {
    chdirFault.failAt(1, EACCES);
    expectFailure([&] { agent.getSources(archive, log); }, EACCES, "change dir to " + srcdir());
    EXPECT_THAT(log, IsEmpty());
    EXPECT_EQ(sink.out(), "");
}

TEST_F(VKAClientGetSources, failsWhereZipCannotBeRun) {
    spawnFault.failAt(1, EAGAIN);
    expectFailure([&] { agent.getSources(archive, log); }, EAGAIN, "cannot zip " + archive);
    EXPECT_THAT(log, ElementsAre("\n\nzip log:\n"));
}

class VKAClientGetRunLog : public SourceDirectoryTest {};

TEST_F(VKAClientGetRunLog, clearsTheLogWhenThereIsNoOutput) {
    log = {"of before", ""};
    agent.getRunLog(log);
    EXPECT_THAT(log, IsEmpty());
}

TEST_F(VKAClientGetRunLog, handsOverEachChunkAsItIs) {
    std::string everyByte;
    for (int i = 0; i < 256; ++i)
        everyByte += static_cast<char>(i);
    agent.bufChild2Conn = {
        {'a', 'b', 'c'}, {'d', 'e', 'f', '\n'}, {},
        {'\0'},          {'\r', '\n', '\n'},    byteVec_t(everyByte.begin(), everyByte.end())};
    log = {"of before"};
    agent.getRunLog(log);
    EXPECT_THAT(log, ElementsAre("abc", "def\n", "", std::string(1, '\0'), "\r\n\n", everyByte));
}

TEST_F(VKAClientGetRunLog, forgetsTheOutputButNotItsCount) {
    agent.bufChild2Conn = {{'a', 'b', 'c'}};
    agent.bufConn2Child = {'i'};
    agent.bufsize = 77;
    agent.getRunLog(log);
    EXPECT_TRUE(agent.bufChild2Conn.empty());
    EXPECT_EQ(agent.bufsize, 77u);
    EXPECT_EQ(agent.bufConn2Child, byteVec_t{'i'});
    agent.getRunLog(log);
    EXPECT_THAT(log, IsEmpty());
}

TEST_F(VKAClientGetRunLog, writesNothingAndStaysInItsDirectory) {
    agent.bufChild2Conn = {{'a'}};
    agent.getRunLog(log);
    EXPECT_EQ(sink.out() + sink.err(), "");
    EXPECT_EQ(chdirFault.calls(), 0);
}

class VKAClientCreateFile : public SourceDirectoryTest {
protected:
    void expectLink(const std::string& name) {
        std::error_code error;
        EXPECT_EQ(std::filesystem::read_symlink(source(name), error),
                  "/opt/quorvel/share/vka/" + name);
    }
};

TEST_F(VKAClientCreateFile, linksToTheDataDirectory) {
    agent.createFile("nothing-of-this-name");
    expectLink("nothing-of-this-name");
    EXPECT_EQ(std::filesystem::current_path(), srcdir());
    EXPECT_EQ(sink.out() + sink.err(), "");
}

TEST_F(VKAClientCreateFile, replacesWhatHasTheName) {
    agent.createFile("config");
    agent.createFile("config");
    expectLink("config");
    dir.makeFile("src/file", "content");
    agent.createFile("file");
    expectLink("file");
}

TEST_F(VKAClientCreateFile, replacesALinkAndNotItsTarget) {
    const std::string target = dir.makeFile("target", "content");
    std::filesystem::create_symlink(target, source("config"));
    agent.createFile("config");
    expectLink("config");
    EXPECT_EQ(contentOf(target), "content");
}

TEST_F(VKAClientCreateFile, failsWithoutTheDirectory) {
    std::filesystem::remove(srcdir());
    expectFailure([&] { agent.createFile("config"); }, ENOENT, "cannto chdir to " + srcdir());
    EXPECT_EQ(unlinkFault.calls(), 0);
}

TEST_F(VKAClientCreateFile, failsWhereTheOldFileCannotBeRemoved) {
    dir.makeDir("src/config");
    expectFailure([&] { agent.createFile("config"); }, EISDIR, "cannot remove old config");
    EXPECT_EQ(symlinkFault.calls(), 0);
    for (int err : {EACCES, EBUSY, EROFS, ENOTDIR}) {
        unlinkFault.failAt(1, err);
        expectFailure([&] { agent.createFile("config"); }, err, "cannot remove old config");
    }
    EXPECT_EQ(symlinkFault.calls(), 0);
}

TEST_F(VKAClientCreateFile, failsWhereTheLinkCannotBeMade) {
    for (int err : {EACCES, EEXIST, ENOSPC}) {
        symlinkFault.failAt(1, err);
        expectFailure([&] { agent.createFile("a-configuration-file.h"); }, err,
                      "cannot create symlink to a-configuration-file.h");
    }
    expectFailure([&] { agent.createFile("no/such/directory"); }, ENOENT,
                  "cannot create symlink to no/such/directory");
}

} // namespace
