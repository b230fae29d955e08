// SPDX-License-Identifier: MIT
#ifndef LIST_H
#define LIST_H

#ifdef HAVE_CONFIG_H
#include "config.h"
#endif

#include <stddef.h>

struct item {
    char text[TODO_MAX_TEXT + 1];
    int done;
};

struct list {
    struct item items[TODO_MAX_ITEMS];
    size_t count;
};

/* Appends an item, its text cut to TODO_MAX_TEXT bytes; returns its number, or 0 when full. */
size_t list_add(struct list* l, const char* text);

/* Numbers start at 1; both return -1 for a number that is not in the list. */
int list_finish(struct list* l, size_t number);
int list_remove(struct list* l, size_t number);

size_t list_open_count(const struct list* l);

#endif
