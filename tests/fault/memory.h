// SPDX-License-Identifier: MIT
#ifndef TESTS_FAULT_MEMORY_H
#define TESTS_FAULT_MEMORY_H

#include <cstddef>

namespace inject {

/** Blocks that were allocated and not freed, in the whole program. */
size_t liveBlocks();

} // namespace inject

#endif
