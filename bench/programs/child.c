// SPDX-License-Identifier: MIT
// The program behind the console that is measured. Its work is named by BENCH_CHILD, as it gets no
// arguments: "flood BYTES" and "answer BYTES" for each byte of input, "echo", "silent", "byte".
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static char block[1 << 16];

static void emit(const char* data, size_t size) {
    while (size > 0) {
        const ssize_t done = write(STDOUT_FILENO, data, size);
        if (done <= 0)
            exit(1);
        data += done;
        size -= (size_t)done;
    }
}

/** The stream is this block again and again, so the client knows each of its bytes. */
static void fill_block(void) {
    for (size_t i = 0; i < sizeof(block); ++i)
        block[i] = (char)(i * 2654435761u >> 13);
}

static void answer(unsigned long bytes) {
    for (unsigned long left = bytes; left > 0;) {
        const size_t part = left < sizeof(block) ? left : sizeof(block);
        emit(block, part);
        left -= part;
    }
}

int main(void) {
    const char* work = getenv("BENCH_CHILD");
    char input[4096];
    fill_block();
    if (!work)
        return 1;
    if (strcmp(work, "byte") == 0) {
        emit("x", 1);
        return 0;
    }
    if (strcmp(work, "silent") == 0) {
        while (1)
            pause();
    }
    ssize_t got;
    if (strcmp(work, "echo") == 0) {
        while ((got = read(STDIN_FILENO, input, sizeof(input))) > 0)
            emit(input, (size_t)got);
        return 0;
    }
    char name[16];
    unsigned long bytes;
    if (sscanf(work, "%15s %lu", name, &bytes) != 2)
        return 1;
    while (read(STDIN_FILENO, input, 1) == 1)
        answer(bytes);
    return 0;
}
