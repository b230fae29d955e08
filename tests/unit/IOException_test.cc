// SPDX-License-Identifier: MIT
#include <libqvio/IOException>

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <type_traits>

namespace {

static_assert(std::is_base_of<std::system_error, IOException>::value, "");
static_assert(sizeof(IOException) == sizeof(std::system_error), "no members of its own");
static_assert(!std::is_convertible<int, IOException>::value, "");
static_assert(std::is_nothrow_destructible<IOException>::value, "");

// Braces would build one implicitly were the constructor not explicit.
typedef void (&Taker)(IOException);
template <typename Message,
          typename = decltype(std::declval<Taker>()({0, std::declval<Message>()}))>
constexpr bool implicitlyFrom(int) {
    return true;
}
template <typename Message>
constexpr bool implicitlyFrom(...) {
    return false;
}
static_assert(!implicitlyFrom<const char*>(0), "explicit");
static_assert(!implicitlyFrom<const std::string&>(0), "explicit");

void expectAnswers(const IOException& e, int err, const std::string& message) {
    EXPECT_EQ(err, e.getError());
    EXPECT_EQ(strerror(err), e.getErrorString());
    EXPECT_EQ(message + ": " + strerror(err), e.what());
    EXPECT_EQ(std::error_code(err, std::system_category()), e.code());
}

} // namespace

TEST(IOException, DescribesARefusal) {
    const IOException e(16, "VKA process(es) already running");
    EXPECT_EQ(16, e.getError());
    EXPECT_EQ("Device or resource busy", e.getErrorString());
    EXPECT_STREQ("VKA process(es) already running: Device or resource busy", e.what());
}

TEST(IOException, DescribesNumberZero) {
    const IOException e(0, "cannot fork");
    EXPECT_EQ(0, e.getError());
    EXPECT_EQ("Success", e.getErrorString());
    EXPECT_STREQ("cannot fork: Success", e.what());
}

TEST(IOException, DescribesEveryNumber) {
    for (int err = 0; err <= 133; ++err) {
        SCOPED_TRACE(err);
        expectAnswers(IOException(err, "cannot open"), err, "cannot open");
        expectAnswers(IOException(err, std::string("cannot open /tmp/x")), err,
                      "cannot open /tmp/x");
    }
}

TEST(IOException, DescribesNumbersTheSystemDoesNotKnow) {
    for (int err : {134, 4096, INT_MAX, -1, INT_MIN}) {
        SCOPED_TRACE(err);
        expectAnswers(IOException(err, "cannot open"), err, "cannot open");
    }
}

TEST(IOException, KeepsTheNumberOfTheFailingCall) {
    ASSERT_EQ(-1, open("/nowhere/to be found", O_RDONLY));
    const IOException e(errno, "cannot open /nowhere/to be found");
    errno = EPERM;
    expectAnswers(e, ENOENT, "cannot open /nowhere/to be found");
}

TEST(IOException, CopiesTheMessage) {
    std::string message = "cannot open /tmp/some/long/path/on/the/heap";
    const std::string before = message;
    const IOException fromString(EIO, message), fromChars(EIO, message.c_str());
    message.replace(0, 6, "CANNOT");
    expectAnswers(fromString, EIO, before);
    expectAnswers(fromChars, EIO, before);
}

TEST(IOException, IsCopiedAndAssigned) {
    const IOException e(EBUSY, "busy");
    IOException copy(e), other(EIO, "input");
    expectAnswers(copy, EBUSY, "busy");
    copy = other;
    expectAnswers(copy, EIO, "input");
    expectAnswers(e, EBUSY, "busy");
}

TEST(IOException, IsCaughtAsEachOfItsBases) {
    const auto raise = [] { throw IOException(EAGAIN, "cannot fork"); };
    EXPECT_THROW(raise(), IOException);
    EXPECT_THROW(raise(), std::system_error);
    EXPECT_THROW(raise(), std::runtime_error);
    try {
        raise();
    } catch (const std::exception& e) {
        EXPECT_STREQ("cannot fork: Resource temporarily unavailable", e.what());
    }
}
