// SPDX-License-Identifier: MIT
// Every allocation changes errno, as allocations may: in a test program with this source, a number
// that is taken from errno after a message was composed is wrong.
#include <cerrno>
#include <cstdlib>
#include <new>

void* operator new(size_t size) {
    void* const memory = malloc(size != 0 ? size : 1);
    if (!memory)
        throw std::bad_alloc();
    errno = EXFULL;
    return memory;
}
void operator delete(void* memory) noexcept {
    free(memory);
}
void operator delete(void* memory, size_t) noexcept {
    free(memory);
}
