// SPDX-License-Identifier: MIT
#include <libqvutil/QVException>

#include "tests/support/memory.h"

#include <gtest/gtest.h>

#include <iomanip>
#include <memory>
#include <type_traits>

using vkatest::Disarm;
using vkatest::memoryFault;

namespace {

const char* const longText = "longer than what a string holds inside itself, so it is on the heap";

static_assert(std::is_base_of<std::exception, QVException>::value, "");
static_assert(std::is_base_of<std::ostringstream, QVException>::value, "");
static_assert(std::is_convertible<QVException*, std::exception*>::value, "unambiguous");
static_assert(std::is_convertible<QVException*, std::ostream*>::value, "unambiguous");
static_assert(!std::is_convertible<const char*, QVException>::value, "explicit");
static_assert(std::has_virtual_destructor<QVException>::value, "");
static_assert(std::is_nothrow_destructible<QVException>::value, "");
static_assert(noexcept(std::declval<const QVException&>().what()), "");

} // namespace

TEST(QVException, GivesTheTextItWasBuiltFrom) {
    EXPECT_STREQ("make error", QVException("make error").what());
    EXPECT_STREQ("", QVException("").what());
    EXPECT_STREQ(longText, QVException(longText).what());
}

TEST(QVException, CopiesTheTextOfItsConstructor) {
    char text[] = "make error";
    const QVException e(text);
    text[0] = 'f';
    EXPECT_STREQ("make error", e.what());
}

TEST(QVException, AppendsBehindTheText) {
    QVException e("make error");
    e << " in " << std::hex << 255 << ' ' << std::setw(3) << 7 << std::endl;
    EXPECT_STREQ("make error in ff   7\n", e.what());
}

TEST(QVException, AppendsToAnEmptyText) {
    QVException e("");
    e << "make error";
    EXPECT_STREQ("make error", e.what());
}

TEST(QVException, AppendsBehindEachAnswer) {
    QVException e("a");
    EXPECT_STREQ("a", e.what());
    e << "b";
    EXPECT_STREQ("ab", e.what());
    e << "c";
    EXPECT_STREQ("abc", e.what());
}

TEST(QVException, KeepsTextBehindANulCharacter) {
    QVException e("make");
    e << '\0' << "error";
    EXPECT_STREQ("make", e.what());
    EXPECT_EQ(std::string("make\0error", 10), e.str());
    EXPECT_EQ(e.str(), QVException(e).str());
}

TEST(QVException, AnswerStaysWhereItIsWhileTheTextDoes) {
    const QVException e(longText);
    const char* const first = e.what();
    EXPECT_EQ(static_cast<const void*>(first), e.what());
    EXPECT_STREQ(longText, first);
}

TEST(QVException, AnswerOutlivesACopy) {
    QVException e(longText);
    const char* const answer = e.what();
    { QVException(e) << "more"; }
    EXPECT_STREQ(longText, answer);
}

TEST(QVException, IsCaughtAsException) {
    try {
        QVException e("make error");
        e << " in src";
        throw e;
    } catch (const std::exception& e) {
        EXPECT_STREQ("make error in src", e.what());
    }
}

TEST(QVException, IsCaughtAsOutputStream) {
    try {
        throw QVException("make error");
    } catch (std::ostream& os) {
        os << " in src";
        EXPECT_STREQ("make error in src", dynamic_cast<QVException&>(os).what());
    }
}

TEST(QVException, OutlivesItsThrow) {
    std::exception_ptr kept;
    try {
        throw QVException(longText);
    } catch (...) {
        kept = std::current_exception();
    }
    try {
        std::rethrow_exception(kept);
    } catch (const QVException& e) {
        EXPECT_STREQ(longText, e.what());
    }
}

TEST(QVException, CopyIsAtItsEnd) {
    QVException e("make");
    e << " error";
    QVException copy(e);
    copy << " in src";
    e << '!';
    EXPECT_STREQ("make error in src", copy.what());
    EXPECT_STREQ("make error!", e.what());

    QVException second(copy);
    second << " today";
    EXPECT_STREQ("make error in src today", second.what());
}

TEST(QVException, CopyOutlivesTheOriginal) {
    auto e = std::make_unique<QVException>(longText);
    e->what();
    const QVException copy(*e);
    e.reset();
    EXPECT_STREQ(longText, copy.what());
}

TEST(QVException, CopyHasAFreshStream) {
    QVException e("n=");
    e << std::hex << std::setfill('*');
    e.setstate(std::ios_base::badbit);
    QVException copy(e);
    EXPECT_TRUE(copy.good());
    copy << std::setw(3) << 16;
    EXPECT_STREQ("n= 16", copy.what());
}

TEST(QVException, AssignmentTakesTheTextAndIsAtItsEnd) {
    const QVException from("make error");
    for (const char* before : {"", "x", "a longer text than the other one"}) {
        QVException e(before);
        e.what();
        e = from;
        EXPECT_STREQ("make error", e.what());
        e << " in src";
        EXPECT_STREQ("make error in src", e.what());
        EXPECT_STREQ("make error", from.what());
    }
}

TEST(QVException, AssignmentOfAnEmptyTextEmpties) {
    QVException e("make error");
    e = QVException("");
    EXPECT_STREQ("", e.what());
    e << 'x';
    EXPECT_STREQ("x", e.what());
}

TEST(QVException, AssignmentMakesAFailedStreamGood) {
    QVException e("old");
    e.setstate(std::ios_base::badbit);
    e = QVException("new");
    e << "er";
    EXPECT_STREQ("newer", e.what());
}

TEST(QVException, AssignmentToItselfChangesNothing) {
    QVException e("make");
    e << " error";
    const QVException& same = e;
    e = same;
    e << '!';
    EXPECT_STREQ("make error!", e.what());
}

TEST(QVException, AssignmentReturnsTheObject) {
    QVException e("");
    EXPECT_EQ(&e, &(e = QVException("x")));
}

TEST(QVException, AnswersWithoutMemory) {
    const Disarm disarm(memoryFault());
    for (int number : {1, 2}) { // of an answer's allocations
        QVException asked(longText);
        const QVException never(longText);
        asked.what();
        asked << longText;

        memoryFault().failAt(number, ENOMEM);
        const char* const before = asked.what();
        memoryFault().failAt(number, ENOMEM);
        const char* const nothing = never.what();
        const int failures = memoryFault().failures();
        memoryFault().disarm();

        EXPECT_EQ(1, failures);
        EXPECT_STREQ(longText, before);
        EXPECT_STREQ("", nothing);
        EXPECT_EQ(std::string(longText) + longText, asked.what());
    }
}

TEST(QVException, ConstructionWithoutMemoryThrowsBadAlloc) {
    const Disarm disarm(memoryFault());
    memoryFault().failAlways(ENOMEM);
    bool thrown = false;
    try {
        const QVException e(longText);
    } catch (const std::bad_alloc&) {
        thrown = true;
    }
    memoryFault().disarm();
    EXPECT_TRUE(thrown);
}
