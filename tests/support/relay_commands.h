// SPDX-License-Identifier: MIT
// What can happen to a relay: each command changes the model, makes the real agent do the same, and
// compares everything that can be noticed.
#ifndef TESTS_SUPPORT_RELAY_COMMANDS_H
#define TESTS_SUPPORT_RELAY_COMMANDS_H

#include <libqvio/IOException>
#include <tests/support/process_end.h>
#include <tests/support/relay_model.h>

#include <rapidcheck.h>
#include <rapidcheck/state.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <typeinfo>

namespace vkatest {

/** How often each kind of event was met with the real agent. */
inline std::map<std::string, size_t> coverage;

/** The process that the real agent lives in. */
struct RelayHost {
    ~RelayHost() { end(); }
    void end() {
        const Log log;
        agent.reset();
    }

    std::unique_ptr<RelayAgent> agent;
};

/** Short enough to read: long texts as size, beginning and end. */
inline std::string brief(const std::string& text) {
    std::string shown = rc::toString(text);
    if (text.size() > 200 && text.find("[DEBUG]") == std::string::npos)
        shown = std::to_string(text.size()) + " bytes, " + rc::toString(text.substr(0, 8)) +
                " ... " + rc::toString(text.substr(text.size() - 8));
    return shown;
}
template <typename T>
std::string brief(const T& value) {
    return rc::toString(value);
}
template <typename Container>
std::string briefList(const Container& chunks) {
    std::string all = std::to_string(chunks.size()) + " (";
    for (const auto& chunk : chunks)
        all += ' ' + brief(std::string(chunk.begin(), chunk.end()));
    return all + " )";
}
inline std::string brief(const std::deque<std::string>& chunks) {
    return briefList(chunks);
}
inline std::string brief(const std::deque<byteVec_t>& chunks) {
    return briefList(chunks);
}

/** Ends the sequence with a report. */
template <typename Actual, typename Expected>
[[noreturn]] void fail(const std::string& what, const Actual& actual, const Expected& expected) {
    const std::string difference =
        what + "\n    is          " + brief(actual) + "\n    but must be " + brief(expected);
    RC_FAIL(difference);
}

template <typename Actual, typename Expected>
void expectEqual(const char* what, const Actual& actual, const Expected& expected) {
    if (!(actual == expected))
        fail(what, actual, expected);
}

inline bool sameBytes(const byteVec_t& actual, const std::string& expected) {
    return std::equal(actual.begin(), actual.end(), expected.begin(), expected.end(),
                      [](unsigned char a, char b) { return a == static_cast<unsigned char>(b); });
}
inline void expectBytes(const char* what, const byteVec_t& actual, const std::string& expected) {
    if (!sameBytes(actual, expected))
        fail(what, std::string(actual.begin(), actual.end()), expected);
}

inline void expectState(const RelayAgent& agent, const RelayModel& model) {
    expectEqual("fdConn", agent.fdConn, model.conn);
    expectEqual("master", agent.master, model.master);
    expectEqual("slave", agent.slave, model.slave);
    expectEqual("fdServer", agent.fdServer, model.server);
    expectBytes("bufConn2Child", agent.bufConn2Child, model.input);
    if (!std::equal(agent.bufChild2Conn.begin(), agent.bufChild2Conn.end(), model.output.begin(),
                    model.output.end(), sameBytes))
        fail("bufChild2Conn", agent.bufChild2Conn, model.output);
    expectEqual("bufsize", agent.bufsize, model.counted());
    expectEqual("maxbufsize", agent.maxbufsize, model.bound);
    expectEqual("debug", agent.debug, model.debug);
    // What follows for the whole life of an agent.
    if (!model.corrected && model.bound < SIZE_MAX - 512)
        RC_ASSERT(model.counted() <= model.bound);
}

inline void expectSame(const Seen& actual, const Seen& expected) {
    expectEqual("what was thrown", actual.thrown, expected.thrown);
    expectEqual("the end of the process", actual.ended, expected.ended);
    expectEqual("the system calls", actual.io.calls, expected.io.calls);
    expectEqual("what was written", actual.io.written, expected.io.written);
    expectEqual("the log", actual.log, expected.log);
    expectEqual("the log outside the lock", actual.dumps, expected.dumps);
    expectEqual("rfds", actual.readable, expected.readable);
    expectEqual("wfds", actual.writable, expected.writable);
    expectEqual("rfds.num()", actual.readableNum, expected.readableNum);
    expectEqual("wfds.num()", actual.writableNum, expected.writableNum);
    expectEqual("the run log", actual.runLog, expected.runLog);
}

inline FdSet toSet(const Fds& fds) {
    FdSet set;
    for (int fd : fds)
        set += fd;
    return set;
}
inline Fds toFds(const FdSet& set) {
    Fds fds;
    for (int fd = 0; fd < set.num(); ++fd) {
        if (set.isSet(fd))
            fds.insert(fd);
    }
    return fds;
}

/** Lets the agent act in the world that the model has met, and notes everything. */
template <typename Act>
Seen watch(const Seen& expected, const Act& act) {
    Log log;
    const StderrText lastWords;
    io = Io();
    io.reads = expected.io.reads;
    io.writes = expected.io.writes;
    io.accepted = expected.io.accepted;
    io.interrupted = expected.io.interrupted;
    io.closeFails = expected.io.closeFails;

    Seen seen;
    seen.ended = endsProcess([&] {
        try {
            act(seen);
        } catch (const std::exception& e) {
            seen.thrown = typeid(e).name();
            if (typeid(e) == typeid(IOException))
                seen.thrown =
                    std::to_string(dynamic_cast<const IOException&>(e).getError()) + ' ' + e.what();
        }
    });
    seen.io.calls = io.calls;
    seen.io.written = io.written;
    seen.log = log.out();
    seen.dumps = log.unlocked();
    expectEqual("std::cerr", log.err(), "");
    expectEqual("what is not flushed", log.unflushed(), "");
    if (seen.ended)
        RC_ASSERT(lastWords.text().find("descriptor -1 ") != std::string::npos);
    else
        expectEqual("stderr", lastWords.text(), "");
    return seen;
}

typedef rc::state::Command<RelayModel, RelayHost> RelayCommand;

/** A call of the agent. */
class Call : public RelayCommand {
public:
    void checkPreconditions(const RelayModel& model) const override { RC_PRE(model.running); }
    void apply(RelayModel& model) const override { expect(model); }
    void run(const RelayModel& before, RelayHost& host) const override {
        RelayModel after = before;
        const Seen expected = expect(after);
        const Seen seen = watch(expected, [&](Seen& noted) { act(before, *host.agent, noted); });
        expectSame(seen, expected);
        expectState(*host.agent, after);
        ++coverage["calls"];
        for (const std::string& event : expected.events)
            ++coverage[event];
    }

private:
    virtual Seen expect(RelayModel& model) const = 0;
    /** @param model before the call */
    virtual void act(const RelayModel& model, RelayAgent& agent, Seen& seen) const = 0;
};

/** Which of the agent's descriptors something holds for. */
struct Roles {
    bool client = false, terminal = false, listener = false;
    bool others = false; // the slave, the client before, and a descriptor of the host

    Fds fds(const RelayModel& model) const {
        Fds found;
        const auto add = [&](bool wanted, int fd) {
            if (wanted && fd != -1)
                found.insert(fd);
        };
        add(client, model.conn);
        add(terminal, model.master);
        add(listener, model.server);
        add(others, model.slave);
        add(others, model.former);
        add(others, 11);
        return found;
    }
};

inline std::ostream& operator<<(std::ostream& os, const Roles& roles) {
    return os << '{' << (roles.client ? " client" : "") << (roles.terminal ? " terminal" : "")
              << (roles.listener ? " listener" : "") << (roles.others ? " others" : "") << " }";
}
inline std::ostream& operator<<(std::ostream& os, const Source& source) {
    if (source.err != 0)
        return os << strerror(source.err);
    return os << source.size << " bytes from " << static_cast<int>(source.first) << " on";
}
inline std::ostream& operator<<(std::ostream& os, const Sink& sink) {
    if (sink.err != 0)
        return os << strerror(sink.err);
    return sink.most == SIZE_MAX ? os << "all" : os << sink.most << " bytes at most";
}
/** A count of bytes; the highest ones as distance from SIZE_MAX. */
struct Count {
    size_t value;
};
inline std::ostream& operator<<(std::ostream& os, const Count& count) {
    if (count.value < SIZE_MAX - 100000)
        return os << count.value;
    return os << "SIZE_MAX - " << SIZE_MAX - count.value;
}

/** handleData() with descriptors found ready. */
class Pass : public Call {
public:
    Pass(bool _obedient, const Roles& _readable, const Roles& _writable, const World& _world)
        : obedient(_obedient), readable(_readable), writable(_writable), world(_world) {}

    void show(std::ostream& os) const override {
        os << (obedient ? "the loop, ready if asked for:" : "handleData for any ready:") << " read "
           << readable << " write " << writable;
        if (readable.client)
            os << "; client says: " << world.clientSays;
        if (writable.client)
            os << "; client takes: " << world.clientTakes;
        if (readable.terminal)
            os << "; child says: " << world.childSays;
        if (writable.terminal)
            os << "; child takes: " << world.childTakes;
        if (readable.listener && world.interrupted > 0)
            os << "; accept is interrupted: " << world.interrupted << " times";
        if (readable.listener && world.acceptErr != 0)
            os << "; accept: " << strerror(world.acceptErr);
        if (world.closeFails)
            os << "; close fails";
    }

private:
    Seen expect(RelayModel& model) const override {
        const auto [rfds, wfds] = ready(model);
        return model.handleData(rfds, wfds, world);
    }
    void act(const RelayModel& model, RelayAgent& agent, Seen&) const override {
        FdSet rfds, wfds; // plain values: the call may not come back
        {
            const auto sets = ready(model);
            rfds = toSet(sets.first);
            wfds = toSet(sets.second);
        }
        agent.handleData(rfds, wfds);
    }

    /** The sets as select() leaves them: in an obedient host a part of what the agent asks for. */
    std::pair<Fds, Fds> ready(const RelayModel& model) const {
        Fds rfds = readable.fds(model), wfds = writable.fds(model);
        if (obedient) {
            const Seen asked = model.addConsole({}, {});
            rfds = common(rfds, asked.readable);
            wfds = common(wfds, asked.writable);
        }
        return {rfds, wfds};
    }
    static Fds common(const Fds& a, const Fds& b) {
        Fds both;
        std::set_intersection(a.begin(), a.end(), b.begin(), b.end(),
                              std::inserter(both, both.end()));
        return both;
    }

    const bool obedient;
    const Roles readable, writable;
    const World world;
};

/** addConsole() into sets that may already hold something. */
class Ask : public Call {
public:
    Ask(const Roles& _readable, const Roles& _writable)
        : readable(_readable), writable(_writable) {}

    void show(std::ostream& os) const override {
        os << "addConsole to read " << readable << " write " << writable;
    }

private:
    Seen expect(RelayModel& model) const override {
        return model.addConsole(readable.fds(model), writable.fds(model));
    }
    void act(const RelayModel& model, RelayAgent& agent, Seen& seen) const override {
        FdSet rfds = toSet(readable.fds(model)), wfds = toSet(writable.fds(model));
        agent.addConsole(rfds, wfds);
        seen.readable = toFds(rfds);
        seen.writable = toFds(wfds);
        seen.readableNum = rfds.num();
        seen.writableNum = wfds.num();
    }

    const Roles readable, writable;
};

class TakeRunLog : public Call {
public:
    void show(std::ostream& os) const override { os << "getRunLog"; }

private:
    Seen expect(RelayModel& model) const override { return model.getRunLog(); }
    void act(const RelayModel&, RelayAgent& agent, Seen& seen) const override {
        seen.runLog = {"from before"};
        agent.getRunLog(seen.runLog);
    }
};

/** A derived class sets the count: to what really waits, or to anything. */
class SetCount : public Call {
public:
    explicit SetCount(std::optional<Count> _count) : count(_count) {}

    void show(std::ostream& os) const override {
        os << "bufsize = ";
        if (count)
            os << *count;
        else
            os << "what waits";
    }

private:
    Seen expect(RelayModel& model) const override {
        model.setCounted(count ? count->value : model.queued());
        Seen seen;
        seen.events.insert("derived class: sets the count");
        return seen;
    }
    void act(const RelayModel& model, RelayAgent& agent, Seen&) const override {
        agent.bufsize = count ? count->value : model.queued();
    }

    const std::optional<Count> count;
};

/** A derived class sets the bound; what waits is looked at with the next chunk only. */
class SetBound : public Call {
public:
    explicit SetBound(Count _bound) : bound(_bound) {}

    void show(std::ostream& os) const override { os << "maxbufsize = " << bound; }

private:
    Seen expect(RelayModel& model) const override {
        model.bound = bound.value;
        model.corrected = true;
        Seen seen;
        seen.events.insert("derived class: sets the bound");
        return seen;
    }
    void act(const RelayModel&, RelayAgent& agent, Seen&) const override {
        agent.maxbufsize = bound.value;
    }

    const Count bound;
};

/** The error path of run() closes terminal and listener; the client stays. */
class LoseConsole : public Call {
public:
    void show(std::ostream& os) const override { os << "the console is closed"; }

private:
    Seen expect(RelayModel& model) const override {
        model.master = model.slave = model.server = -1;
        Seen seen;
        seen.events.insert("console closed");
        return seen;
    }
    void act(const RelayModel&, RelayAgent& agent, Seen&) const override {
        agent.master = agent.slave = agent.fdServer = -1;
    }
};

/** A process starts, in place of the one before, and constructs an agent. */
class Start : public RelayCommand {
public:
    Start(Count _bound, unsigned int _debug) : bound(_bound), debug(_debug) {}

    void show(std::ostream& os) const override {
        os << "a new agent: maxbufsize " << bound << ", debug " << debug;
    }
    void apply(RelayModel& model) const override { model.start(bound.value, debug); }
    void run(const RelayModel& before, RelayHost& host) const override {
        host.end();
        const Log log;
        host.agent = std::make_unique<RelayAgent>(debug, bound.value);
        host.agent->fdConn = -1;
        expectState(*host.agent, nextState(before));
        ++coverage["agents"];
        ++coverage["debug " + std::to_string(debug)];
    }

private:
    const Count bound;
    const unsigned int debug;
};

} // namespace vkatest

#endif
