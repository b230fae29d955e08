// SPDX-License-Identifier: MIT
#define FDSET_SUITE FdSetDeath
#include "tests/unit/FdSetDeath.h"
