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
        text = str();
    } catch (...) {
        // what() must answer even without memory
    }
    return text.c_str();
}
