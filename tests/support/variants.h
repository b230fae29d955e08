// SPDX-License-Identifier: MIT
#ifndef TESTS_SUPPORT_VARIANTS_H
#define TESTS_SUPPORT_VARIANTS_H

#include "fault.h"

#include <cerrno>
#include <sys/stat.h>
#include <sys/types.h>

// Wrappers of functions that a build may call under several names: with large files or 64-bit time
// on 32-bit machines, with the C library's checks, or in Debug builds. The names to give to WRAP
// are in variables of tests/unit/support.cmake, e.g. ${wrap_open} for VKA_WRAP_OPEN.

#define VKA_WRAP_OPEN(fault)                                                                       \
    VKA_WRAP(fault, int, open, (const char* path, int flags, mode_t mode), (path, flags, mode),    \
             -1)                                                                                   \
    VKA_WRAP(fault, int, open64, (const char* path, int flags, mode_t mode), (path, flags, mode),  \
             -1)                                                                                   \
    VKA_WRAP(fault, int, __open_2, (const char* path, int flags), (path, flags), -1)               \
    VKA_WRAP(fault, int, __open64_2, (const char* path, int flags), (path, flags), -1)

#define VKA_WRAP_OPENAT(fault)                                                                     \
    VKA_WRAP(fault, int, openat, (int dir, const char* path, int flags, mode_t mode),              \
             (dir, path, flags, mode), -1)                                                         \
    VKA_WRAP(fault, int, openat64, (int dir, const char* path, int flags, mode_t mode),            \
             (dir, path, flags, mode), -1)                                                         \
    VKA_WRAP(fault, int, __openat_2, (int dir, const char* path, int flags), (dir, path, flags),   \
             -1)                                                                                   \
    VKA_WRAP(fault, int, __openat64_2, (int dir, const char* path, int flags), (dir, path, flags), \
             -1)

#define VKA_WRAP_STAT(fault)                                                                       \
    VKA_WRAP(fault, int, stat, (const char* path, struct stat* info), (path, info), -1)            \
    VKA_WRAP(fault, int, stat64, (const char* path, struct stat* info), (path, info), -1)          \
    VKA_WRAP(fault, int, __stat64_time64, (const char* path, struct stat* info), (path, info), -1)

/** What succeeds is handed to alter, a std::function<void(struct stat&)>, unless that is empty. */
#define VKA_WRAP_FSTAT(fault, alter)                                                               \
    VKA_WRAP_FSTAT_NAMED(fault, alter, fstat)                                                      \
    VKA_WRAP_FSTAT_NAMED(fault, alter, fstat64)                                                    \
    VKA_WRAP_FSTAT_NAMED(fault, alter, __fstat64_time64)
#define VKA_WRAP_FSTAT_NAMED(fault, alter, name)                                                   \
    extern "C" __attribute__((weak)) int __real_##name(int fd, struct stat* info);                 \
    extern "C" int __wrap_##name(int fd, struct stat* info);                                       \
    extern "C" int __wrap_##name(int fd, struct stat* info) {                                      \
        if ((fault).hit() || __real_##name(fd, info) == -1)                                        \
            return -1;                                                                             \
        if (alter)                                                                                 \
            (alter)(*info);                                                                        \
        return 0;                                                                                  \
    }

/** A read that a signal interrupts does not count: it is made again. */
#define VKA_WRAP_READ(fault)                                                                       \
    VKA_WRAP_READ_NAMED(fault, read, (int fd, void* buf, size_t n), (fd, buf, n))                  \
    VKA_WRAP_READ_NAMED(fault, __read_chk, (int fd, void* buf, size_t n, size_t room),             \
                        (fd, buf, n, room))
#define VKA_WRAP_READ_NAMED(fault, name, params, args)                                             \
    extern "C" __attribute__((weak)) ssize_t __real_##name params;                                 \
    extern "C" ssize_t __wrap_##name params;                                                       \
    extern "C" ssize_t __wrap_##name params {                                                      \
        if ((fault).hit())                                                                         \
            return -1;                                                                             \
        const ssize_t got = __real_##name args;                                                    \
        if (got == -1 && errno == EINTR)                                                           \
            (fault).forget();                                                                      \
        return got;                                                                                \
    }

#endif
