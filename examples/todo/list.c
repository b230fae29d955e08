// SPDX-License-Identifier: MIT
#include "list.h"

#include <string.h>

size_t list_add(struct list* l, const char* text) {
    struct item* added;
    size_t length = strlen(text);
    if (l->count == TODO_MAX_ITEMS)
        return 0;
    if (length > TODO_MAX_TEXT)
        length = TODO_MAX_TEXT;
    added = &l->items[l->count];
    memcpy(added->text, text, length);
    added->text[length] = '\0';
    added->done = 0;
    return ++l->count;
}

int list_finish(struct list* l, size_t number) {
    if (number < 1 || number > l->count)
        return -1;
    l->items[number - 1].done = 1;
    return 0;
}

int list_remove(struct list* l, size_t number) {
    if (number < 1 || number > l->count)
        return -1;
    memmove(&l->items[number - 1], &l->items[number], (l->count - number) * sizeof l->items[0]);
    --l->count;
    return 0;
}

size_t list_open_count(const struct list* l) {
    size_t i, open = 0;
    for (i = 0; i < l->count; ++i)
        open += !l->items[i].done;
    return open;
}
