// SPDX-License-Identifier: MIT
#include <libqvio/LogUtil>

#include <libqvio/IOException>

#include "tests/support/capture.h"

#include <gtest/gtest.h>

#include <iostream>
#include <map>
#include <thread>
#include <typeinfo>
#include <vector>

using vkatest::Capture;
using vkatest::FailingBuf;

namespace {

bool lockIsFree() {
    bool free = false;
    std::thread([&free] {
        free = LogUtil::logMutex.try_lock();
        if (free)
            LogUtil::logMutex.unlock();
    }).join();
    return free;
}

/** Reports, when written to a stream, whether the lock is held. */
struct LockProbe {
    friend std::ostream& operator<<(std::ostream& os, const LockProbe&) {
        return os << (lockIsFree() ? "free" : "held");
    }
};

struct Thrower {
    friend std::ostream& operator<<(std::ostream&, const Thrower&) { throw std::bad_cast(); }
};

/** Lets other threads run between any two insertions, so that unlocked lines do mix. */
class YieldingBuf : public std::stringbuf {
protected:
    std::streamsize xsputn(const char* text, std::streamsize n) override {
        std::this_thread::yield();
        return std::stringbuf::xsputn(text, n);
    }
};

} // namespace

TEST(LogUtil, LineHasTagClassFunctionItemsAndLineEnd) {
    std::ostringstream os;
    QV_LOG_LINE(os, "[DEBUG] ", "VKAClient", "exec", "exec: pid=" << 1234 << ": exec");
    EXPECT_EQ("[DEBUG] VKAClient::exec() exec: pid=1234: exec\n", os.str());
}

TEST(LogUtil, LineNamesTheCallingFunction) {
    std::ostringstream os;
    QV_LOG_LINE(os, "[INFO] ", "VKAClient", __func__, __func__ << ": x");
    EXPECT_EQ("[INFO] VKAClient::TestBody() TestBody: x\n", os.str());
}

TEST(LogUtil, LineIsFlushed) {
    const Capture out(std::cout);
    QV_LOG_LINE(std::cout, "[INFO] ", "VKAClient", "run", "x");
    EXPECT_EQ("[INFO] VKAClient::run() x\n", out.text());
    EXPECT_EQ(1, out.flushes());
}

TEST(LogUtil, LineIsOneStatement) {
    std::ostringstream os;
    if (os.good())
        QV_LOG_LINE(os, "[INFO] ", "VKAClient", "run", "yes");
    else
        QV_LOG_LINE(os, "[INFO] ", "VKAClient", "run", "no");
    EXPECT_EQ("[INFO] VKAClient::run() yes\n", os.str());
}

TEST(LogUtil, LockIsHeldForTheLineOnly) {
    std::ostringstream os;
    QV_LOG_LINE(os, "[INFO] ", "VKAClient", "run", LockProbe());
    EXPECT_EQ("[INFO] VKAClient::run() held\n", os.str());
    EXPECT_TRUE(lockIsFree());
}

TEST(LogUtil, ThreadsWriteWholeLines) {
    const int threads = 4, lines = 500;
    YieldingBuf buf;
    std::ostream os(&buf);
    std::vector<std::thread> writers;
    for (int id = 0; id < threads; ++id) {
        writers.emplace_back([&os, id] {
            for (int i = 0; i < lines; ++i)
                QV_LOG_LINE(os, "[INFO] ", "Writer", "write", id << ' ' << i << " end");
        });
    }
    for (std::thread& writer : writers)
        writer.join();

    std::map<int, int> next;
    std::istringstream written(buf.str());
    for (std::string line; std::getline(written, line);) {
        std::istringstream fields(line);
        std::string tag, name;
        int id = -1;
        fields >> tag >> name >> id;
        ASSERT_EQ("[INFO] Writer::write() " + std::to_string(id) + ' ' +
                      std::to_string(next[id]++) + " end",
                  line);
    }
    for (int id = 0; id < threads; ++id)
        EXPECT_EQ(lines, next[id]) << "of thread " << id;
}

TEST(LogUtil, ThrowingStreamReleasesTheLock) {
    for (size_t room = 0; room <= 30; ++room) {
        SCOPED_TRACE(room);
        FailingBuf buf(room);
        std::ostream os(&buf);
        os.exceptions(std::ios_base::badbit);
        bool thrown = false;
        try {
            QV_LOG_LINE(os, "[INFO] ", "VKAClient", "run", "text");
        } catch (const std::ios_base::failure&) {
            thrown = true;
        }
        const size_t lineLength = 29;
        EXPECT_EQ(room <= lineLength, thrown);
        EXPECT_TRUE(lockIsFree());
    }
}

TEST(LogUtil, ThrowingItemReleasesTheLock) {
    std::ostringstream os;
    bool thrown = false;
    try {
        QV_LOG_LINE(os, "[INFO] ", "VKAClient", "run", Thrower());
    } catch (const std::bad_cast&) {
        thrown = true;
    }
    EXPECT_TRUE(thrown);
    EXPECT_TRUE(lockIsFree());
}

TEST(LogUtil, PrintErrorCompletesTheLineUnderTheCallersLock) {
    const Capture err(std::cerr), out(std::cout);
    {
        const IOException e(16, "VKA process(es) already running");
        std::lock_guard<std::mutex> log_qv_locker(LogUtil::logMutex);
        std::cerr << "[ERROR] VKAClient::run() " << e.getErrorString();
        LogUtil::printError(e.getError());
        EXPECT_FALSE(lockIsFree());
    }
    EXPECT_TRUE(lockIsFree());
    EXPECT_EQ("[ERROR] VKAClient::run() Device or resource busy (errno 16)\n", err.text());
    EXPECT_EQ("", out.text());
}

TEST(LogUtil, PrintErrorFlushes) {
    const Capture err(std::cerr);
    std::cerr.unsetf(std::ios_base::unitbuf);
    LogUtil::printError(5);
    std::cerr.setf(std::ios_base::unitbuf);
    EXPECT_EQ(" (errno 5)\n", err.text());
    EXPECT_EQ(1, err.flushes());
}
