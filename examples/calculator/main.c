// SPDX-License-Identifier: MIT
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "eval.h"

/* Reads one line, which the client may end with LF, CR or both; 0 at the end of the input. */
static int read_line(char* line, size_t size) {
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

static void show_variable(const char* name, double value) {
    printf("%s = %.10g\n", name, value);
}

static void help(void) {
    puts("EXPRESSION         its value: numbers, names, + - * / % ( )\n"
         "NAME = EXPRESSION  set a variable; the last value is in ans\n"
         "vars               all variables\n"
         "help               this text\n"
         "quit [STATUS]      end, with exit status 0 or STATUS");
}

int main(void) {
    char line[256];
    puts("calculator: type help or an expression");
    for (;;) {
        fputs("> ", stdout);
        fflush(stdout);
        if (!read_line(line, sizeof line))
            return 1;
        if (strncmp(line, "quit", 4) == 0 && (line[4] == '\0' || line[4] == ' '))
            return atoi(line + 4);
        if (strcmp(line, "help") == 0)
            help();
        else if (strcmp(line, "vars") == 0)
            each_variable(show_variable);
        else if (line[0] != '\0') {
            double value;
            const char* error;
            if (evaluate(line, &value, &error) == 0)
                printf("%.10g\n", value);
            else
                printf("error: %s\n", error);
        }
    }
}
