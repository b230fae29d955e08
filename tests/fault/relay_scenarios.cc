// SPDX-License-Identifier: MIT
// The console relay, between a real terminal and a real connection.
#include "scenario.h"

#include <tests/support/client_agent.h>
#include <tests/support/client_tcp.h>
#include <tests/support/client_terminal.h>

using namespace vkatest;

namespace {

struct Relay {
    Relay() : agent("/nowhere", true, 100000, 0, "", 3), client(agent) { makeRaw(agent.slave); }
    void connect() { pass({agent.fdServer}, {}); }
    void pass(const std::initializer_list<int>& reads, const std::initializer_list<int>& writes) {
        for (int fd : reads)
            await(fd, POLLIN);
        agent.handleData(FdSet(reads), FdSet(writes));
    }
    static void await(int fd, short events) {
        pollfd entry = {fd, events, 0};
        poll(&entry, 1, static_cast<int>(patience.count()));
    }

    Agent agent;
    TcpClient client;
};

/** What is where after a pass: nothing may be lost or doubled. */
std::string state(Relay& relay, const std::string& outcome) {
    std::string queued;
    for (const byteVec_t& chunk : relay.agent.bufChild2Conn)
        queued.append(chunk.begin(), chunk.end());
    const std::string waiting(relay.agent.bufConn2Child.begin(), relay.agent.bufConn2Child.end());
    return outcome + ", client " + (relay.agent.fdConn == -1 ? "-" : "+") + ", terminal " +
           (relay.agent.master == -1 ? "-" : "+") + ", queued <" + queued + ">, waiting <" +
           waiting + ">, counted " + std::to_string(relay.agent.bufsize);
}

std::string acceptClientHere() {
    Relay relay;
    return state(relay, armed([&] { relay.connect(); }));
}

/** Failures of one pass, then the same pass again: what comes out in the end is all there is. */
template <typename Pass>
std::string twice(Relay& relay, Pass pass) {
    const std::string first = state(relay, armed(pass));
    if (first.compare(0, 11, "IOException") == 0)
        pass();
    return first + "; at last " + state(relay, "done");
}

std::string clientToBuffer() {
    Relay relay;
    relay.connect();
    relay.client.say("to the child");
    return twice(relay, [&] { relay.pass({relay.agent.fdConn}, {}); });
}

std::string bufferToTerminal() {
    Relay relay;
    relay.connect();
    relay.client.say("to the child");
    relay.pass({relay.agent.fdConn}, {});
    const std::string outcome = twice(relay, [&] { relay.pass({}, {relay.agent.master}); });
    return outcome + ", child has " + readUntil(relay.agent.slave, "to the child");
}

std::string terminalToQueue() {
    Relay relay;
    relay.connect();
    if (write(relay.agent.slave, "to the client", 13) != 13)
        return "cannot write";
    return twice(relay, [&] { relay.pass({relay.agent.master}, {}); });
}

std::string queueToClient() {
    Relay relay;
    relay.connect();
    if (write(relay.agent.slave, "to the client", 13) != 13)
        return "cannot write";
    relay.pass({relay.agent.master}, {});
    const std::string outcome = twice(relay, [&] { relay.pass({}, {relay.agent.fdConn}); });
    std::string heard;
    waitUntil([&] { return (heard += relay.client.hear()).size() >= 13; });
    return outcome + ", client has " + heard;
}

std::string allFourInOnePass() {
    Relay relay;
    relay.connect();
    for (int round = 0; round < 2; ++round) {
        relay.client.say("in");
        if (write(relay.agent.slave, "out", 3) != 3)
            return "cannot write";
        if (round == 0) {
            relay.pass({relay.agent.fdConn, relay.agent.master}, {});
            relay.pass({}, {relay.agent.master});
        }
    }
    return state(relay, armed([&] {
                     relay.pass({relay.agent.fdConn, relay.agent.master},
                                {relay.agent.fdConn, relay.agent.master});
                 }));
}

std::string watched() {
    Relay relay;
    relay.connect();
    FdSet reads, writes;
    const std::string outcome = armed([&] { relay.agent.addConsole(reads, writes); });
    return outcome + ", " + std::to_string(reads[relay.agent.fdConn]) +
           std::to_string(reads[relay.agent.master]) + std::to_string(writes.num());
}

std::string runLog() {
    Relay relay;
    relay.connect();
    for (int i = 0; i < 5; ++i) {
        const std::string chunk(100 + static_cast<size_t>(i), 'x');
        if (write(relay.agent.slave, chunk.data(), chunk.size()) !=
            static_cast<ssize_t>(chunk.size()))
            return "cannot write";
        relay.pass({relay.agent.master}, {});
    }
    VKAClient::args_t log = {"old"};
    const std::string outcome = armed([&] { relay.agent.getRunLog(log); });
    return outcome + ", " + std::to_string(log.size()) + " of them, " +
           std::to_string(relay.agent.bufChild2Conn.size()) + " left";
}

} // namespace

std::vector<Scenario> relayScenarios() {
    return {
        {"relay-accept",
         acceptClientHere,
         {
             {"accept:EINTR", "="},
             {"accept", "done, client -, terminal +, queued <>, waiting <>, counted 0"},
             {"malloc", "=|bad_alloc, *"},
         },
         0},
        {"relay-client-read",
         clientToBuffer,
         {
             {"read", "IOException $E cannot read from TCP port, client +, terminal +, queued <>, "
                      "waiting <>, counted 0; at last done, client +, terminal +, queued <>, "
                      "waiting <to the child>, counted 0"},
             {"malloc", "=|bad_alloc, client +, terminal +, queued <>, waiting <*>, counted 0; *"},
         },
         0},
        {"relay-master-write",
         bufferToTerminal,
         {
             {"write", "IOException $E cannot write to PTTY, client +, terminal +, queued <>, "
                       "waiting <to the child>, counted 0; at last done, client +, terminal +, "
                       "queued <>, waiting <>, counted 0, child has to the child"},
             {"malloc", "="},
         },
         0},
        {"relay-master-read",
         terminalToQueue,
         {
             {"read", "IOException $E cannot read from PTTY, client +, terminal +, queued <>, "
                      "waiting <>, counted 0; at last done, client +, terminal +, queued <to the "
                      "client>, waiting <>, counted 13"},
             {"malloc", "=|bad_alloc, client +, terminal +, queued <*>, waiting <>, counted *; *"},
         },
         0},
        {"relay-client-write",
         queueToClient,
         {
             {"write", "IOException $E cannot write to TCP port, client +, terminal +, queued <to "
                       "the client>, waiting <>, counted 13; at last done, client +, terminal +, "
                       "queued <>, waiting <>, counted 13, client has to the client"},
             {"malloc", "="},
         },
         0},
        {"relay-all",
         allFourInOnePass,
         {
             {"read#1", "IOException $E cannot read from TCP port, client +, terminal +, queued "
                        "<out>, waiting <>, counted 3"},
             {"write#1", "IOException $E cannot write to TCP port, client +, terminal +, queued "
                         "<out>, waiting <in>, counted 3"},
             {"read#2", "IOException $E cannot read from PTTY, client +, terminal +, queued <>, "
                        "waiting <in>, counted 3"},
             {"write#2", "IOException $E cannot write to PTTY, client +, terminal +, queued <out>, "
                         "waiting <in>, counted 6"},
             {"malloc", "=|bad_alloc, client +, terminal +, *"},
         },
         0},
        {"relay-watch", watched, {}, 0},
        {"run-log", runLog, {{"malloc", "bad_alloc, * of them, 5 left"}}, 0},
    };
}
