// SPDX-License-Identifier: MIT
#ifndef INPUT_H
#define INPUT_H

#include <stddef.h>

/* Reads one line, which the client may end with LF, CR or both; 0 at the end of the input. */
int read_line(char* line, size_t size);

/* When line is the command, alone or before a blank, returns what follows it, else null. */
const char* argument_of(const char* command, const char* line);

#endif
