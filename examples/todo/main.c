// SPDX-License-Identifier: MIT
#include <stdio.h>
#include <stdlib.h>

#include "input.h"
#include "list.h"

static struct list items;

static void add(const char* text) {
    size_t number;
    if (*text == '\0')
        puts("add what?");
    else if ((number = list_add(&items, text)) == 0)
        puts("the list is full");
    else
        printf("%zu added\n", number);
}

static void change(int (*action)(struct list*, size_t), const char* number) {
    if (action(&items, strtoul(number, NULL, 10)) == -1)
        puts("no such item");
}

static void show(void) {
    size_t i;
    for (i = 0; i < items.count; ++i)
        printf("%3zu [%c] %s\n", i + 1, items.items[i].done ? 'x' : ' ', items.items[i].text);
    printf("%zu open\n", list_open_count(&items));
}

static void help(void) {
    puts("add TEXT   append an item\n"
         "done N     mark item N as done\n"
         "drop N     remove item N\n"
         "list       all items\n"
         "help       this text\n"
         "quit       end; the exit status is the number of open items");
}

int main(void) {
    char line[256];
    const char* rest;
    puts("todo: type help");
    for (;;) {
        fputs(TODO_PROMPT, stdout);
        fflush(stdout);
        if (!read_line(line, sizeof line))
            return 255;
        if (argument_of("quit", line))
            return (int)list_open_count(&items);
        if ((rest = argument_of("add", line)))
            add(rest);
        else if ((rest = argument_of("done", line)))
            change(list_finish, rest);
        else if ((rest = argument_of("drop", line)))
            change(list_remove, rest);
        else if (argument_of("list", line))
            show();
        else if (argument_of("help", line))
            help();
        else if (line[0] != '\0')
            puts("what? try help");
    }
}
