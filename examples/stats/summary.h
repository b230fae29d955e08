// SPDX-License-Identifier: MIT
#ifndef SUMMARY_H
#define SUMMARY_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Running count, extremes, mean and spread of a series, kept without its values. All zero: empty.
 */
struct summary {
    size_t count;
    double least, greatest, mean, squares;
};

void summary_add(struct summary* s, double value);

/* Sample variance; 0 for fewer than two values. */
double summary_variance(const struct summary* s);

#ifdef __cplusplus
}
#endif

#endif
