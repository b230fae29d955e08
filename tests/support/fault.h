// SPDX-License-Identifier: MIT
#ifndef TESTS_SUPPORT_FAULT_H
#define TESTS_SUPPORT_FAULT_H

#include <cerrno>
#include <functional>
#include <utility>

namespace vkatest {

/**
 * Lets chosen calls of a function fail that is replaced at link time (WRAP in vka_test()).
 *
 * One object per function; its wrapper asks hit() first:
 *
 *     static Fault readFault;
 *     VKA_WRAP(readFault, ssize_t, read, (int fd, void* buf, size_t n), (fd, buf, n), -1)
 *
 *     readFault.failAt(2, EIO); // the second call from now on fails, once
 *
 * Functions with several names (open, open64 ...) have a macro each in variants.h.
 */
class Fault {
public:
    /** The number'th call from now (1 is the next) fails with err; those around it succeed. */
    void failAt(int number, int err) { arm(number, number, err); }
    /** Each call from now on fails. */
    void failAlways(int err) { arm(1, -1, err); }
    /** Calls the function right before the number'th call from now, which then goes its way. */
    void beforeCall(int number, std::function<void()> function) {
        arm(0, 0, 0);
        hooked = number;
        hook = std::move(function);
    }
    void disarm() { arm(0, 0, 0); }

    /** Calls since it was last armed or disarmed. */
    int calls() const { return count; }
    /** Calls that failed among them. */
    int failures() const { return failed; }

    /** Counts a call. @return whether it has to fail; errno is set then */
    bool hit() {
        ++count;
        if (count == hooked)
            std::exchange(hook, nullptr)();
        if (first == 0 || count < first || (last != -1 && count > last))
            return false;
        ++failed;
        errno = error;
        return true;
    }

    /** Takes the last call back, which did not fail here. */
    void forget() { --count; }

    /** What an armed call fails with, for functions that return their error number. */
    int number() const { return error; }

private:
    void arm(int _first, int _last, int err) {
        first = _first;
        last = _last;
        error = err;
        count = failed = hooked = 0;
    }

    int first = 0, last = 0, error = 0, count = 0, failed = 0, hooked = 0;
    std::function<void()> hook;
};

/** Disarms at the beginning and at the end of a test, however it ends. */
class Disarm {
public:
    explicit Disarm(Fault& _fault) : fault(_fault) { fault.disarm(); }
    ~Disarm() { fault.disarm(); }
    Disarm(const Disarm&) = delete;
    Disarm& operator=(const Disarm&) = delete;

private:
    Fault& fault;
};

} // namespace vkatest

/**
 * Defines the wrapper of a function: fails as the Fault says, otherwise calls the real one.
 *
 * The real one is a weak reference, so that a variant of the function which this machine's C
 * library lacks (open64, __fstat64_time64 ...) can be wrapped all the same.
 */
#define VKA_WRAP(fault, result, name, params, args, failure)                                       \
    extern "C" __attribute__((weak)) result __real_##name params;                                  \
    extern "C" result __wrap_##name params;                                                        \
    extern "C" result __wrap_##name params {                                                       \
        return (fault).hit() ? (failure) : __real_##name args;                                     \
    }

#endif
