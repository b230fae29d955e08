// SPDX-License-Identifier: MIT
// Included by files that are compiled with different options, each defining its FDSET_SUITE.
#include <libqvio/FdSet>

#include <gtest/gtest.h>

#include <climits>
#include <csignal>
#include <string>

namespace {

/** Descriptors beside the set, the nearest and the farthest. */
const int outside[] = {-1, INT_MIN, FD_SETSIZE, FD_SETSIZE + 1, INT_MAX};
const int tooHigh[] = {FD_SETSIZE, FD_SETSIZE + 1, INT_MAX};

template <typename Operation>
void expectEnd(int fd, Operation operation) {
    SCOPED_TRACE(fd);
    EXPECT_EXIT(operation(fd), testing::KilledBySignal(SIGABRT),
                "^\\*\\*\\* FdSet: descriptor " + std::to_string(fd) + " outside 0 to " +
                    std::to_string(FD_SETSIZE - 1) + " \\*\\*\\*: terminated\n");
}

template <typename Operation>
void expectEndOutside(Operation operation) {
    for (int fd : outside)
        expectEnd(fd, operation);
}

} // namespace

TEST(FDSET_SUITE, IsSetEndsTheProcess) {
    expectEndOutside([](int fd) { FdSet().isSet(fd); });
}

TEST(FDSET_SUITE, AddingEndsTheProcess) {
    expectEndOutside([](int fd) { FdSet() += fd; });
}

TEST(FDSET_SUITE, RemovingEndsTheProcess) {
    expectEndOutside([](int fd) { FdSet() -= fd; });
}

TEST(FDSET_SUITE, AddingAListEndsTheProcess) {
    expectEndOutside([](int fd) { FdSet() += {1, fd}; });
}

TEST(FDSET_SUITE, RemovingAListEndsTheProcess) {
    expectEndOutside([](int fd) { FdSet() -= {1, fd}; });
}

TEST(FDSET_SUITE, AssigningEndsTheProcess) {
    expectEndOutside([](int fd) { FdSet() = fd; });
}

TEST(FDSET_SUITE, AssigningAListEndsTheProcess) {
    expectEndOutside([](int fd) { FdSet() = {fd, 1}; });
}

TEST(FDSET_SUITE, ConstructionEndsTheProcess) {
    expectEndOutside([](int fd) { static_cast<void>(FdSet(fd)); });
}

TEST(FDSET_SUITE, ConstructionFromAListEndsTheProcess) {
    expectEndOutside([](int fd) { static_cast<void>(FdSet{1, fd}); });
}

TEST(FDSET_SUITE, TooHighADescriptorEndsTheProcessInTheLenientTests) {
    for (int fd : tooHigh) {
        expectEnd(fd, [](int tested) { FdSet().isActiveAndSet(tested); });
        expectEnd(fd, [](int tested) { FdSet()[tested]; });
    }
}

TEST(FDSET_SUITE, NegativeDescriptorIsInNoSet) {
    FdSet all;
    for (int fd = 0; fd < FD_SETSIZE; ++fd)
        all += fd;
    for (int fd : {-1, -2, -64, -1024, INT_MIN}) {
        EXPECT_FALSE(all.isActiveAndSet(fd));
        EXPECT_FALSE(all[fd]);
    }
}

TEST(FDSET_SUITE, LowestAndHighestDescriptorAreInRange) {
    FdSet set{0, FD_SETSIZE - 1};
    EXPECT_TRUE(set.isSet(0));
    EXPECT_TRUE(set.isSet(FD_SETSIZE - 1));
    EXPECT_TRUE(set.isActiveAndSet(FD_SETSIZE - 1));
    set -= FD_SETSIZE - 1;
    EXPECT_FALSE(set.isSet(FD_SETSIZE - 1));
}
