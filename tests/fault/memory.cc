// SPDX-License-Identifier: MIT
// The program's allocations, the C library's own included: counted, and made to fail like calls.
#include "memory.h"
#include "inject.h"

#include <cerrno>
#include <cstddef>

static inject::Function mallocFunction("malloc", {ENOMEM});

static size_t blocks;

size_t inject::liveBlocks() {
    return blocks;
}

extern "C" {
void* __libc_malloc(size_t size) noexcept;
void* __libc_calloc(size_t count, size_t size) noexcept;
void* __libc_realloc(void* memory, size_t size) noexcept;
void __libc_free(void* memory) noexcept;

void* malloc(size_t size) noexcept {
    void* const memory = mallocFunction.hit() ? nullptr : __libc_malloc(size);
    blocks += memory != nullptr;
    return memory;
}

void* calloc(size_t count, size_t size) noexcept {
    void* const memory = mallocFunction.hit() ? nullptr : __libc_calloc(count, size);
    blocks += memory != nullptr;
    return memory;
}

void* realloc(void* old, size_t size) noexcept {
    void* const memory = mallocFunction.hit() ? nullptr : __libc_realloc(old, size);
    blocks += !old && memory != nullptr;
    return memory;
}

void free(void* memory) noexcept {
    blocks -= memory != nullptr;
    __libc_free(memory);
}
}
