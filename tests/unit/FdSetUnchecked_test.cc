// SPDX-License-Identifier: MIT
// Compiled without optimisation and without the C library's own check.
#define FDSET_SUITE FdSetUncheckedDeath
#include "tests/unit/FdSetDeath.h"

#if defined(__OPTIMIZE__) || (defined(_FORTIFY_SOURCE) && _FORTIFY_SOURCE > 0)
#error "this file is to be compiled with -O0 -U_FORTIFY_SOURCE"
#endif
