// SPDX-License-Identifier: MIT
#ifndef TESTS_SUPPORT_MEMORY_H
#define TESTS_SUPPORT_MEMORY_H

#include "fault.h"

namespace vkatest {

/**
 * Lets operator new throw std::bad_alloc, in the whole program, the standard library included. The
 * program has to contain memory.cc. Not for programs that allocate in several threads.
 */
Fault& memoryFault();

} // namespace vkatest

#endif
