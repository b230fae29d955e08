// SPDX-License-Identifier: MIT
#include <libqvio/IOException>

IOException::~IOException() noexcept {}
