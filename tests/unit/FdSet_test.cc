// SPDX-License-Identifier: MIT
#include <libqvio/fileutils>

#include "tests/support/descriptors.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <type_traits>
#include <utility>

namespace {

static_assert(std::is_trivially_copyable<FdSet>::value, "a plain value");
static_assert(std::is_trivially_destructible<FdSet>::value, "no destructor of its own");
static_assert(!std::is_polymorphic<FdSet>::value, "no virtual operations");
static_assert(std::is_base_of<fd_set, FdSet>::value, "");
static_assert(!std::is_convertible<FdSet*, fd_set*>::value, "inherited privately");
static_assert(sizeof(FdSet) <= sizeof(fd_set) + sizeof(long), "the bits and one int");

FdSet lvalue;
static_assert(std::is_same<const FdSet&, decltype(lvalue = 1)>::value, "");
static_assert(std::is_same<const FdSet&, decltype(lvalue = {1, 2})>::value, "");
static_assert(std::is_same<const FdSet&, decltype(lvalue += 1)>::value, "");
static_assert(std::is_same<const FdSet&, decltype(lvalue += {1, 2})>::value, "");
static_assert(std::is_same<const FdSet&, decltype(lvalue -= 1)>::value, "");
static_assert(std::is_same<const FdSet&, decltype(lvalue -= {1, 2})>::value, "");
static_assert(std::is_same<void, decltype(lvalue.zero())>::value, "");
static_assert(std::is_same<void, decltype(lvalue.clear())>::value, "");
static_assert(std::is_same<bool, decltype(std::as_const(lvalue).isSet(1))>::value, "");
static_assert(std::is_same<bool, decltype(std::as_const(lvalue).isActiveAndSet(1))>::value, "");
static_assert(std::is_same<bool, decltype(std::as_const(lvalue)[1])>::value, "");
static_assert(std::is_same<fd_set*, decltype(lvalue.addr())>::value, "");
static_assert(std::is_same<int, decltype(std::as_const(lvalue).num())>::value, "");
static_assert(std::is_same<int, decltype(std::as_const(lvalue).num(FdSet()))>::value, "");

template <typename Set, typename = decltype(Set::n)>
constexpr bool countIsPublic(int) {
    return true;
}
template <typename Set>
constexpr bool countIsPublic(...) {
    return false;
}
template <typename Set, typename = decltype(Set::check("", 0))>
constexpr bool checkIsPublic(int) {
    return true;
}
template <typename Set>
constexpr bool checkIsPublic(...) {
    return false;
}
static_assert(!countIsPublic<FdSet>(0), "");
static_assert(!checkIsPublic<FdSet>(0), "");

/** Reaches what is protected. */
class Derived : public FdSet {
public:
    using FdSet::operator+=;
    int count() const { return n; }
    static void callCheck(int fd) { check("operator+=", fd); }
};

/** Are exactly these descriptors in the set, by every test of membership? */
testing::AssertionResult holds(const FdSet& set, const std::vector<int>& expected) {
    FdSet copy(set);
    for (int fd = 0; fd < FD_SETSIZE; ++fd) {
        const bool is = std::find(expected.begin(), expected.end(), fd) != expected.end();
        if (set.isSet(fd) != is || set.isActiveAndSet(fd) != is || set[fd] != is ||
            (FD_ISSET(fd, copy.addr()) != 0) != is)
            return testing::AssertionFailure() << "descriptor " << fd << (is ? " missing" : " in");
    }
    return testing::AssertionSuccess();
}

} // namespace

TEST(FdSet, StartsEmptyWhateverMemoryHeldBefore) {
    alignas(FdSet) unsigned char memory[sizeof(FdSet)];
    memset(memory, 0xff, sizeof(memory));
    const FdSet* set = new (memory) FdSet;
    EXPECT_TRUE(holds(*set, {}));
    EXPECT_EQ(0, set->num());
}

TEST(FdSet, IsBuiltFromDescriptors) {
    const FdSet one(7), list{7, 3, 7}, none(std::initializer_list<int>{});
    EXPECT_TRUE(holds(one, {7}));
    EXPECT_EQ(8, one.num());
    EXPECT_TRUE(holds(list, {3, 7}));
    EXPECT_EQ(8, list.num());
    EXPECT_TRUE(holds(none, {}));
    EXPECT_EQ(0, none.num());
}

TEST(FdSet, IsBuiltFromDescriptorsWhateverMemoryHeldBefore) {
    alignas(FdSet) unsigned char memory[sizeof(FdSet)];
    memset(memory, 0xff, sizeof(memory));
    EXPECT_TRUE(holds(*new (memory) FdSet(0), {0}));
    memset(memory, 0xff, sizeof(memory));
    EXPECT_TRUE(holds(*new (memory) FdSet{5, 6}, {5, 6}));
}

TEST(FdSet, CountIsHighestPlusOne) {
    FdSet set;
    set += 0;
    EXPECT_EQ(1, set.num());
    set += 7;
    EXPECT_EQ(8, set.num());
    set += 3;
    EXPECT_EQ(8, set.num());
    EXPECT_TRUE(holds(set, {0, 3, 7}));
}

TEST(FdSet, AddingTwiceIsAddingOnce) {
    FdSet set;
    set += 5;
    set += 5;
    EXPECT_TRUE(holds(set, {5}));
    EXPECT_EQ(6, set.num());
    set -= 5;
    EXPECT_TRUE(holds(set, {}));
}

TEST(FdSet, EachDescriptorStandsForItself) {
    for (int fd = 0; fd < FD_SETSIZE; ++fd) {
        SCOPED_TRACE(fd);
        FdSet set;
        EXPECT_EQ(&set, &(set += fd));
        ASSERT_TRUE(holds(set, {fd}));
        ASSERT_EQ(fd + 1, set.num());
        EXPECT_EQ(&set, &(set -= fd));
        ASSERT_TRUE(holds(set, {}));
    }
}

TEST(FdSet, EachDescriptorIsRemovedAlone) {
    FdSet all;
    for (int fd = 0; fd < FD_SETSIZE; ++fd)
        all += fd;
    for (int removed = 0; removed < FD_SETSIZE; ++removed) {
        FdSet set(all);
        set -= removed;
        for (int fd = 0; fd < FD_SETSIZE; ++fd)
            ASSERT_EQ(fd != removed, set.isSet(fd)) << fd << " without " << removed;
    }
}

TEST(FdSet, CountForEveryPair) {
    for (int a = 0; a < FD_SETSIZE; ++a) {
        for (int b = 0; b < FD_SETSIZE; ++b) {
            FdSet set;
            set += a;
            set += b;
            ASSERT_EQ(std::max(a, b) + 1, set.num()) << a << ' ' << b;
        }
    }
}

TEST(FdSet, ListsAreAddedAndRemoved) {
    FdSet set;
    EXPECT_EQ(&set, &(set += {9, 2}));
    set += {};
    set += {4};
    EXPECT_TRUE(holds(set, {2, 4, 9}));
    EXPECT_EQ(10, set.num());
    EXPECT_EQ(&set, &(set -= {9, 4, 100}));
    set -= {};
    EXPECT_TRUE(holds(set, {2}));
    set -= {2};
    EXPECT_TRUE(holds(set, {}));
}

TEST(FdSet, RemovingKeepsTheCount) {
    FdSet set{3, 8};
    set -= 8;
    EXPECT_EQ(9, set.num());
    set -= {3};
    EXPECT_EQ(9, set.num());
    set -= 500;
    EXPECT_EQ(9, set.num());
}

TEST(FdSet, AssignmentReplacesTheContents) {
    FdSet set{1, 900};
    EXPECT_EQ(&set, &(set = 4));
    EXPECT_TRUE(holds(set, {4}));
    EXPECT_EQ(5, set.num());

    set = {6};
    EXPECT_TRUE(holds(set, {6}));
    EXPECT_EQ(7, set.num());

    EXPECT_EQ(&set, &(set = {8, 2}));
    EXPECT_TRUE(holds(set, {2, 8}));
    EXPECT_EQ(9, set.num());

    set = {};
    EXPECT_TRUE(holds(set, {}));
    EXPECT_EQ(0, set.num());
}

TEST(FdSet, ZeroAndClearEmpty) {
    FdSet set{0, 1023};
    set.zero();
    EXPECT_TRUE(holds(set, {}));
    EXPECT_EQ(0, set.num());

    set = {0, 1023};
    set.clear();
    EXPECT_TRUE(holds(set, {}));
    EXPECT_EQ(0, set.num());
}

TEST(FdSet, IsCopiedAsAValue) {
    FdSet set{2, 5};
    FdSet copy(set);
    copy += 9;
    EXPECT_TRUE(holds(set, {2, 5}));
    EXPECT_EQ(6, set.num());
    EXPECT_TRUE(holds(copy, {2, 5, 9}));
    EXPECT_EQ(10, copy.num());

    set = copy;
    copy.zero();
    EXPECT_TRUE(holds(set, {2, 5, 9}));
    EXPECT_EQ(10, set.num());
}

TEST(FdSet, CountCoversBothSets) {
    const FdSet low{3}, high{7}, none;
    EXPECT_EQ(8, low.num(high));
    EXPECT_EQ(8, high.num(low));
    EXPECT_EQ(8, high.num(high));
    EXPECT_EQ(8, high.num(none));
    EXPECT_EQ(8, none.num(high));
    EXPECT_EQ(0, none.num(none));
}

TEST(FdSet, SelectUsesTheRawSet) {
    vkatest::Pipe ready, silent;
    ASSERT_EQ(1, write(ready.writeEnd.get(), "x", 1));
    FdSet readers{ready.readEnd.get(), silent.readEnd.get()}, writers{silent.writeEnd.get()};
    ASSERT_EQ(2, select(readers.num(writers), readers.addr(), writers.addr(), nullptr, nullptr));
    EXPECT_TRUE(holds(readers, {ready.readEnd.get()}));
    EXPECT_TRUE(holds(writers, {silent.writeEnd.get()}));
}

TEST(FdSet, DerivedClassSeesCountAndCheck) {
    Derived set;
    EXPECT_EQ(0, set.count());
    set += 41;
    EXPECT_EQ(42, set.count());
}

TEST(FdSet, CheckDoesNothing) {
    for (int fd : {-1, 0, FD_SETSIZE})
        EXPECT_NO_THROW(Derived::callCheck(fd));
}
