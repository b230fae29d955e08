// SPDX-License-Identifier: MIT
/*
 * Put in front of every file that uses the libraries, by their CMake and pkg-config files: asks for
 * the C library's checks as the libraries themselves do, where that is possible and nobody has
 * chosen. -D_FORTIFY_SOURCE=0 is a choice, too. Nothing in the libraries depends on it.
 */
#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(memory_sanitizer) ||                         \
    __has_feature(thread_sanitizer)
#define LIBVKA_SANITIZED
#endif
#elif defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define LIBVKA_SANITIZED
#endif

#if defined(__OPTIMIZE__) && !defined(_FORTIFY_SOURCE) && !defined(LIBVKA_SANITIZED)
#define _FORTIFY_SOURCE 2
#endif
