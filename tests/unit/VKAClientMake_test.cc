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

#include <cstdio>
#include <optional>
#include <spawn.h>
#include <sys/wait.h>
#include <typeinfo>

using namespace vkatest;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {
Fault pipeFault, spawnFault, waitFault;
std::optional<int> waitStatus; // what waitpid() tells in place of the truth
} // namespace

VKA_WRAP(pipeFault, int, pipe2, (int fds[2], int flags), (fds, flags), -1)
VKA_WRAP(spawnFault, int, posix_spawn,
         (pid_t * pid, const char* path, const posix_spawn_file_actions_t* actions,
          const posix_spawnattr_t* attr, char* const argv[], char* const envp[]),
         (pid, path, actions, attr, argv, envp), spawnFault.number())

extern "C" {
pid_t __real_waitpid(pid_t pid, int* status, int flags);
pid_t __wrap_waitpid(pid_t pid, int* status, int flags);
pid_t __wrap_waitpid(pid_t pid, int* status, int flags) {
    const pid_t ret = __real_waitpid(pid, status, flags);
    if (ret <= 0 || !status)
        return ret;
    if (waitFault.hit())
        return -1;
    if (waitStatus)
        *status = *waitStatus;
    return ret;
}
}

namespace {

/** The whole command line, with what stands behind the Makefile. */
std::string commandLine(const std::string& arguments) {
    return "make -f /opt/quorvel/share/vka/Makefile" + arguments +
           " BIN=/tmp/vkabin VKAQVLIBDIR=\"/opt/quorvel\" VKALIBSUBDIR=\"lib\" "
           "VKADATADIR=\"/opt/quorvel/share/vka\" "
           "VKACPPFLAGS=\"-DBOOST_FILESYSTEM_VERSION=3 -DBOOST_NO_SCOPED_ENUMS "
           "-DBOOST_NO_CXX11_SCOPED_ENUMS -D_ATFILE_SOURCE -DHAVE_CONFIG_H -I/opt/quorvel/include "
           "-D__STDC_LIMIT_MACROS -D__STDC_CONSTANT_MACROS -D__STDC_FORMAT_MACROS "
           "-D_POSIX_THREADS -D_POSIX_THREAD_SAFE_FUNCTIONS -D_REENTRANT "
           "-D_GLIBCXX_USE_NANOSLEEP\" "
           "VKACFLAGS=\"-O2 -g -march=armv7-a -mfloat-abi=hard -mthumb -mabi=aapcs-linux -pipe  "
           "-O3 -Wp,-D_FORTIFY_SOURCE=2 -Wall -Werror -Wformat -Wformat-security "
           "-Wignored-qualifiers -Wlogical-op -Wmissing-include-dirs -Wpointer-arith -Wundef "
           "-Wuninitialized\" "
           "VKACXXFLAGS=\"-O2 -g -march=armv7-a -mfloat-abi=hard -mthumb -mabi=aapcs-linux "
           "-std=c++11 -pipe -fno-implement-inlines  -O3 -Wp,-D_FORTIFY_SOURCE=2 -Wall -Werror "
           "-Wformat -Wformat-security -Wignored-qualifiers -Wlogical-op -Wmissing-include-dirs "
           "-Wpointer-arith -Wundef -Wuninitialized\" "
           "VKALDFLAGS=\" -L/opt/quorvel/lib\" "
           "VKAMAKEFILE=\"/opt/quorvel/share/vka/Makefile\" 2>&1";
}

/** The words that make sees, but for the Makefile's and the caller's. */
const char words[] =
    " <BIN=/tmp/vkabin> <VKAQVLIBDIR=/opt/quorvel> <VKALIBSUBDIR=lib> "
    "<VKADATADIR=/opt/quorvel/share/vka> "
    "<VKACPPFLAGS=-DBOOST_FILESYSTEM_VERSION=3 -DBOOST_NO_SCOPED_ENUMS "
    "-DBOOST_NO_CXX11_SCOPED_ENUMS -D_ATFILE_SOURCE -DHAVE_CONFIG_H -I/opt/quorvel/include "
    "-D__STDC_LIMIT_MACROS -D__STDC_CONSTANT_MACROS -D__STDC_FORMAT_MACROS "
    "-D_POSIX_THREADS -D_POSIX_THREAD_SAFE_FUNCTIONS -D_REENTRANT "
    "-D_GLIBCXX_USE_NANOSLEEP> "
    "<VKACFLAGS=-O2 -g -march=armv7-a -mfloat-abi=hard -mthumb -mabi=aapcs-linux -pipe  "
    "-O3 -Wp,-D_FORTIFY_SOURCE=2 -Wall -Werror -Wformat -Wformat-security "
    "-Wignored-qualifiers -Wlogical-op -Wmissing-include-dirs -Wpointer-arith -Wundef "
    "-Wuninitialized> "
    "<VKACXXFLAGS=-O2 -g -march=armv7-a -mfloat-abi=hard -mthumb -mabi=aapcs-linux "
    "-std=c++11 -pipe -fno-implement-inlines  -O3 -Wp,-D_FORTIFY_SOURCE=2 -Wall -Werror "
    "-Wformat -Wformat-security -Wignored-qualifiers -Wlogical-op -Wmissing-include-dirs "
    "-Wpointer-arith -Wundef -Wuninitialized> "
    "<VKALDFLAGS= -L/opt/quorvel/lib> <VKAMAKEFILE=/opt/quorvel/share/vka/Makefile>";

class VKAClientMake : public testing::Test {
protected:
    VKAClientMake() : agent("/w", false, 0, 0, "", 0) {
        commands.define("make", "");
        waitStatus.reset();
        for (Fault* fault : {&pipeFault, &spawnFault, &waitFault})
            fault->disarm();
        sink.clear();
    }
    ~VKAClientMake() override {
        waitStatus.reset();
        for (Fault* fault : {&pipeFault, &spawnFault, &waitFault})
            fault->disarm();
    }

    /** The log of a call with the given results, but for the errno of a success. */
    void expectLog(const std::string& command, int ret, int exitStatus, size_t logged,
                   int err = -1) {
        const std::string info = infoLine("make", "call: " + command);
        const std::string start =
            info + "[DEBUG] VKAClient::make() getCmdCallOutput: ret=" + std::to_string(ret) +
            " WEXITSTATUS=" + std::to_string(exitStatus) + " errno=";
        const std::string end = " _log.size()=" + std::to_string(logged) + '\n';
        const std::string out = sink.out();
        ASSERT_EQ(out.substr(0, start.size()), start);
        size_t digits = 0;
        const int printed = std::stoi(out.substr(start.size()), &digits);
        EXPECT_EQ(out.substr(start.size() + digits), end);
        EXPECT_GE(printed, 0);
        EXPECT_TRUE(err == -1 || printed == err) << printed;
        EXPECT_EQ(sink.err(), "");
        EXPECT_EQ(sink.unlocked(), "");
        EXPECT_EQ(sink.unflushed(), "");
    }

    Commands commands;
    Log sink;
    Agent agent;
    VKAClient::args_t log;
};

TEST_F(VKAClientMake, callsMakeWithTheFixedWords) {
    agent.make(log, {"-j", "2"});
    const std::string cwd = std::filesystem::current_path();
    EXPECT_EQ(commands.calls(), "make <-f> </opt/quorvel/share/vka/Makefile> <-j> <2>" +
                                    std::string(words) + " in " + cwd + '\n');
    expectLog(commandLine(" -j 2"), 0, 0, 0);
    EXPECT_THAT(log, IsEmpty());
}

TEST_F(VKAClientMake, leavesSingleBlanksWithoutArguments) {
    agent.make(log, {});
    expectLog(commandLine(""), 0, 0, 0);
}

TEST_F(VKAClientMake, putsArgumentsInUnquoted) {
    setenv("VKA_TEST_VARIABLE", "expanded", 1);
    const struct {
        VKAClient::args_t arguments;
        const char *text, *words;
    } rows[] = {
        {{"a b"}, " a b", " <a> <b>"},
        {{"'a b'"}, " 'a b'", " <a b>"},
        {{""}, " ", ""},
        {{"", ""}, "  ", ""},
        {{"x", "", "y"}, " x  y", " <x> <y>"},
        {{"$VKA_TEST_VARIABLE"}, " $VKA_TEST_VARIABLE", " <expanded>"},
        {{"$(echo sub)"}, " $(echo sub)", " <sub>"},
        {{"\\*"}, " \\*", " <*>"},
        {{"-k", "all"}, " -k all", " <-k> <all>"},
    };
    std::string expected;
    for (const auto& row : rows) {
        sink.clear();
        agent.make(log, row.arguments);
        expectLog(commandLine(row.text), 0, 0, 0);
        expected += "make <-f> </opt/quorvel/share/vka/Makefile>" + std::string(row.words) + words +
                    " in " + std::filesystem::current_path().string() + '\n';
    }
    EXPECT_EQ(commands.calls(), expected);
    unsetenv("VKA_TEST_VARIABLE");
}

TEST_F(VKAClientMake, takesNoVariableFromTheEnvironment) {
    const char* const names[] = {"BIN",         "VKAQVLIBDIR", "VKALIBSUBDIR",
                                 "VKADATADIR",  "VKACPPFLAGS", "VKACFLAGS",
                                 "VKACXXFLAGS", "VKALDFLAGS",  "VKAMAKEFILE"};
    for (const char* name : names)
        setenv(name, "of the environment", 1);
    agent.make(log, {});
    for (const char* name : names)
        unsetenv(name);
    expectLog(commandLine(""), 0, 0, 0);
    EXPECT_NE(commands.calls().find(words), std::string::npos);
}

TEST_F(VKAClientMake, doesNotLookAtTheLevel) {
    for (unsigned int debug : {0u, 1u, 2u, 3u}) {
        agent.debug = debug;
        sink.clear();
        agent.make(log, {});
        expectLog(commandLine(""), 0, 0, 0);
    }
    agent.debug = 0;
}

TEST_F(VKAClientMake, appendsOutputAndErrorsWithoutEmptyLines) {
    commands.define("make", "echo out; echo; echo err >&2; printf '\\n\\nlast'");
    log = {"of before", ""};
    agent.make(log, {});
    EXPECT_THAT(log, ElementsAre("of before", "", "out", "err", "last"));
    expectLog(commandLine(""), 0, 0, 5);
}

TEST_F(VKAClientMake, runsInTheWorkingDirectory) {
    const WorkingDirectory before;
    const TempDir dir;
    std::filesystem::current_path(dir.path());
    agent.make(log, {});
    EXPECT_NE(commands.calls().find(" in " + dir.path() + '\n'), std::string::npos);
    EXPECT_EQ(std::filesystem::current_path(), dir.path());
}

TEST_F(VKAClientMake, failsForEveryExitStatusButZero) {
    for (int code = 1; code < 256; ++code) {
        commands.define("make", "echo output; exit " + std::to_string(code));
        sink.clear();
        log = {"of before"};
        try {
            agent.make(log, {"-j", "1"});
            ADD_FAILURE() << "status " << code << " passed";
        } catch (const QVException& e) {
            EXPECT_EQ(typeid(e), typeid(QVException));
            EXPECT_STREQ(e.what(), "make error");
        }
        EXPECT_THAT(log, ElementsAre("of before", "output"));
        expectLog(commandLine(" -j 1"), code << 8, code, 2);
    }
}

/** Of the status only the byte of the exit code counts. */
TEST_F(VKAClientMake, passesWhenASignalEndedIt) {
    for (int signo = 1; signo < 127; ++signo) {
        for (int dumped : {0, 0x80}) {
            waitStatus = signo | dumped;
            sink.clear();
            EXPECT_NO_THROW(agent.make(log, {})) << *waitStatus;
            expectLog(commandLine(""), *waitStatus, 0, 0);
        }
    }
}

TEST_F(VKAClientMake, failsWithItsOwnNumberWhenItCannotBeRun) {
    const struct {
        Fault* fault;
        int err;
    } rows[] = {{&pipeFault, EMFILE}, {&spawnFault, ENOMEM}, {&waitFault, ECHILD}};
    for (const auto& row : rows) {
        sink.clear();
        log = {"of before"};
        row.fault->failAt(1, row.err);
        try {
            agent.make(log, {});
            ADD_FAILURE() << "passed";
        } catch (const IOException& e) {
            EXPECT_EQ(e.getError(), row.err);
            EXPECT_STREQ(e.what(), IOException(row.err, "cannot call make").what());
        }
        EXPECT_THAT(log, ElementsAre("of before"));
        expectLog(commandLine(""), -1, 255, 1, row.err);
        row.fault->disarm();
    }
}

TEST_F(VKAClientMake, keepsOutputOfACallWhoseStatusIsLost) {
    commands.define("make", "echo output");
    waitFault.failAt(1, ECHILD);
    EXPECT_THROW(agent.make(log, {}), IOException);
    EXPECT_THAT(log, ElementsAre("output"));
}

TEST_F(VKAClientMake, failsLikeTheShellWithoutAnyMake) {
    const std::string path = getenv("PATH");
    setenv("PATH", "/nonexistent", 1);
    EXPECT_THROW(agent.make(log, {}), QVException);
    setenv("PATH", path.c_str(), 1);
    expectLog(commandLine(""), 127 << 8, 127, 1);
    EXPECT_EQ(log.size(), 1u);
}

} // namespace
