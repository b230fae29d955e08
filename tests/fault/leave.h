// SPDX-License-Identifier: MIT
#ifndef TESTS_FAULT_LEAVE_H
#define TESTS_FAULT_LEAVE_H

#include <cstdio>
#include <iostream>
#include <unistd.h>

extern "C" void __gcov_dump(void) __attribute__((weak)); // there in a build that measures coverage

/** Ends a process that was forked, without the handlers that are the first process's to run. */
[[noreturn]] inline void leave(int status) {
    std::cout.flush();
    fflush(nullptr);
    if (__gcov_dump)
        __gcov_dump();
    _exit(status);
}

#endif
