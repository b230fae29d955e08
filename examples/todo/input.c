// SPDX-License-Identifier: MIT
#include "input.h"

#include <stdio.h>
#include <string.h>

int read_line(char* line, size_t size) {
    static int after_cr;
    size_t length = 0;
    int c;
    while ((c = getchar()) != EOF) {
        if (c == '\n' && after_cr) {
            after_cr = 0;
            continue;
        }
        after_cr = c == '\r';
        if (c == '\r' || c == '\n') {
            line[length] = '\0';
            return 1;
        }
        if (length < size - 1)
            line[length++] = (char)c;
    }
    return 0;
}

const char* argument_of(const char* command, const char* line) {
    size_t length = strlen(command);
    if (strncmp(line, command, length) != 0)
        return NULL;
    if (line[length] == '\0')
        return line + length;
    return line[length] == ' ' ? line + length + 1 : NULL;
}
