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

TEST(GetTotalRam, IsZeroWhenTheKernelDoesNotTell) {
    sysinfoFault.failAt(1, EFAULT);
    EXPECT_EQ(0u, getTotalRam());
    EXPECT_NE(0u, getTotalRam());
}

TEST(GetTotalRam, AgreesWithMeminfo) {
    ASSERT_NE(0u, memTotal());
    EXPECT_EQ(std::min<uint64_t>(memTotal(), SIZE_MAX), getTotalRam());
}
