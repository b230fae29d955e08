// SPDX-License-Identifier: MIT
#ifndef TESTS_SUPPORT_WAIT_H
#define TESTS_SUPPORT_WAIT_H

#include <chrono>
#include <thread>

namespace vkatest {

/** Longer than anything awaited ever takes, also under a sanitizer or an emulator. */
const std::chrono::milliseconds patience(120000);

/** Milliseconds since construction. */
class Stopwatch {
public:
    long ms() const {
        return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                     std::chrono::steady_clock::now() - start)
                                     .count());
    }

private:
    const std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
};

/** Waits until the condition holds. @return whether it did before the deadline */
template <typename Condition>
bool waitUntil(Condition condition, std::chrono::milliseconds limit = patience) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

} // namespace vkatest

#endif
