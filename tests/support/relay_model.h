// SPDX-License-Identifier: MIT
// What the relay has to do, written down a second time: not how VKAClient does it, but what can be
// noticed from outside. Compared with the real agent by VKAClientRelayModel_test.cc.
#ifndef TESTS_SUPPORT_RELAY_MODEL_H
#define TESTS_SUPPORT_RELAY_MODEL_H

#include <tests/support/client_io.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <set>
#include <string>
#include <vector>

namespace vkatest {

/** What a read does if the relay makes it: yields bytes (none: the end), or fails. */
struct Source {
    size_t size = 0;
    unsigned char first = 0;
    int err = 0;

    /** Bytes of which no two neighbours, rows or pages are alike. */
    std::string bytes() const {
        std::string all(size, '\0');
        for (size_t i = 0; i < size; ++i)
            all[i] = static_cast<char>(first + 7 * i + i / 256);
        return all;
    }
};

/** What a write does if the relay makes it: takes so many bytes at most (none: the end), or fails.
 */
struct Sink {
    size_t most = SIZE_MAX;
    int err = 0;
};

/** What everything around the agent does in one pass of the host's loop. */
struct World {
    Source clientSays, childSays;
    Sink clientTakes, childTakes;
    int interrupted = 0, acceptErr = 0;
    bool closeFails = false;
};

typedef std::set<int> Fds;

/** All that can be noticed of one call of the agent. */
struct Seen {
    Io io; // the calls, and the results that they were given
    std::string log;
    std::string dumps;  // the part of the log that is written without the lock
    std::string thrown; // number and text of an IOException
    bool ended = false; // the process
    Fds readable, writable;
    int readableNum = 0, writableNum = 0;
    std::vector<std::string> runLog;

    // Known only to the model: what kinds of things happened, for counting.
    std::set<std::string> events;
};

/**
 * An agent, and the process that it lives in.
 *
 * The count that is held against the bound is not kept but follows from what happened to the
 * child's output: what is no longer here but was not dropped, and what still waits.
 */
struct RelayModel {
    bool running = false;
    unsigned int debug = 0;
    size_t bound = 0;

    int conn = -1, master = -1, slave = -1, server = -1;
    int former = -1; // the client before
    int accepted = 0;

    std::string input;              // from the client, for the child
    std::deque<std::string> output; // from the child, for the client; oldest first
    size_t gone = 0;                // bytes of output fetched by clients or as run log
    bool corrected = false;         // a derived class has changed count or bound

    size_t queued() const {
        size_t sum = 0;
        for (const std::string& chunk : output)
            sum += chunk.size();
        return sum;
    }
    size_t counted() const { return gone + queued(); }
    void setCounted(size_t count) {
        gone = count - queued();
        corrected = true;
    }

    /** A process starts and constructs an agent. */
    void start(size_t _bound, unsigned int _debug) {
        *this = RelayModel();
        running = true;
        debug = _debug;
        bound = _bound;
        master = fakeMaster;
        slave = fakeSlave;
        server = fakeServer;
    }

    /** addConsole() with what the host has put into the sets before. */
    Seen addConsole(const Fds& readable, const Fds& writable) const {
        Seen seen;
        seen.readable = readable;
        seen.writable = writable;
        if (conn != -1 && input.empty())
            seen.readable.insert(conn);
        if (conn != -1 && !output.empty())
            seen.writable.insert(conn);
        if (conn == -1 && server != -1)
            seen.readable.insert(server);
        if (master != -1)
            seen.readable.insert(master);
        if (master != -1 && !input.empty())
            seen.writable.insert(master);
        seen.readableNum = seen.readable.empty() ? 0 : *seen.readable.rbegin() + 1;
        seen.writableNum = seen.writable.empty() ? 0 : *seen.writable.rbegin() + 1;
        return seen;
    }

    /** getRunLog() */
    Seen getRunLog() {
        Seen seen;
        seen.events.insert(output.empty() ? "run log: empty" : "run log: with chunks");
        seen.runLog.assign(output.begin(), output.end());
        gone += queued();
        output.clear();
        return seen;
    }

    /** handleData() */
    Seen handleData(const Fds& readable, const Fds& writable, const World& world);
};

/** One handleData(), step by step. */
class RelayPass {
public:
    RelayPass(RelayModel& _relay, const Fds& _readable, const Fds& _writable, const World& _world)
        : relay(_relay), readable(_readable), writable(_writable), world(_world) {}

    Seen take() {
        seen.io.closeFails = world.closeFails;
        try {
            if (relay.conn != -1) {
                readClient();
                writeClient();
            }
            if (relay.master != -1) {
                readMaster();
                writeMaster();
            }
            accept();
        } catch (const Left&) {
        }
        return seen;
    }

private:
    /** The pass is left early. */
    struct Left {};

    void readClient() {
        if (!isSet(readable, relay.conn))
            return;
        const Source& source = world.clientSays;
        const std::string bytes = read(relay.conn, source);
        line(2, "read (" + result(source.err, source.size) +
                    ") data from fdConn=" + text(relay.conn) + " to bufConn2Child");
        throwIf(source.err, "cannot read from TCP port");
        if (source.size == 0) {
            lineWithPid(2, ": EOF, shutdown connection, close fdConn=" + text(relay.conn));
            closeClient();
            event("end: of the client's stream");
            return;
        }
        dump("fdconn", bytes);
        if (!relay.input.empty())
            event("input: added to what waits");
        relay.input += bytes;
        if (relay.input.size() > 512)
            event("input: more than one read waits");
    }

    void writeClient() {
        if (!isSet(writable, relay.conn) || relay.output.empty())
            return;
        std::string& chunk = relay.output.front();
        const Sink& sink = world.clientTakes;
        const size_t taken = write(relay.conn, chunk, sink);
        line(2, "write (" + text(chunk.size()) + '/' + result(sink.err, taken) +
                    ") data from bufChild2Conn to fdConn=" + text(relay.conn));
        throwIf(sink.err, "cannot write to TCP port");
        if (taken == 0) {
            lineWithPid(1, ": EOF, shutdown connection, close fdConn=" + text(relay.conn));
            closeClient();
            event("end: the client takes nothing");
            return;
        }
        relay.gone += taken;
        event(taken < chunk.size() ? "output: chunk taken in part" : "output: chunk taken whole");
        if (taken < chunk.size())
            chunk = chunk.substr(taken);
        else
            relay.output.pop_front();
        if (relay.counted() == relay.bound && relay.bound > 0 && relay.output.empty())
            event("bound: used up by clients");
    }

    void readMaster() {
        if (!isSet(readable, relay.master))
            return;
        const Source& source = world.childSays;
        const std::string bytes = read(relay.master, source);
        line(2, "read (" + result(source.err, source.size) +
                    ") data from the PTY master=" + text(relay.master) + " to bufChild2Conn");
        throwIf(source.err, "cannot read from PTTY");
        if (source.size == 0) {
            lineWithPid(2, ": close master=" + text(relay.master) + " slave=" + text(relay.slave));
            closeTerminal();
            event("end: of the terminal's stream");
            return;
        }
        dump("master", bytes);
        const size_t before = relay.counted();
        relay.output.push_back(bytes);
        if (relay.counted() < before)
            event("bound: count starts over");
        limitOutput();
    }

    void limitOutput() {
        if (relay.counted() == relay.bound)
            event("bound: reached exactly");
        size_t dropped = 0;
        for (; !relay.output.empty() && relay.counted() > relay.bound; ++dropped)
            relay.output.pop_front();
        if (dropped == 0)
            return;
        event(relay.output.empty() ? "bound: new chunk dropped" : "bound: only old chunks dropped");
        if (dropped > 2)
            event("bound: several chunks dropped");
    }

    void writeMaster() {
        if (!isSet(writable, relay.master) || relay.input.empty())
            return;
        const Sink& sink = world.childTakes;
        const size_t taken = write(relay.master, relay.input, sink);
        line(2, "write (" + text(relay.input.size()) + '/' + result(sink.err, taken) +
                    ") data from bufConn2Child to the PTY master=" + text(relay.master));
        throwIf(sink.err, "cannot write to PTTY");
        if (taken == 0) {
            lineWithPid(2, "EOF: close master=" + text(relay.master) +
                               " slave=" + text(relay.slave)); // without ": "
            closeTerminal();
            event("end: the terminal takes nothing");
            return;
        }
        event(taken < relay.input.size() ? "input: taken in part" : "input: taken whole");
        relay.input = relay.input.substr(taken);
    }

    void accept() {
        if (relay.server == -1 || readable.count(relay.server) == 0)
            return;
        // Only an accept that a signal interrupts is made again.
        seen.io.interrupted = world.interrupted;
        for (int i = 0; i <= world.interrupted; ++i)
            call("accept", relay.server, sizeof(sockaddr));
        if (world.interrupted > 0)
            event("accept: interrupted");

        if (relay.conn != -1)
            event("accept: replaces a client");
        else if (relay.former != -1 && world.acceptErr == 0)
            event(relay.output.empty() ? "accept: next client" : "accept: next client, old output");
        if (relay.conn != -1)
            relay.former = relay.conn;
        if (world.acceptErr != 0) {
            seen.io.accepted = -world.acceptErr;
            relay.conn = -1;
            event("accept: fails");
        } else {
            relay.conn = fakeConn + relay.accepted++ % (lastConn - fakeConn + 1);
            seen.io.accepted = relay.conn;
        }
        lineWithPid(1, ": connection request: fdConn=" + text(relay.conn));
    }

    /** A test of a descriptor in a set; on -1 it ends the process. */
    bool isSet(const Fds& fds, int fd) {
        if (fd != -1)
            return fds.count(fd) != 0;
        seen.ended = true;
        relay.running = false;
        throw Left();
    }

    /** @return the bytes that come, none for a failure */
    std::string read(int fd, const Source& source) {
        call("read", fd, 512);
        const std::string bytes = source.err != 0 ? "" : source.bytes();
        seen.io.reads.push_back({bytes, source.err});
        return bytes;
    }

    /** @return the bytes taken */
    size_t write(int fd, const std::string& bytes, const Sink& sink) {
        call("write", fd, bytes.size());
        const size_t taken = sink.err != 0 ? 0 : std::min(sink.most, bytes.size());
        seen.io.writes.push_back(sink.err != 0 ? -sink.err : static_cast<ssize_t>(taken));
        seen.io.written += bytes.substr(0, taken);
        return taken;
    }

    void closeClient() {
        seen.io.calls.push_back("close " + text(relay.conn));
        relay.former = relay.conn;
        relay.conn = -1;
    }

    void closeTerminal() {
        seen.io.calls.push_back("close " + text(relay.master));
        seen.io.calls.push_back("close " + text(relay.slave));
        relay.master = relay.slave = -1;
    }

    void throwIf(int err, const std::string& message) {
        if (err == 0)
            return;
        seen.thrown = text(err) + ' ' + message + ": " + strerror(err);
        event("throws: " + message);
        for (int named : {EINTR, EAGAIN, EIO, ECONNRESET}) {
            if (err == named)
                event("throws: " + message + ": " + strerror(err));
        }
        throw Left();
    }

    void call(const std::string& name, int fd, size_t size) {
        seen.io.calls.push_back(name + ' ' + text(fd) + ' ' + text(size));
    }

    void line(unsigned int level, const std::string& message) {
        if (relay.debug >= level)
            seen.log += debugLine("handleData", message);
    }
    void lineWithPid(unsigned int level, const std::string& message) {
        if (relay.debug >= level)
            seen.log += pidLine("handleData", message);
    }

    /** Rows of 16 numbers. */
    void dump(const std::string& prefix, const std::string& bytes) {
        if (relay.debug < 3)
            return;
        event(bytes.size() > 16 ? "dump: of several rows" : "dump: of one row");
        std::string rows;
        for (size_t i = 0; i < bytes.size(); ++i) {
            const unsigned char byte = static_cast<unsigned char>(bytes[i]);
            if (i % 16 == 0)
                rows += (i == 0 ? "" : "\n") + prefix;
            rows += {' ', "0123456789abcdef"[byte / 16], "0123456789abcdef"[byte % 16]};
        }
        seen.log += rows + '\n';
        seen.dumps += rows + '\n';
    }

    static std::string text(size_t number) { return std::to_string(number); }
    static std::string text(int number) { return std::to_string(number); }
    static std::string result(int err, size_t moved) { return err != 0 ? "-1" : text(moved); }

    void event(const std::string& name) { seen.events.insert(name); }

    RelayModel& relay;
    const Fds& readable;
    const Fds& writable;
    const World& world;
    Seen seen;
};

inline Seen RelayModel::handleData(const Fds& readable, const Fds& writable, const World& world) {
    return RelayPass(*this, readable, writable, world).take();
}

} // namespace vkatest

#endif
