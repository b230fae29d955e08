// SPDX-License-Identifier: MIT
// In a file of its own: where the compiler sees these functions it pairs malloc() with delete.
#include "memory.h"

#include <cstdlib>
#include <new>

vkatest::Fault& vkatest::memoryFault() {
    static Fault fault;
    return fault;
}

void* operator new(size_t size) {
    void* const memory = vkatest::memoryFault().hit() ? nullptr : malloc(size ? size : 1);
    if (!memory)
        throw std::bad_alloc();
    return memory;
}

void operator delete(void* memory) noexcept {
    free(memory);
}

void operator delete(void* memory, size_t) noexcept {
    free(memory);
}
