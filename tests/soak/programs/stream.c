// SPDX-License-Identifier: MIT
//
// Writes as many bytes of a reproducible stream as the environment variable BYTES says. For each
// block from the 17th on it waits for one byte of input: the reader is never further behind.
#include <stdint.h>
#include <stdlib.h>
#include <unistd.h>

enum { block_size = 1 << 20, blocks_ahead = 16 };

static uint64_t block[block_size / sizeof(uint64_t)];

// One of Marsaglia's xorshift generators: each block differs, and so does each byte's
// neighbourhood.
static void fill(void) {
    static uint64_t state = 88172645463325252u;
    for (size_t i = 0; i < sizeof block / sizeof block[0]; ++i) {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        block[i] = state;
    }
}

static void emit(const char* data, size_t size) {
    while (size > 0) {
        const ssize_t done = write(1, data, size);
        if (done == -1)
            exit(2);
        data += done;
        size -= (size_t)done;
    }
}

int main(void) {
    const char* bytes = getenv("BYTES");
    unsigned long long left = bytes ? strtoull(bytes, NULL, 10) : 0;
    for (unsigned long number = 0; left > 0; ++number) {
        const size_t size = left < block_size ? (size_t)left : block_size;
        char go;
        if (number >= blocks_ahead && read(0, &go, 1) != 1)
            return 3;
        fill();
        emit((const char*)block, size);
        left -= size;
    }
    return 0;
}
