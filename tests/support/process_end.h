// SPDX-License-Identifier: MIT
// For one source of a test program that wraps abort: an end of the process that can be looked at.
#ifndef TESTS_SUPPORT_PROCESS_END_H
#define TESTS_SUPPORT_PROCESS_END_H

#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>

namespace vkatest {

inline jmp_buf* processEnd = nullptr; // where abort() goes instead of ending the process

/**
 * Calls a function that throws nothing. @return whether it called abort(), which comes back here
 *
 * What lives on the stack in between is not destroyed: there must be nothing that needs it.
 */
template <typename Function>
bool endsProcess(const Function& function) {
    jmp_buf here;
    processEnd = &here;
    if (setjmp(here) == 0) {
        function();
        processEnd = nullptr;
        return false;
    }
    processEnd = nullptr;
    return true;
}

/** Takes what is written to stderr as long as it lives. */
class StderrText {
public:
    StderrText() : stream(open_memstream(&buf, &size)), before(std::exchange(stderr, stream)) {}
    ~StderrText() {
        stderr = before;
        fclose(stream);
        free(buf);
    }
    StderrText(const StderrText&) = delete;
    StderrText& operator=(const StderrText&) = delete;

    std::string text() const {
        fflush(stream);
        return std::string(buf, size);
    }

private:
    char* buf = nullptr;
    size_t size = 0;
    FILE* const stream;
    FILE* const before;
};

} // namespace vkatest

extern "C" {
[[noreturn]] void __real_abort();
[[noreturn]] void __wrap_abort();
void __wrap_abort() {
    if (vkatest::processEnd)
        longjmp(*vkatest::processEnd, 1);
    __real_abort();
}
}

#endif
