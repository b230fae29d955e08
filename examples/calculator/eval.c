// SPDX-License-Identifier: MIT
/* Recursive descent: an expression adds terms, a term multiplies factors. */
#include "eval.h"

#include <ctype.h>
#include <stdlib.h>
#include <string.h>

enum { MAX_VARIABLES = 64, MAX_NAME = 16 };

struct variable {
    char name[MAX_NAME];
    double value;
};

static struct variable variables[MAX_VARIABLES];
static size_t variable_count;

static const char* at;      /* the next character of the line */
static const char* problem; /* the first thing found wrong, or null */

static void fail(const char* what) {
    if (!problem)
        problem = what;
}

static void skip_blanks(void) {
    while (isspace((unsigned char)*at))
        ++at;
}

static int accept(char c) {
    skip_blanks();
    if (*at != c)
        return 0;
    ++at;
    return 1;
}

static struct variable* find(const char* name) {
    size_t i;
    for (i = 0; i < variable_count; ++i)
        if (strcmp(variables[i].name, name) == 0)
            return &variables[i];
    return NULL;
}

static void set(const char* name, double value) {
    struct variable* v = find(name);
    if (!v) {
        if (variable_count == MAX_VARIABLES) {
            fail("too many variables");
            return;
        }
        v = &variables[variable_count++];
        strcpy(v->name, name);
    }
    v->value = value;
}

static int read_name(char name[MAX_NAME]) {
    size_t length = 0;
    skip_blanks();
    while (isalpha((unsigned char)*at) || (length > 0 && isdigit((unsigned char)*at))) {
        if (length == MAX_NAME - 1) {
            fail("name too long");
            return 0;
        }
        name[length++] = *at++;
    }
    name[length] = '\0';
    return length > 0;
}

static double expression(void);

static double factor(void) {
    char name[MAX_NAME];
    double value = 0;
    if (accept('-'))
        return -factor();
    if (accept('(')) {
        value = expression();
        if (!accept(')'))
            fail("missing )");
    } else if (isdigit((unsigned char)*at) || *at == '.') {
        char* end;
        value = strtod(at, &end);
        if (end == at)
            fail("not a number");
        at = end;
    } else if (read_name(name)) {
        const struct variable* v = find(name);
        if (v)
            value = v->value;
        else
            fail("unknown variable");
    } else
        fail("number, name or ( expected");
    return value;
}

static double divide(double a, double b, int remainder) {
    if (b == 0) {
        fail("division by zero");
        return 0;
    }
    if (!remainder)
        return a / b;
    if (a / b > 1e15 || a / b < -1e15) {
        fail("quotient too large for %");
        return 0;
    }
    return a - (double)(long long)(a / b) * b;
}

static double term(void) {
    double value = factor();
    while (!problem) {
        if (accept('*'))
            value *= factor();
        else if (accept('/'))
            value = divide(value, factor(), 0);
        else if (accept('%'))
            value = divide(value, factor(), 1);
        else
            break;
    }
    return value;
}

static double expression(void) {
    double value = term();
    while (!problem) {
        if (accept('+'))
            value += term();
        else if (accept('-'))
            value -= term();
        else
            break;
    }
    return value;
}

int evaluate(const char* line, double* result, const char** error) {
    char name[MAX_NAME];
    int assignment;
    at = line;
    problem = NULL;
    assignment = read_name(name) && accept('=');
    if (!assignment)
        at = line;
    *result = expression();
    if (!problem && !accept('\0'))
        fail("unexpected text at the end");
    if (!problem && assignment)
        set(name, *result);
    if (!problem)
        set("ans", *result);
    *error = problem;
    return problem ? -1 : 0;
}

void each_variable(void (*show)(const char* name, double value)) {
    size_t i;
    for (i = 0; i < variable_count; ++i)
        show(variables[i].name, variables[i].value);
}
