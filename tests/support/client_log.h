// SPDX-License-Identifier: MIT
#ifndef TESTS_SUPPORT_CLIENT_LOG_H
#define TESTS_SUPPORT_CLIENT_LOG_H

#include <libqvio/LogUtil>

#include <cerrno>
#include <iostream>
#include <pthread.h>
#include <sstream>
#include <streambuf>
#include <string>
#include <unistd.h>

namespace vkatest {

/**
 * Takes what is written to std::cout and std::cerr as long as it lives, and notes what was written
 * without the log lock.
 *
 * Every write and flush changes errno, as writing to a terminal may: a number that is taken from
 * errno after a log line is wrong then.
 */
class Log {
public:
    static const int scrambled = EXFULL;

    Log() : outBefore(std::cout.rdbuf(&outBuf)), errBefore(std::cerr.rdbuf(&errBuf)) {}
    ~Log() {
        std::cout.rdbuf(outBefore);
        std::cerr.rdbuf(errBefore);
    }
    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;

    std::string out() const { return outBuf.text; }
    std::string err() const { return errBuf.text; }
    /** What was written without LogUtil::logMutex. */
    std::string unlocked() const { return outBuf.unlocked + errBuf.unlocked; }
    /** What stands on std::cout behind the last flush. */
    std::string unflushed() const { return outBuf.text.substr(outBuf.flushed); }

    void clear() {
        outBuf.clear();
        errBuf.clear();
    }

private:
    struct Buf : std::streambuf {
        int_type overflow(int_type c) override {
            const char character = traits_type::to_char_type(c);
            return xsputn(&character, 1) == 1 ? c : traits_type::eof();
        }
        std::streamsize xsputn(const char* data, std::streamsize size) override {
            const std::string added(data, static_cast<size_t>(size));
            text += added;
            const int locked = pthread_mutex_trylock(LogUtil::logMutex.native_handle());
            if (locked == 0) {
                pthread_mutex_unlock(LogUtil::logMutex.native_handle());
                unlocked += added;
            }
            errno = scrambled;
            return size;
        }
        int sync() override {
            flushed = text.size();
            errno = scrambled;
            return 0;
        }
        void clear() {
            text.clear();
            unlocked.clear();
            flushed = 0;
        }

        std::string text, unlocked;
        size_t flushed = 0;
    };

    Buf outBuf, errBuf;
    std::streambuf* const outBefore;
    std::streambuf* const errBefore;
};

inline std::string infoLine(const std::string& function, const std::string& message) {
    return "[INFO] VKAClient::" + function + "() " + message + '\n';
}
inline std::string debugLine(const std::string& function, const std::string& message) {
    return "[DEBUG] VKAClient::" + function + "() " + message + '\n';
}
/** A debug line whose message repeats the function's name and tells the process id. */
inline std::string pidLine(const std::string& function, const std::string& message,
                           pid_t pid = getpid()) {
    return debugLine(function, function + ": pid=" + std::to_string(pid) + message);
}

/** The text of any value that can be inserted into a stream. */
template <typename T>
std::string text(const T& value) {
    std::ostringstream os;
    os << value;
    return os.str();
}

} // namespace vkatest

#endif
