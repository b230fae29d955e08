// SPDX-License-Identifier: MIT
#ifndef TESTS_FUZZ_REQUIRE_H
#define TESTS_FUZZ_REQUIRE_H

#include <cstdio>
#include <cstdlib>

/** Ends the process, which the fuzzer takes for a finding, unless the condition holds. */
#define REQUIRE(condition)                                                                         \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            fprintf(stderr, "%s:%d: required: %s\n", __FILE__, __LINE__, #condition);              \
            abort();                                                                               \
        }                                                                                          \
    } while (false)

#endif
