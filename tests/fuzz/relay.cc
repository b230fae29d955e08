// SPDX-License-Identifier: MIT
// The relay on descriptors without files: the input says what is ready and what each transfer does.
#include "require.h"

#include <libqvio/IOException>
#include <tests/support/client_agent.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <fuzzer/FuzzedDataProvider.h>
#include <iostream>
#include <streambuf>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

enum : int { fakeMaster = 605, fakeSlave = 606, fakeServer = 607, otherFile = 608, clients = 609 };

/** A log line may change errno. */
class ScramblingBuf : public std::streambuf {
    int_type overflow(int_type) override {
        errno = EXFULL;
        return 0;
    }
    std::streamsize xsputn(const char*, std::streamsize size) override {
        errno = EXFULL;
        return size;
    }
    int sync() override {
        errno = EXFULL;
        return 0;
    }
};

/** A set of the descriptors above. */
class Descriptors {
public:
    /** -1 stands for none. */
    void add(int fd) { bits |= bit(fd); }
    void remove(int fd) { bits &= ~bit(fd); }
    bool has(int fd) const { return (bits & bit(fd)) != 0; }
    bool operator==(const Descriptors& other) const { return bits == other.bits; }

private:
    static uint64_t bit(int fd) {
        REQUIRE(fd >= -1 && fd < fakeMaster + 64);
        return fd >= fakeMaster ? UINT64_C(1) << (fd - fakeMaster) : 0;
    }
    uint64_t bits = 0;
};

/** Thrown where FdSet ends the process. */
struct Ended {};

class RelayAgent : public Agent {
public:
    RelayAgent(size_t _maxbufsize, unsigned int _debug)
        : Agent("/w", false, _maxbufsize, 0, "", _debug) {
        for (int fd : {fakeMaster, fakeSlave, fakeServer})
            open.add(fd);
        master = fakeMaster;
        slave = fakeSlave;
        fdServer = fakeServer;
    }
    ~RelayAgent() override { master = slave = fdServer = fdConn = -1; }

    Descriptors open;
};

/** What the system calls of one handleData() do, and what they did. */
struct Calls {
    Calls(FuzzedDataProvider& _input, RelayAgent& _agent) : input(_input), agent(_agent) {}

    FuzzedDataProvider& input;
    RelayAgent& agent;

    std::string steps; // a letter for each: r, w (client), R, W (terminal), a
    std::string fromClient, toClient, fromChild, toChild;
    bool ended = false; // a read met the end
    bool clientClosed = false;
    int err = 0; // of a failed transfer
    int accepted = -1;
};
Calls* calls; // null while calls are not the product's

int anyError() {
    return calls->input.PickValueInArray({EINTR, EAGAIN, EIO, ECONNRESET, EPIPE, ENOMEM});
}

ssize_t transferFails() {
    calls->err = anyError();
    errno = calls->err;
    return -1;
}

std::string textOf(const Agent::buf_t& queue) {
    std::string text;
    for (const byteVec_t& chunk : queue)
        text.append(chunk.begin(), chunk.end());
    return text;
}

std::vector<size_t> sizesOf(const Agent::buf_t& queue) {
    std::vector<size_t> sizes;
    sizes.reserve(queue.size() + 1);
    for (const byteVec_t& chunk : queue)
        sizes.push_back(chunk.size());
    return sizes;
}

FdSet setOf(FuzzedDataProvider& input, const FdSet& proper, const Agent& agent) {
    const unsigned chosen = input.ConsumeIntegral<uint8_t>();
    const bool anything = chosen >= 0xf0;
    FdSet set;
    unsigned bit = 1;
    for (int fd : {agent.fdConn, agent.master, agent.fdServer, int(otherFile)}) {
        if ((chosen & bit) != 0 && fd != -1 && (anything || proper.isActiveAndSet(fd)))
            set += fd;
        bit <<= 1;
    }
    return set;
}

void checkAddConsole(RelayAgent& agent, FdSet& rfds, FdSet& wfds) {
    agent.addConsole(rfds, wfds);
    for (int fd = fakeMaster; fd < clients + 8; ++fd) {
        const bool isConn = fd == agent.fdConn, isMaster = fd == agent.master;
        REQUIRE(rfds.isSet(fd) == ((isConn && agent.bufConn2Child.empty()) || isMaster ||
                                   (fd == fakeServer && agent.fdConn == -1)));
        REQUIRE(wfds.isSet(fd) == ((isConn && !agent.bufChild2Conn.empty()) ||
                                   (isMaster && !agent.bufConn2Child.empty())));
    }
}

/** What has to be known from before a handleData(). */
struct Before {
    explicit Before(const RelayAgent& agent)
        : fdConn(agent.fdConn), master(agent.master), bufsize(agent.bufsize),
          queue(textOf(agent.bufChild2Conn)), chunks(sizesOf(agent.bufChild2Conn)),
          input(agent.bufConn2Child.begin(), agent.bufConn2Child.end()) {}

    const int fdConn, master;
    const size_t bufsize;
    const std::string queue;
    std::vector<size_t> chunks;
    const std::string input;
};

/** Nothing is left out, repeated or done in another order, but what follows a failure. */
void checkSteps(const Before& before, const FdSet& rfds, const FdSet& wfds, const Calls& done) {
    std::string due;
    if (rfds[before.fdConn])
        due += 'r';
    if (wfds[before.fdConn] && !before.queue.empty())
        due += 'w';
    if (rfds[before.master])
        due += 'R';
    if (wfds[before.master] && !(before.input + done.fromClient).empty())
        due += 'W';
    if (rfds[fakeServer])
        due += 'a';
    const bool whole = done.err == 0 && !done.ended;
    REQUIRE(done.steps == (whole ? due : due.substr(0, done.steps.size())));
}

/** Every byte of the client's is on its way to the child or there, in order. */
void checkInput(const Before& before, const RelayAgent& agent, const Calls& done) {
    const std::string left(agent.bufConn2Child.begin(), agent.bufConn2Child.end());
    REQUIRE(done.toChild + left == before.input + done.fromClient);
}

/** Of the child's bytes the client has got the first; whole chunks were dropped behind these. */
void checkOutput(Before& before, const RelayAgent& agent, const Calls& done) {
    const std::string all = before.queue + done.fromChild, left = textOf(agent.bufChild2Conn);
    REQUIRE(all.compare(0, done.toClient.size(), done.toClient) == 0);
    REQUIRE(all.size() >= done.toClient.size() + left.size());
    REQUIRE(all.compare(all.size() - left.size(), left.size(), left) == 0);
    const size_t dropped = all.size() - done.toClient.size() - left.size();
    REQUIRE(agent.bufsize == before.bufsize + done.fromChild.size() - dropped);

    std::vector<size_t>& chunks = before.chunks;
    if (!done.fromChild.empty())
        chunks.push_back(done.fromChild.size());
    auto chunk = chunks.begin();
    if (!done.toClient.empty()) {
        *chunk -= done.toClient.size();
        chunk += *chunk == 0;
    }
    size_t last = 0;
    for (size_t rest = dropped; rest != 0; rest -= last) {
        last = *chunk++;
        REQUIRE(last <= rest);
    }
    REQUIRE(sizesOf(agent.bufChild2Conn) == std::vector<size_t>(chunk, chunks.end()));
    REQUIRE(dropped == 0 || (!done.fromChild.empty() && agent.bufsize + last > agent.maxbufsize));
    REQUIRE(done.fromChild.empty() || left.empty() || agent.bufsize <= agent.maxbufsize);
    REQUIRE(agent.bufsize >= left.size());
}

/** The agent has what is open and nothing else; lost: clients that another one was accepted over.
 */
void checkDescriptors(const Before& before, const RelayAgent& agent, const Calls& done,
                      Descriptors& lost) {
    const int client = done.clientClosed ? -1 : before.fdConn;
    if (done.steps.find('a') != std::string::npos) {
        REQUIRE(agent.fdConn == done.accepted);
        lost.add(client);
    } else {
        REQUIRE(agent.fdConn == client);
    }
    Descriptors expected = lost;
    for (int fd : {agent.fdConn, agent.master, agent.slave, agent.fdServer})
        expected.add(fd);
    REQUIRE(agent.open == expected);
    REQUIRE((agent.master == -1) == (agent.slave == -1));
}

/** @return false when the process ends, as it has to at the end of a stream */
bool handleData(FuzzedDataProvider& input, RelayAgent& agent, Descriptors& lost) {
    FdSet properReads, properWrites;
    checkAddConsole(agent, properReads, properWrites);
    const FdSet rfds = setOf(input, properReads, agent);
    const FdSet wfds = setOf(input, properWrites, agent);

    Before before(agent);
    Calls done(input, agent);
    bool ended = false;
    std::string failed;
    calls = &done;
    try {
        agent.handleData(rfds, wfds);
    } catch (const Ended&) {
        ended = true;
    } catch (const IOException& failure) {
        failed = failure.what();
        REQUIRE(failure.getError() == done.err);
    }
    calls = nullptr;

    REQUIRE(ended == done.ended);
    REQUIRE(failed.empty() == (done.err == 0));
    if (!failed.empty()) {
        const char last = done.steps.back();
        const std::string what = last == 'r'   ? "cannot read from TCP port: "
                                 : last == 'w' ? "cannot write to TCP port: "
                                 : last == 'R' ? "cannot read from PTTY: "
                                               : "cannot write to PTTY: ";
        REQUIRE(failed.compare(0, what.size(), what) == 0);
    }
    checkSteps(before, rfds, wfds, done);
    checkInput(before, agent, done);
    checkOutput(before, agent, done);
    checkDescriptors(before, agent, done, lost);
    return !ended;
}

void fetchRunLog(RelayAgent& agent) {
    const std::string queue = textOf(agent.bufChild2Conn);
    const size_t chunks = agent.bufChild2Conn.size(), bufsize = agent.bufsize;
    std::vector<std::string> log(1, "replaced");
    agent.getRunLog(log);
    std::string text;
    for (const std::string& chunk : log)
        text += chunk;
    REQUIRE(text == queue && log.size() == chunks);
    REQUIRE(agent.bufChild2Conn.empty() && agent.bufsize == bufsize);
}

} // namespace

extern "C" {
ssize_t __real_read(int fd, void* buf, size_t size);
ssize_t __wrap_read(int fd, void* buf, size_t size);
ssize_t __wrap_read(int fd, void* buf, size_t size) {
    if (!calls)
        return __real_read(fd, buf, size);
    const bool isConn = fd == calls->agent.fdConn;
    REQUIRE(calls->agent.open.has(fd) && (isConn || fd == fakeMaster));
    REQUIRE(size == Agent::BUFSIZE && calls->err == 0);
    calls->steps += isConn ? 'r' : 'R';
    const unsigned result = calls->input.ConsumeIntegral<uint8_t>();
    if (result == 0xff)
        return transferFails();
    calls->ended = result == 0xfe;
    const size_t got = calls->ended ? 0 : result < 0xe0 ? 1 + result % 16 : 512 - (0xfd - result);
    static uint8_t next;
    for (size_t i = 0; i < got; ++i)
        static_cast<uint8_t*>(buf)[i] = next++;
    (isConn ? calls->fromClient : calls->fromChild).append(static_cast<const char*>(buf), got);
    return static_cast<ssize_t>(got);
}

ssize_t __real_write(int fd, const void* data, size_t size);
ssize_t __wrap_write(int fd, const void* data, size_t size);
ssize_t __wrap_write(int fd, const void* data, size_t size) {
    if (!calls)
        return __real_write(fd, data, size);
    const bool isConn = fd == calls->agent.fdConn;
    REQUIRE(calls->agent.open.has(fd) && (isConn || fd == fakeMaster));
    REQUIRE(size != 0 && calls->err == 0);
    calls->steps += isConn ? 'w' : 'W';
    const unsigned result = calls->input.ConsumeIntegral<uint8_t>();
    if (result == 0xff)
        return transferFails();
    const size_t taken = result == 0xfe ? 0 : result < 0x80 ? size : 1 + result % size;
    (isConn ? calls->toClient : calls->toChild).append(static_cast<const char*>(data), taken);
    return static_cast<ssize_t>(taken);
}

int __real_close(int fd);
int __wrap_close(int fd);
int __wrap_close(int fd) {
    if (!calls)
        return __real_close(fd);
    REQUIRE(calls->agent.open.has(fd) && fd != fakeServer);
    calls->agent.open.remove(fd);
    calls->clientClosed = calls->clientClosed || fd == calls->agent.fdConn;
    errno = EIO;
    return -1; // closed nevertheless
}

int __real_accept(int fd, sockaddr* addr, socklen_t* size);
int __wrap_accept(int fd, sockaddr* addr, socklen_t* size);
int __wrap_accept(int fd, sockaddr* addr, socklen_t* size) {
    if (!calls)
        return __real_accept(fd, addr, size);
    REQUIRE(fd == fakeServer && *size == sizeof(*addr) && calls->err == 0);
    const unsigned result = calls->input.ConsumeIntegral<uint8_t>();
    if (result >= 0xf0) {
        errno = EINTR; // asked again
        return -1;
    }
    calls->steps += 'a';
    if (result >= 0xe0) {
        errno = EMFILE;
        return -1;
    }
    calls->accepted = clients;
    while (calls->agent.open.has(calls->accepted))
        ++calls->accepted;
    calls->agent.open.add(calls->accepted);
    return calls->accepted;
}

// FdSet::outOfRange(int)
[[noreturn]] void __wrap__ZN5FdSet10outOfRangeEi(int fd);
void __wrap__ZN5FdSet10outOfRangeEi(int fd) {
    REQUIRE(calls && fd == -1);
    throw Ended();
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static ScramblingBuf log;
    static std::streambuf* const usual = std::cout.rdbuf(&log);
    (void)usual;

    FuzzedDataProvider input(data, size);
    const unsigned chosen = input.ConsumeIntegral<uint8_t>();
    const unsigned debug = chosen < 0xe0 ? 0 : chosen % 4; // writing the log takes long
    const size_t bound = input.ConsumeIntegral<uint8_t>() < 16
                             ? SIZE_MAX - Agent::BUFSIZE
                             : input.ConsumeIntegral<uint16_t>() % 2048;
    RelayAgent agent(bound, debug);
    Descriptors lost;
    bool lives = true;
    while (lives && input.remaining_bytes() != 0) {
        const unsigned step = input.ConsumeIntegral<uint8_t>();
        if (step >= 0xf8)
            fetchRunLog(agent);
        else if (step >= 0xf0)
            agent.bufsize = textOf(agent.bufChild2Conn).size(); // as a derived class may
        else
            lives = handleData(input, agent, lost);
    }
    return 0;
}
}
