// SPDX-License-Identifier: MIT
#include <libqvutil/utility>

#include <cstdint>
#include <sys/sysinfo.h>

size_t getTotalRam() {
    struct sysinfo info;
    if (sysinfo(&info) == -1)
        return 0;
    const size_t unit = info.mem_unit ? info.mem_unit : 1; // kernels before 2.3.23 leave it 0
    return info.totalram > SIZE_MAX / unit ? SIZE_MAX : info.totalram * unit;
}
