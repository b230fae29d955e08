// SPDX-License-Identifier: MIT
// For one source of a test program that wraps read, write, close and accept: the relay's
// descriptors are numbers without a file behind them, and the test decides what each transfer does.
#ifndef TESTS_SUPPORT_CLIENT_IO_H
#define TESTS_SUPPORT_CLIENT_IO_H

#include <tests/support/client_agent.h>
#include <tests/support/client_log.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <optional>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace vkatest {

enum : int { fakeMaster = 605, fakeSlave = 606, fakeServer = 607, fakeConn = 608, newConn = 609 };
const int lastConn = FD_SETSIZE - 1; // all from fakeConn on are clients

inline bool isFake(int fd) {
    return fd >= fakeMaster && fd <= lastConn;
}

/** What the next transfers do, and what was done. */
struct Io {
    /** A read that yields bytes (none: the end), or a failure. */
    struct Read {
        std::string bytes;
        int err;
    };
    std::deque<Read> reads;
    /** Results of writes: bytes taken, or a negative error number; empty: all are taken. */
    std::deque<ssize_t> writes;
    int accepted = newConn; // result of accept; a negative error number for -1
    int interrupted = 0;    // accepts that a signal interrupts before
    bool closeFails = false;

    std::vector<std::string> calls;
    std::string written; // taken by all writes

    void yield(const std::string& bytes) { reads.push_back({bytes, 0}); }
    void failRead(int err) { reads.push_back({"", err}); }
};
inline Io io;

inline ssize_t result(int err) {
    errno = err;
    return -1;
}

/** An agent on descriptors without files. */
class RelayAgent : public Agent {
public:
    explicit RelayAgent(unsigned int _debug = 0, size_t _maxbufsize = 100000)
        : Agent("/w", false, _maxbufsize, 0, "", _debug) {
        master = fakeMaster;
        slave = fakeSlave;
        fdServer = fakeServer;
        fdConn = fakeConn;
        io = Io();
    }
    ~RelayAgent() override { master = slave = fdServer = fdConn = -1; }

    /** handleData() with the given descriptors ready. */
    void handle(const std::initializer_list<int>& readable,
                const std::initializer_list<int>& writable) {
        handleData(FdSet(readable), FdSet(writable));
    }
    /** The child writes, in one piece. */
    void childWrites(const std::string& bytes) {
        io.yield(bytes);
        handle({master}, {});
    }
};

inline byteVec_t toBytes(const std::string& text) {
    return byteVec_t(text.begin(), text.end());
}

} // namespace vkatest

extern "C" {
ssize_t __real_read(int fd, void* buf, size_t size);
ssize_t __wrap_read(int fd, void* buf, size_t size);
ssize_t __wrap_read(int fd, void* buf, size_t size) {
    using namespace vkatest;
    if (!isFake(fd))
        return __real_read(fd, buf, size);
    io.calls.push_back("read " + std::to_string(fd) + ' ' + std::to_string(size));
    if (io.reads.empty())
        return result(ENODATA);
    const Io::Read next = io.reads.front();
    io.reads.pop_front();
    if (next.err != 0)
        return result(next.err);
    if (next.bytes.size() > size)
        return result(EMSGSIZE);
    memcpy(buf, next.bytes.data(), next.bytes.size());
    return static_cast<ssize_t>(next.bytes.size());
}

ssize_t __real_write(int fd, const void* data, size_t size);
ssize_t __wrap_write(int fd, const void* data, size_t size);
ssize_t __wrap_write(int fd, const void* data, size_t size) {
    using namespace vkatest;
    if (!isFake(fd))
        return __real_write(fd, data, size);
    io.calls.push_back("write " + std::to_string(fd) + ' ' + std::to_string(size));
    ssize_t taken = static_cast<ssize_t>(size);
    if (!io.writes.empty()) {
        taken = io.writes.front();
        io.writes.pop_front();
    }
    if (taken < 0)
        return result(static_cast<int>(-taken));
    io.written.append(static_cast<const char*>(data), static_cast<size_t>(taken));
    return taken;
}

int __real_close(int fd);
int __wrap_close(int fd);
int __wrap_close(int fd) {
    using namespace vkatest;
    if (!isFake(fd))
        return __real_close(fd);
    io.calls.push_back("close " + std::to_string(fd));
    return io.closeFails ? static_cast<int>(result(EIO)) : 0;
}

int __real_accept(int fd, sockaddr* addr, socklen_t* size);
int __wrap_accept(int fd, sockaddr* addr, socklen_t* size);
int __wrap_accept(int fd, sockaddr* addr, socklen_t* size) {
    using namespace vkatest;
    if (!isFake(fd))
        return __real_accept(fd, addr, size);
    io.calls.push_back("accept " + std::to_string(fd) + ' ' + std::to_string(*size));
    if (io.interrupted > 0) {
        --io.interrupted;
        return static_cast<int>(result(EINTR));
    }
    return io.accepted < 0 ? static_cast<int>(result(-io.accepted)) : io.accepted;
}
}

#endif
