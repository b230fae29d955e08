// SPDX-License-Identifier: MIT
#ifndef TESTS_SUPPORT_CAPTURE_H
#define TESTS_SUPPORT_CAPTURE_H

#include <ostream>
#include <sstream>
#include <streambuf>
#include <string>

namespace vkatest {

/** Redirects a stream (std::cout, std::cerr) into a string as long as it lives. */
class Capture {
public:
    explicit Capture(std::ostream& _os) : os(_os), before(_os.rdbuf(&buf)) {}
    ~Capture() { os.rdbuf(before); }
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;

    std::string text() const { return buf.str(); }
    /** Flushes since the start. */
    int flushes() const { return buf.syncs; }

private:
    struct Buf : std::stringbuf {
        int sync() override {
            ++syncs;
            return std::stringbuf::sync();
        }
        int syncs = 0;
    };

    Buf buf;
    std::ostream& os;
    std::streambuf* const before;
};

/** Takes a number of characters and fails afterwards, flushing included. */
class FailingBuf : public std::streambuf {
public:
    explicit FailingBuf(size_t _room) : room(_room) {}
    const std::string& text() const { return taken; }

protected:
    int_type overflow(int_type c) override {
        if (taken.size() == room)
            return traits_type::eof();
        taken.push_back(traits_type::to_char_type(c));
        return c;
    }
    int sync() override { return taken.size() == room ? -1 : 0; }

private:
    const size_t room;
    std::string taken;
};

} // namespace vkatest

#endif
