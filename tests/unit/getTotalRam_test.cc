// SPDX-License-Identifier: MIT
#include <libqvutil/utility>

#include "tests/support/fault.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <optional>
#include <string>
#include <sys/sysinfo.h>
#include <type_traits>

using vkatest::Fault;

namespace {

Fault sysinfoFault;
std::optional<struct sysinfo> pretended;

size_t totalRamFor(unsigned long totalram, unsigned int unit) {
    struct sysinfo info = {};
    info.totalram = totalram;
    info.mem_unit = unit;
    pretended = info;
    const size_t total = getTotalRam();
    pretended.reset();
    return total;
}

/** What a size_t can hold of a number of bytes. */
size_t saturated(uint64_t bytes) {
    return static_cast<size_t>(std::min<uint64_t>(bytes, SIZE_MAX));
}

/** Total memory according to /proc/meminfo in bytes. */
uint64_t memTotal() {
    std::ifstream file("/proc/meminfo");
    std::string name;
    uint64_t kib = 0;
    while (file >> name && name != "MemTotal:")
        file.ignore(1000, '\n');
    file >> kib;
    return kib * 1024;
}

static_assert(std::is_same<size_t, decltype(getTotalRam())>::value, "");

} // namespace

extern "C" int __real_sysinfo(struct sysinfo* info);
extern "C" int __wrap_sysinfo(struct sysinfo* info);
extern "C" int __wrap_sysinfo(struct sysinfo* info) {
    if (sysinfoFault.hit())
        return -1;
    if (!pretended)
        return __real_sysinfo(info);
    *info = *pretended;
    return 0;
}

TEST(GetTotalRam, CountsBytes) {
    EXPECT_EQ(536870912u, totalRamFor(536870912, 1));
    EXPECT_EQ(536870911u, totalRamFor(536870911, 1));
    EXPECT_EQ(SIZE_MAX, totalRamFor(SIZE_MAX, 1));
    EXPECT_EQ(0u, totalRamFor(0, 1));
}

TEST(GetTotalRam, MultipliesByTheUnit) {
    EXPECT_EQ(536870912u, totalRamFor(131072, 4096));
    EXPECT_EQ(536870912u - 4096, totalRamFor(131071, 4096));
}

TEST(GetTotalRam, TakesUnitZeroForBytes) {
    EXPECT_EQ(536870912u, totalRamFor(536870912, 0));
}

TEST(GetTotalRam, SaturatesInsteadOfWrapping) {
    const unsigned long most = SIZE_MAX / 4096;
    EXPECT_EQ(SIZE_MAX - 4095, totalRamFor(most, 4096));
    EXPECT_EQ(SIZE_MAX, totalRamFor(most + 1, 4096));
    EXPECT_EQ(SIZE_MAX, totalRamFor(SIZE_MAX, 4096));
    EXPECT_EQ(SIZE_MAX, totalRamFor(SIZE_MAX, 2));
}

/** At 4 GiB a size_t of 32 bits is full; one of 64 bits holds every product. */
TEST(GetTotalRam, CountsUpToFourGibibytesAndBeyondThemWhereItCan) {
    const struct {
        unsigned long totalram;
        unsigned int unit;
        uint64_t bytes;
    } rows[] = {
        {2147483647, 1, 0x7fffffff},  {2147483648, 1, 0x80000000},
        {4294967294, 1, 0xfffffffe},  {4294967295, 1, 0xffffffff},
        {4294967295, 0, 0xffffffff},  {65535, 65537, 0xffffffff},
        {65537, 65535, 0xffffffff},   {1, 4294967295, 0xffffffff},
        {1048575, 4096, 0xfffff000},  {2147483647, 2, 0xfffffffe},
        {2147483648, 2, 0x100000000}, {1048576, 4096, 0x100000000},
        {65536, 65536, 0x100000000},  {1, 2147483648, 0x80000000},
        {2, 2147483648, 0x100000000}, {858993460, 5, 0x100000004},
        {1048577, 4096, 0x100001000}, {6170604, 4096, 25274793984},
        {4294967295, 2, 0x1fffffffe}, {4294967295, 4096, 0xffffffff000},
        {2, 4294967295, 0x1fffffffe}, {4294967295, 4294967295, 0xfffffffe00000001},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(saturated(row.bytes), totalRamFor(row.totalram, row.unit))
            << row.totalram << " * " << row.unit;
    }
}

TEST(GetTotalRam, IsZeroWhenTheKernelDoesNotTell) {
    sysinfoFault.failAt(1, EFAULT);
    EXPECT_EQ(0u, getTotalRam());
    EXPECT_NE(0u, getTotalRam());
}

TEST(GetTotalRam, AgreesWithMeminfo) {
    struct sysinfo info = {};
    ASSERT_EQ(0, __real_sysinfo(&info));
    const uint64_t told = uint64_t(info.totalram) * info.mem_unit;
    const uint64_t actual = memTotal();
    ASSERT_NE(0u, actual);
    // A kernel tells a 32-bit program about large memory in large units. An emulator of programs
    // may cut the number of bytes to 32 bits instead, out of the library's sight.
    const bool cut = sizeof(info.totalram) == 4 && info.mem_unit == 1 && told == uint32_t(actual);
    EXPECT_EQ(cut ? told : saturated(actual), getTotalRam());
}
