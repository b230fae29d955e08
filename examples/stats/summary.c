// SPDX-License-Identifier: MIT
#include "summary.h"

/* Updates mean and squared distances in one pass, which stays exact where sums would cancel. */
void summary_add(struct summary* s, double value) {
    double distance = value - s->mean;
    if (s->count == 0 || value < s->least)
        s->least = value;
    if (s->count == 0 || value > s->greatest)
        s->greatest = value;
    ++s->count;
    s->mean += distance / (double)s->count;
    s->squares += distance * (value - s->mean);
}

double summary_variance(const struct summary* s) {
    return s->count < 2 ? 0 : s->squares / (double)(s->count - 1);
}
