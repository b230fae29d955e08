// SPDX-License-Identifier: MIT
#include <libqvio/LogUtil>

#include <iostream>

std::mutex LogUtil::logMutex;

void LogUtil::printError(int err) {
    std::cerr << " (errno " << err << ')' << std::endl;
}
