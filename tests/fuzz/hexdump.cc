// SPDX-License-Identifier: MIT
// hexdump() of the input on streams of any format that may take only a part of it.
#include "require.h"

#include <libqvutil/utility>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fuzzer/FuzzedDataProvider.h>
#include <ostream>
#include <streambuf>
#include <string>

namespace {

struct Full {};

/** Takes a number of characters, then fails in one way or the other. */
class LimitedBuf : public std::streambuf {
public:
    LimitedBuf(size_t _room, bool _throws, bool _syncFails)
        : room(_room), throws(_throws), syncFails(_syncFails), refused(false) {}

    std::string text;
    bool hasRefused() const { return refused; }

protected:
    int_type overflow(int_type c) override {
        const char character = traits_type::to_char_type(c);
        return xsputn(&character, 1) == 1 ? c : traits_type::eof();
    }
    std::streamsize xsputn(const char* data, std::streamsize size) override {
        const size_t taken = std::min(static_cast<size_t>(size), room - text.size());
        text.append(data, taken);
        if (taken < static_cast<size_t>(size))
            refuse();
        return static_cast<std::streamsize>(taken);
    }
    int sync() override {
        if (syncFails)
            refuse();
        return syncFails ? -1 : 0;
    }

private:
    void refuse() {
        refused = true;
        if (throws)
            throw Full();
    }

    const size_t room;
    const bool throws, syncFails;
    bool refused;
};

std::string dumpOf(const std::string& bytes, const char* pfx, size_t rowsize, bool addr,
                   bool newline) {
    char text[32];
    std::string dump;
    if (bytes.empty())
        dump = std::string(pfx) + " 00000000:\n";
    for (size_t start = 0; start < bytes.size();) {
        const size_t count = std::min(rowsize, bytes.size() - start);
        dump += start != 0 ? "\n" : "";
        if (pfx)
            dump += addr ? std::string(pfx) + ' ' : pfx;
        if (addr)
            dump.append(text, static_cast<size_t>(snprintf(text, sizeof(text), "%08zx: ", start)));
        for (char c : bytes.substr(start, count)) {
            const unsigned byte = static_cast<unsigned char>(c);
            dump.append(text, static_cast<size_t>(snprintf(text, sizeof(text), " %02x", byte)));
        }
        start += count;
    }
    return newline ? dump + '\n' : dump;
}

} // namespace

extern "C" {
int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    const bool addr = input.ConsumeBool(), newline = input.ConsumeBool();
    const bool isSigned = input.ConsumeBool();
    const std::string pfxText = input.ConsumeRandomLengthString(6);
    const char* const pfx = input.ConsumeBool() ? pfxText.c_str() : nullptr;
    const size_t rowsize = input.ConsumeBool() ? input.ConsumeIntegralInRange<size_t>(1, 40)
                                               : input.ConsumeIntegralInRange<size_t>(1, SIZE_MAX);
    const auto flags = static_cast<std::ios_base::fmtflags>(input.ConsumeIntegralInRange<int>(
        0, std::ios_base::floatfield | std::ios_base::boolalpha | std::ios_base::unitbuf | 0xffff));
    const char fill = input.ConsumeIntegral<char>();
    const auto state = input.PickValueInArray<std::ios_base::iostate>(
        {std::ios_base::goodbit, std::ios_base::goodbit, std::ios_base::failbit,
         std::ios_base::badbit, std::ios_base::eofbit});
    const bool exceptions = state == std::ios_base::goodbit && input.ConsumeBool();
    const bool throws = input.ConsumeBool(), syncFails = input.ConsumeIntegral<uint8_t>() < 16;
    const size_t room = input.ConsumeBool() ? SIZE_MAX : input.ConsumeIntegral<uint8_t>();
    const std::string bytes = input.ConsumeRemainingBytesAsString();

    const auto unsignedBytes = reinterpret_cast<const unsigned char*>(bytes.data());

    LimitedBuf buf(room, throws, syncFails);
    std::ostream os(&buf);
    os.flags(flags);
    os.fill(fill);
    os.setstate(state);
    if (exceptions)
        os.exceptions(std::ios_base::badbit);
    bool thrown = false;
    try {
        if (isSigned)
            hexdump(os, bytes.begin(), bytes.end(), pfx, rowsize, addr, newline);
        else
            hexdump(os, unsignedBytes, unsignedBytes + bytes.size(), pfx, rowsize, addr, newline);
    } catch (const Full&) {
        REQUIRE(throws);
        thrown = true;
    } catch (const std::ios_base::failure&) {
        REQUIRE(!throws || !buf.hasRefused());
        thrown = true;
    }

    REQUIRE(os.flags() == flags && os.fill() == fill);
    const bool refusesNull = bytes.empty() && !pfx;
    const std::string dump = refusesNull || state != std::ios_base::goodbit
                                 ? ""
                                 : dumpOf(bytes, pfx, rowsize, addr, newline);
    if (buf.hasRefused()) {
        REQUIRE(buf.text == dump.substr(0, buf.text.size()));
        REQUIRE(syncFails || buf.text.size() == room);
    } else {
        REQUIRE(buf.text == dump);
    }
    if (state == std::ios_base::goodbit)
        REQUIRE(os.bad() == (refusesNull || buf.hasRefused()));
    REQUIRE((os.rdstate() & state) == state);
    REQUIRE(thrown == (exceptions && os.bad()));
    return 0;
}
}
