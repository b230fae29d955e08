// SPDX-License-Identifier: MIT
#include <libqvutil/utility>

#include "tests/support/capture.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <deque>
#include <iterator>
#include <list>
#include <sstream>
#include <string>

using vkatest::FailingBuf;

namespace {

static_assert(std::is_same<std::vector<unsigned char>, byteVec_t>::value, "");

std::string dump(const std::string& bytes, const char* pfx, size_t rowsize, bool addr,
                 bool newline) {
    std::ostringstream os;
    hexdump(os, bytes.begin(), bytes.end(), pfx, rowsize, addr, newline);
    return os.str();
}

/** The same text, made another way; for ranges that are not empty. */
std::string expected(const std::string& bytes, const char* pfx, size_t rowsize, bool addr,
                     bool newline) {
    std::string text;
    char buf[32];
    for (size_t start = 0; start < bytes.size(); start += rowsize) {
        if (start > 0)
            text += '\n';
        text += pfx ? pfx : "";
        if (addr) {
            snprintf(buf, sizeof(buf), "%s%08zx: ", pfx ? " " : "", start);
            text += buf;
        }
        for (char c : bytes.substr(start, rowsize)) {
            snprintf(buf, sizeof(buf), " %02x", static_cast<unsigned>(c) & 0xff);
            text += buf;
        }
    }
    return newline ? text + '\n' : text;
}

std::string allBytes() {
    std::string bytes;
    for (int value = 0; value < 256; ++value)
        bytes.push_back(static_cast<char>(value));
    return bytes;
}

/** A stream whose format differs from the default in every respect that the dump touches. */
void setUpFormat(std::ostream& os) {
    os.flags(std::ios_base::dec | std::ios_base::uppercase | std::ios_base::showbase |
             std::ios_base::left | std::ios_base::scientific | std::ios_base::showpos |
             std::ios_base::boolalpha);
    os.fill('*');
}

} // namespace

TEST(Hexdump, ShowsARelayedBlock) {
    EXPECT_EQ("fdconn 68 65 6c 6c 6f\n", dump("hello", "fdconn", 16, false, true));
    EXPECT_EQ("master 68 65 6c 6c 6f\n", dump("hello", "master", 16, false, true));
}

TEST(Hexdump, FullRowHasNoLineFeedBeforeTheEnd) {
    EXPECT_EQ("fdconn 61 61 61 61 61 61 61 61 61 61 61 61 61 61 61 61\n",
              dump(std::string(16, 'a'), "fdconn", 16, false, true));
}

TEST(Hexdump, OneByteMoreStartsASecondRow) {
    EXPECT_EQ("fdconn 61 61 61 61 61 61 61 61 61 61 61 61 61 61 61 61\n"
              "fdconn 62\n",
              dump(std::string(16, 'a') + 'b', "fdconn", 16, false, true));
}

TEST(Hexdump, TwentyBytesTakeTwoRows) {
    EXPECT_EQ("fdconn 61 61 61 61 61 61 61 61 61 61 61 61 61 61 61 61\n"
              "fdconn 61 61 61 61\n",
              dump(std::string(20, 'a'), "fdconn", 16, false, true));
}

TEST(Hexdump, ShowsOffsets) {
    EXPECT_EQ("x 00000000:  61 61\nx 00000002:  61", dump("aaa", "x", 2, true, false));
    EXPECT_EQ("00000000:  61 61\n00000002:  61", dump("aaa", nullptr, 2, true, false));
    const std::string long_ = dump(std::string(33, 'a'), "x", 16, true, false);
    EXPECT_NE(std::string::npos, long_.find("\nx 00000010:  61 61"));
    EXPECT_NE(std::string::npos, long_.find("\nx 00000020:  61"));
}

TEST(Hexdump, RowWithoutPrefixStartsWithASpace) {
    EXPECT_EQ(" 61 61\n 61", dump("aaa", nullptr, 2, false, false));
}

TEST(Hexdump, EmptyPrefixIsAPrefix) {
    EXPECT_EQ(" 00000000:  61", dump("a", "", 16, true, false));
    EXPECT_EQ(" 61", dump("a", "", 16, false, false));
}

TEST(Hexdump, EmptyRangeShowsOffsetZero) {
    EXPECT_EQ("fdconn 00000000:\n\n", dump("", "fdconn", 16, false, true));
    EXPECT_EQ("fdconn 00000000:\n\n", dump("", "fdconn", 16, true, true));
    EXPECT_EQ("fdconn 00000000:\n", dump("", "fdconn", 16, false, false));
    EXPECT_EQ("fdconn 00000000:\n", dump("", "fdconn", 16, true, false));
    EXPECT_EQ(" 00000000:\n", dump("", "", 16, true, false));
}

TEST(Hexdump, EmptyRangeWithoutPrefixMakesTheStreamBad) {
    for (bool addr : {false, true}) {
        for (bool newline : {false, true}) {
            std::ostringstream os;
            setUpFormat(os);
            const auto flags = os.flags();
            const std::string none;
            hexdump(os, none.begin(), none.end(), nullptr, 16, addr, newline);
            EXPECT_TRUE(os.bad());
            EXPECT_EQ("", os.str());
            EXPECT_EQ(flags, os.flags());
            EXPECT_EQ('*', os.fill());
        }
    }
}

TEST(Hexdump, EmptyRangeWithoutPrefixThrowsIfTheStreamDoes) {
    std::ostringstream os;
    setUpFormat(os);
    os.exceptions(std::ios_base::badbit);
    const auto flags = os.flags();
    const std::string none;
    EXPECT_THROW(hexdump(os, none.begin(), none.end(), nullptr, 16, false, true),
                 std::ios_base::failure);
    EXPECT_EQ("", os.str());
    EXPECT_EQ(flags, os.flags());
    EXPECT_EQ('*', os.fill());
}

TEST(Hexdump, EveryByteValueHasTwoLowerCaseDigits) {
    for (int value = 0; value < 256; ++value) {
        char text[8];
        snprintf(text, sizeof(text), " %02x", static_cast<unsigned>(value));
        const unsigned char byte[] = {static_cast<unsigned char>(value)};
        std::ostringstream os;
        hexdump(os, byte, byte + 1, nullptr, 16, false, false);
        EXPECT_EQ(text, os.str());
    }
    EXPECT_EQ("x 00 ff", dump(std::string("\0\xff", 2), "x", 16, false, false));
}

TEST(Hexdump, TakesIteratorsOfEveryKind) {
    const std::string bytes = allBytes();
    const std::string text = expected(bytes, "x", 16, true, true);
    const auto dumped = [](auto from, auto to) {
        std::ostringstream os;
        hexdump(os, from, to, "x", 16, true, true);
        return os.str();
    };
    const std::vector<signed char> signedBytes(bytes.begin(), bytes.end());
    EXPECT_EQ(text, dumped(signedBytes.begin(), signedBytes.end()));
    EXPECT_EQ(text, dumped(signedBytes.data(), signedBytes.data() + signedBytes.size()));
    const byteVec_t unsignedBytes(bytes.begin(), bytes.end());
    EXPECT_EQ(text, dumped(unsignedBytes.begin(), unsignedBytes.end()));
    const std::list<char> list(bytes.begin(), bytes.end());
    EXPECT_EQ(text, dumped(list.begin(), list.end()));
    const std::deque<unsigned char> deque(bytes.begin(), bytes.end());
    EXPECT_EQ(text, dumped(deque.begin(), deque.end()));
    std::istringstream stream(bytes);
    EXPECT_EQ(text,
              dumped(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()));
}

TEST(Hexdump, LaysOutEveryLengthAndRowSize) {
    const std::string bytes = allBytes();
    for (size_t length = 1; length <= 70; ++length) {
        const std::string part = bytes.substr(100, length);
        for (size_t rowsize : {size_t(1), size_t(2), size_t(3), size_t(16), size_t(69), SIZE_MAX}) {
            for (const char* pfx : {static_cast<const char*>(nullptr), "", "fdconn"}) {
                for (bool addr : {false, true}) {
                    for (bool newline : {false, true}) {
                        ASSERT_EQ(expected(part, pfx, rowsize == SIZE_MAX ? 1000 : rowsize, addr,
                                           newline),
                                  dump(part, pfx, rowsize, addr, newline));
                    }
                }
            }
        }
    }
}

TEST(Hexdump, FlushesAtTheEndOnlyIfAskedFor) {
    for (bool newline : {false, true}) {
        std::ostream os(nullptr);
        const vkatest::Capture capture(os);
        os.clear();
        const std::string bytes = "aaa";
        hexdump(os, bytes.begin(), bytes.end(), "x", 1, false, newline);
        EXPECT_EQ(newline ? 1 : 0, capture.flushes());
    }
}

TEST(Hexdump, IgnoresAndRestoresTheFormatOfTheStream) {
    for (const std::string bytes : {"hello", ""}) {
        std::ostringstream os;
        setUpFormat(os);
        const auto flags = os.flags();
        hexdump(os, bytes.begin(), bytes.end(), "x", 2, true, true);
        EXPECT_EQ(dump(bytes, "x", 2, true, true), os.str());
        EXPECT_EQ(flags, os.flags());
        EXPECT_EQ('*', os.fill());
        EXPECT_EQ(0, os.width());
    }
}

TEST(Hexdump, RestoresUpperCaseAndDecimal) {
    std::ostringstream os;
    os << std::uppercase << std::dec;
    const std::string bytes = "\xab";
    hexdump(os, bytes.begin(), bytes.end(), nullptr, 16, false, false);
    os << ' ' << 171 << ' ' << std::hex << 171;
    EXPECT_EQ(" ab 171 AB", os.str());
}

TEST(Hexdump, RestoresTheFormatWhereverTheStreamFails) {
    for (const std::string bytes : {"hello", ""}) {
        const std::string whole = dump(bytes, "x", 2, true, true);
        for (size_t room = 0; room <= whole.size() + 1; ++room) {
            for (bool throwing : {false, true}) {
                SCOPED_TRACE(room);
                FailingBuf buf(room);
                std::ostream os(&buf);
                setUpFormat(os);
                const auto flags = os.flags();
                if (throwing)
                    os.exceptions(std::ios_base::badbit | std::ios_base::failbit);
                bool thrown = false;
                try {
                    hexdump(os, bytes.begin(), bytes.end(), "x", 2, true, true);
                } catch (const std::ios_base::failure&) {
                    thrown = true;
                }
                const bool fails = room <= whole.size();
                EXPECT_EQ(throwing && fails, thrown);
                EXPECT_EQ(fails, os.bad());
                EXPECT_EQ(whole.substr(0, room), buf.text());
                EXPECT_EQ(flags, os.flags());
                EXPECT_EQ('*', os.fill());
            }
        }
    }
}
