// SPDX-License-Identifier: MIT
// The agent's log lines; for its sources only.
#ifndef LIBVKA_CLIENT_LOG_H
#define LIBVKA_CLIENT_LOG_H

#include <libqvio/LogUtil>

#include <iostream>

#define VKA_INFO(items) QV_LOG_LINE(std::cout, "[INFO] ", "VKAClient", __func__, items)
#define VKA_DEBUG(items) VKA_DEBUG_OF(__func__, items)
/** For the steps of an operation that logs under the operation's own name. */
#define VKA_DEBUG_OF(function, items)                                                              \
    QV_LOG_LINE(std::cout, "[DEBUG] ", "VKAClient", function, items)

#endif
