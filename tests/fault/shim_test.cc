// SPDX-License-Identifier: MIT
// The shim itself: what it disturbs, and that it does nothing else. Runs this program again below
// it.
#include "tests/support/descriptors.h"
#include "tests/support/tempdir.h"
#include "tests/support/transfer.h"
#include "tests/support/wait.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/wait.h>

using namespace vkatest;

namespace {

std::string thisProgram() {
    return std::filesystem::read_symlink("/proc/self/exe");
}

/** What this program prints as a probe below the shim; see main(). */
std::string probe(const std::string& mode, const std::string& directory,
                  const std::string& variables = "") {
    return popenOf("LD_PRELOAD='" SHIM "' VKA_SHIM=" + mode + " VKA_SHIM_BELOW='" + directory +
                   "' " + variables + " '" + thisProgram() + "' --probe")
        .second;
}

std::string ownDirectory() {
    return std::filesystem::path(thisProgram()).parent_path();
}

const char undisturbed[] = "socket 4 read 4 readv 3 recv 4 pipe 4 file 4\n"
                           "parent 0 child 0\nin the environment: \n";

TEST(Shim, bytesEndTransfersAfterOneExceptWhereAllIsPromised) {
    EXPECT_EQ(probe("bytes", ownDirectory()), "socket 1 read 1 readv 1 recv 1 pipe 4 file 4\n"
                                              "parent 0 child 0\nin the environment: \n");
}

TEST(Shim, signalsInterruptWhatWaitsInChildrenToo) {
    EXPECT_EQ(probe("signals", ownDirectory()), "socket 4 read 4 readv 3 recv 4 pipe 4 file 4\n"
                                                "parent 1 child 1\nin the environment: \n");
}

TEST(Shim, leavesProgramsElsewhereAlone) {
    for (const char* mode : {"bytes", "signals"}) {
        const std::string printed = probe(mode, ownDirectory() + "/below");
        EXPECT_EQ(printed.substr(0, printed.find("in the")),
                  std::string(undisturbed).substr(0, std::string(undisturbed).find("in the")));
        EXPECT_NE(printed.find(SHIM), std::string::npos) << "for the programs that they start";
    }
}

TEST(Shim, countsWhatItHasDone) {
    const TempDir dir;
    const std::string count = "VKA_SHIM_COUNT='" + (dir / "count") + '\'';
    unsigned long cut = 0, interrupted = 0;
    probe("bytes", ownDirectory(), count);
    ASSERT_EQ(sscanf(contentOf(dir / "count").c_str(),
                     "shim_test: %lu transfers cut, %lu calls interrupted\n", &cut, &interrupted),
              2);
    EXPECT_EQ(cut, 16u);
    EXPECT_EQ(interrupted, 0u);

    std::filesystem::remove(dir / "count");
    probe("signals", ownDirectory(), count);
    ASSERT_EQ(sscanf(contentOf(dir / "count").c_str(),
                     "shim_test: %lu transfers cut, %lu calls interrupted\n", &cut, &interrupted),
              2);
    EXPECT_EQ(cut, 0u);
    EXPECT_GE(interrupted, 2u);
}

/** Waits in vain. @return whether a signal ended that, not the time */
bool isInterrupted() {
    return poll(nullptr, 0, 100) == -1 && errno == EINTR;
}

void probeTransfers() {
    int sockets[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, sockets) == -1)
        abort();
    const Fd near(sockets[0]), far(sockets[1]);
    const Pipe pipe;
    const TempDir dir;
    const Fd file(open((dir / "file").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    char data[8], more[8];
    const iovec vector[] = {{data, 1}, {data, 0}, {more, 2}};
    printf("socket %zd ", write(near.get(), "data", 4));
    if (!writeAll(near.get(), "data data data"))
        abort();
    printf("read %zd ", read(far.get(), data, 4));
    printf("readv %zd ", readv(far.get(), vector, 3));
    printf("recv %zd ", recv(far.get(), data, 4, 0));
    printf("pipe %zd ", write(pipe.writeEnd.get(), "data", 4));
    printf("file %zd\n", write(file.get(), "data", 4));
}

void probeWaits() {
    const bool parent = isInterrupted();
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        signal(SIGURG, SIG_DFL); // as for every signal in a child of the host
        _exit(isInterrupted() ? 1 : 0);
    }
    int status = 0;
    uninterrupted([&] { return waitpid(pid, &status, 0); });
    printf("parent %d child %d\n", parent, WEXITSTATUS(status));
}

void probeEnvironment() {
    std::string found;
    for (const char* name : {"LD_PRELOAD", "VKA_SHIM", "VKA_SHIM_BELOW", "VKA_SHIM_COUNT"}) {
        if (const char* value = getenv(name))
            found += value;
    }
    printf("in the environment: %s\n", found.c_str());
}

} // namespace

int main(int argc, char* argv[]) {
    if (argc == 2 && std::string(argv[1]) == "--probe") {
        probeTransfers();
        probeWaits();
        probeEnvironment();
        return 0;
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
