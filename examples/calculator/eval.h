// SPDX-License-Identifier: MIT
#ifndef EVAL_H
#define EVAL_H

/*
 * Evaluates "NAME = EXPRESSION" or "EXPRESSION": + - * / % ( ), numbers and variables. A line's
 * value is also kept in the variable "ans". Returns 0 and sets *result, or returns -1 and sets
 * *error to what is wrong.
 */
int evaluate(const char* line, double* result, const char** error);

/* Calls show for every variable, in the order in which they were first set. */
void each_variable(void (*show)(const char* name, double value));

#endif
