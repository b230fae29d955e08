// SPDX-License-Identifier: MIT
//
// cycles ARCHIVE COUNT: lets programs live under agents of one process, and looks after each what
// it left behind. ARCHIVE holds tool.c of the integration tests, and make is a stand-in that
// provides it built. The agents' log goes to standard output, the result to standard error.
#include <libqvio/IOException>
#include <tests/support/child.h>
#include <tests/support/client_agent.h>
#include <tests/support/client_tcp.h>
#include <tests/support/descriptors.h>
#include <tests/support/tempdir.h>
#include <tests/support/wait.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <malloc.h>
#include <optional>
#include <stdexcept>
#include <string>
#include <unistd.h>

using namespace vkatest;

namespace {

const size_t bound = 4096; // of the output kept; far less than passes in the life of an agent
const size_t agentDescriptors = 3; // listening socket and both sides of the terminal
const int settlingCycles = 100;
const size_t allowedGrowth = 64 * 1024;

void need(bool condition, const std::string& what) {
    if (!condition)
        throw std::runtime_error(what);
}

/** In bytes. */
struct Memory {
    size_t heap = 0;     // handed out by malloc: exact, and constant where nothing leaks
    size_t resident = 0; // of this process alone: the stack and what bypasses malloc count, too

    void raiseTo(const Memory& other) {
        heap = std::max(heap, other.heap);
        resident = std::max(resident, other.resident);
    }
};

Memory memoryInUse() {
    Memory memory;
    const struct mallinfo2 info = mallinfo2();
    memory.heap = info.uordblks + info.hblkhd;
    std::ifstream rollup("/proc/self/smaps_rollup");
    for (std::string line; std::getline(rollup, line);) {
        if (line.compare(0, 10, "Anonymous:") == 0)
            memory.resident = std::stoul(line.substr(10)) * 1024;
    }
    need(memory.resident != 0, "the kernel tells nothing of this process's memory");
    return memory;
}

void start(Agent& agent) {
    const pid_t host = getpid();
    try {
        agent.run();
    } catch (...) {
        if (getpid() != host)
            _exit(99);
        throw;
    }
}

void exchangeLine(Agent& agent, TcpClient& client, const std::string& line) {
    need(client.say("say " + line), "cannot send");
    std::string heard;
    need(pumpUntil(agent,
                   [&] {
                       heard += client.hear();
                       return heard.size() >= line.size();
                   }),
         "no answer");
    need(heard == line, "wrong answer: " + heard);
    need(agent.bufsize == heard.size(), "wrong count of what was fetched");
    agent.bufsize = 0; // nothing is queued; the agent itself never lowers its count
}

void dropByClosing(Agent& agent, TcpClient& client) {
    client.disconnect();
    need(clientHasGone(agent), "the end of the connection is not seen");
    forgetClient(agent);
}

void dropByReset(Agent& agent, TcpClient& client) {
    client.reset();
    try {
        pumpUntil(agent, [] { return false; });
        need(false, "the reset of the connection is not seen");
    } catch (const IOException& err) {
        need(err.getError() == ECONNRESET, err.what());
    }
    forgetClient(agent);
}

/** The life of one program, up to its client's going. */
void live(Agent& agent, int number, const std::string& archive) {
    VKAClient::args_t log;
    agent.build(archive, log, false);
    need(exists(agent.srcdir + "/tool.c"), "the archive was not unpacked");
    start(agent);
    TcpClient client(agent);
    need(client.connected(), "cannot connect");
    const size_t size = static_cast<size_t>(number % settlingCycles) * 15; // up to three chunks
    exchangeLine(agent, client, std::to_string(number) + std::string(size, 'x') + '\n');
    if (number % 2 == 0)
        dropByClosing(agent, client);
    else
        dropByReset(agent, client);
}

void runCycles(const std::string& archive, int count) {
    const TempDir dir;
    const size_t ownDescriptors = openDescriptors().size();
    std::optional<Agent> agent;
    int agents = 0, resets = 0;
    Memory settled, peak;
    const Stopwatch watch;
    for (int number = 0; number < count; ++number) {
        try {
            if (!agent || number % 4 < 2) { // the others take over the agent of the cycle before
                agent.reset();
                agent.emplace(dir.path().c_str(), true, bound, 0, "", 0);
                ++agents;
            }
            live(*agent, number, archive);
            resets += number % 2;
            if (number % 8 == 7)
                agent.reset(); // stops the program as well
            else
                agent->stop();
            need(!anyChildLeft(), "a child is left");
            const size_t expected = ownDescriptors + (agent ? agentDescriptors : 0);
            const size_t found = openDescriptors().size();
            need(found == expected, std::to_string(found) + " descriptors are open instead of " +
                                        std::to_string(expected));
            (number < settlingCycles ? settled : peak).raiseTo(memoryInUse());
            const auto grewFrom = [](size_t before, size_t now) {
                return now > before + allowedGrowth;
            };
            need(number < settlingCycles || !(grewFrom(settled.heap, peak.heap) ||
                                              grewFrom(settled.resident, peak.resident)),
                 "memory grows: heap from " + std::to_string(settled.heap) + " to " +
                     std::to_string(peak.heap) + " bytes, resident from " +
                     std::to_string(settled.resident) + " to " + std::to_string(peak.resident));
        } catch (const std::exception& err) {
            throw std::runtime_error("cycle " + std::to_string(number) + ": " + err.what());
        }
    }
    const auto growth = [](size_t before, size_t now) {
        return std::to_string(static_cast<long>(now) - static_cast<long>(before));
    };
    std::cerr << "cycles: " << count << " in " << watch.ms() / 1000 << " s, with " << agents
              << " agents; " << count - resets << " clients closed, " << resets
              << " reset; descriptors " << ownDescriptors << " + " << agentDescriptors
              << " and no child after each\n"
              << "cycles: peaks of memory in the first " << settlingCycles << " and since: heap "
              << settled.heap << " bytes, " << growth(settled.heap, peak.heap) << "; resident "
              << settled.resident << " bytes, " << growth(settled.resident, peak.resident)
              << std::endl;
}

} // namespace

int main(int argc, char* argv[]) {
    try {
        need(getenv("VKA_SANDBOX"), "uses the machine's /tmp; run it through tests/soak/run");
        need(argc == 3, "usage: cycles ARCHIVE COUNT");
        const int count = std::stoi(argv[2]);
        need(count > settlingCycles, "too few cycles");
        runCycles(argv[1], count);
        return 0;
    } catch (const std::exception& err) {
        std::cerr << "cycles: " << err.what() << std::endl;
        return 1;
    }
}
