// SPDX-License-Identifier: MIT
#ifndef CONFIG_H
#define CONFIG_H

#define TODO_PROMPT "todo> "
#define TODO_MAX_ITEMS 100
#define TODO_MAX_TEXT 60

#endif
