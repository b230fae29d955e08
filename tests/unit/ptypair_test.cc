// SPDX-License-Identifier: MIT
#include <libqvio/ptypair>

#include "tests/support/child.h"
#include "tests/support/descriptors.h"
#include "tests/support/sandbox.h"
#include "tests/support/transfer.h"
#include "tests/support/variants.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <termios.h>

using vkatest::Child;
using vkatest::Fault;
using vkatest::Fd;
using vkatest::openDescriptors;

namespace {

Fault openptFault, grantFault, unlockFault, nameFault, openFault;
int masterFlags = 0;

struct Pair {
    explicit Pair(int flags = O_RDWR) {
        int m = -1, s = -1;
        result = openPtyPair(m, s, flags);
        master.reset(m);
        slave.reset(s);
    }
    int result;
    Fd master, slave;
};

class OpenPtyPair : public testing::Test {
protected:
    void SetUp() override { openBefore = openDescriptors(); }
    void TearDown() override {
        for (Fault* fault : {&openptFault, &grantFault, &unlockFault, &nameFault, &openFault})
            fault->disarm();
        EXPECT_EQ(openBefore, openDescriptors()) << "descriptors left open";
    }

private:
    std::set<int> openBefore;
};

} // namespace

VKA_WRAP((masterFlags = flags, openptFault), int, posix_openpt, (int flags), (flags), -1)
VKA_WRAP(grantFault, int, grantpt, (int fd), (fd), -1)
VKA_WRAP(unlockFault, int, unlockpt, (int fd), (fd), -1)
VKA_WRAP(nameFault, int, ptsname_r, (int fd, char* name, size_t size), (fd, name, size),
         nameFault.number())
VKA_WRAP(nameFault, int, __ptsname_r_chk, (int fd, char* name, size_t size, size_t room),
         (fd, name, size, room), nameFault.number())
VKA_WRAP_OPEN(openFault)

TEST_F(OpenPtyPair, OpensBothSidesOfOneTerminal) {
    const Pair pair;
    ASSERT_EQ(0, pair.result);
    ASSERT_NE(pair.master.get(), pair.slave.get());
    char ofMaster[64], ofSlave[64];
    ASSERT_EQ(0, ptsname_r(pair.master.get(), ofMaster, sizeof(ofMaster)));
    ASSERT_EQ(0, ttyname_r(pair.slave.get(), ofSlave, sizeof(ofSlave)));
    EXPECT_STREQ(ofMaster, ofSlave);
    EXPECT_EQ(O_RDWR, fcntl(pair.master.get(), F_GETFL) & O_ACCMODE);
    EXPECT_EQ(O_RDWR, fcntl(pair.slave.get(), F_GETFL) & O_ACCMODE);
}

TEST_F(OpenPtyPair, BytesTravelBothWays) {
    const Pair pair;
    termios attrs;
    ASSERT_EQ(0, tcgetattr(pair.master.get(), &attrs));
    cfmakeraw(&attrs);
    ASSERT_EQ(0, tcsetattr(pair.master.get(), TCSANOW, &attrs));
    std::string bytes;
    for (int value = 0; value < 256; ++value)
        bytes.push_back(static_cast<char>(value));

    ASSERT_TRUE(vkatest::writeAll(pair.master.get(), bytes));
    EXPECT_EQ(bytes, vkatest::readAll(pair.slave.get(), bytes.size()));
    ASSERT_TRUE(vkatest::writeAll(pair.slave.get(), bytes));
    EXPECT_EQ(bytes, vkatest::readAll(pair.master.get(), bytes.size()));
}

TEST_F(OpenPtyPair, AttributesAreTheKernelsDefaults) {
    const Pair pair;
    termios attrs;
    ASSERT_EQ(0, tcgetattr(pair.slave.get(), &attrs));
    const tcflag_t local = ICANON | ECHO | ISIG | IEXTEN;
    EXPECT_EQ(local, attrs.c_lflag & local);
    EXPECT_NE(0u, attrs.c_oflag & OPOST);
    EXPECT_NE(0u, attrs.c_iflag & ICRNL);
}

TEST_F(OpenPtyPair, EachCallOpensANewTerminal) {
    const Pair one, two;
    char ofOne[64], ofTwo[64];
    ASSERT_EQ(0, ptsname_r(one.master.get(), ofOne, sizeof(ofOne)));
    ASSERT_EQ(0, ptsname_r(two.master.get(), ofTwo, sizeof(ofTwo)));
    EXPECT_STRNE(ofOne, ofTwo);
}

TEST_F(OpenPtyPair, IsInheritedUnlessCloseOnExecIsAskedFor) {
    for (int cloexec : {0, O_CLOEXEC}) {
        const Pair pair(O_RDWR | cloexec);
        const int expected = cloexec ? FD_CLOEXEC : 0;
        EXPECT_EQ(expected, fcntl(pair.master.get(), F_GETFD) & FD_CLOEXEC);
        EXPECT_EQ(expected, fcntl(pair.slave.get(), F_GETFD) & FD_CLOEXEC);
    }
}

TEST_F(OpenPtyPair, NeverBecomesTheControllingTerminal) {
    Child child = Child::run([] {
        signal(SIGHUP, SIG_IGN); // comes when a controlling terminal goes
        if (setsid() == -1)
            return 1;
        const Pair pair;
        if (pair.result != 0)
            return 2;
        if (open("/dev/tty", O_RDWR) != -1 || errno != ENXIO)
            return 3;
        // Opened without that care, the same terminal does become it.
        char name[64];
        ptsname_r(pair.master.get(), name, sizeof(name));
        const Fd careless(open(name, O_RDWR)), tty(open("/dev/tty", O_RDWR));
        return tty.get() != -1 ? 0 : 4;
    });
    EXPECT_EQ(0, child.exitCode());
    const Pair pair;
    EXPECT_EQ(O_RDWR | O_NOCTTY, masterFlags);
}

TEST_F(OpenPtyPair, EachFailingStepIsReported) {
    for (Fault* fault : {&openptFault, &grantFault, &unlockFault, &nameFault, &openFault}) {
        for (int err : {ENOSPC, EACCES, EMFILE, ERANGE}) {
            const std::set<int> before = openDescriptors();
            int master = 111, slave = 222;
            fault->failAt(1, err);
            errno = 0;
            EXPECT_EQ(-1, openPtyPair(master, slave, O_RDWR));
            EXPECT_EQ(err, errno);
            EXPECT_EQ(1, fault->failures());
            EXPECT_EQ(111, master);
            EXPECT_EQ(222, slave);
            EXPECT_EQ(before, openDescriptors());
            fault->disarm();
            EXPECT_EQ(0, Pair().result);
        }
    }
}

TEST_F(OpenPtyPair, ReportsThatNoTerminalIsFree) {
    Child child = Child::run([] {
        if (!vkatest::enterNamespaces(CLONE_NEWNS) ||
            mount("devpts", "/dev/pts", "devpts", 0, "newinstance,ptmxmode=0666,max=1") == -1)
            return 1;
        if (access("/dev/ptmx", R_OK | W_OK) == -1)
            return 2;
        const Pair only;
        if (only.result != 0)
            return 3;
        int master = 111, slave = 222;
        if (openPtyPair(master, slave, O_RDWR) != -1 || errno != ENOSPC)
            return 4;
        return master == 111 && slave == 222 ? 0 : 5;
    });
    EXPECT_EQ(0, child.exitCode());
}
