// SPDX-License-Identifier: MIT
#include <libqvutil/QVException>

QVException& QVException::operator=(const QVException& other) {
    if (this != &other) {
        const std::string message = other.str();
        std::exception::operator=(other);
        clear();
        str(message);
        seekp(0, std::ios_base::end);
        code = other.code;
        text = other.text;
    }
    return *this;
}

const char* QVException::what() const noexcept {
    try {
        const std::string now = str();
        if (now != text) // an earlier answer stays valid otherwise
            text = now;
    } catch (...) {
        // what() must answer even without memory
    }
    return text.c_str();
}
