// SPDX-License-Identifier: MIT
// Does one thing COUNT times, for counting what it costs: counted THING COUNT.
#include "sockets.h"

#include <libqvio/fileutils>

#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>

namespace {

/** Output of the program, a chunk in each pass: what came before is written, the next is read. */
void output(unsigned long count) {
    SocketRelay relay;
    for (unsigned long i = 0; i < count; ++i) {
        SocketRelay::send(relay.programSide());
        relay.pass();
        if (i > 0)
            SocketRelay::receive(relay.clientSide());
    }
}

/** Input for the program: it takes a pass to read a chunk, and one to write it. */
void input(unsigned long count) {
    SocketRelay relay;
    for (unsigned long i = 0; i < count; ++i) {
        SocketRelay::send(relay.clientSide());
        relay.pass();
        relay.pass();
        SocketRelay::receive(relay.programSide());
    }
}

void lines(unsigned long count) {
    std::vector<std::string> output;
    const std::string line(59, 'x');
    require(getCmdCallOutput("yes " + line + " | head -n " + std::to_string(count), output, true) ==
                0,
            "yes");
    require(output.size() == count, "lines are missing");
}

void construct(unsigned long count) {
    for (unsigned long i = 0; i < count; ++i)
        VKAClient("/tmp", false, 0, 0, "", 0);
}

void remove(unsigned long count) {
    require(mkdir("/tmp/bench-tree", 0777) == 0, "mkdir");
    for (unsigned long i = 0; i < count; ++i) {
        const std::string path = "/tmp/bench-tree/" + std::to_string(i);
        close(creat(path.c_str(), 0666));
    }
    require(getppid() != -1, "marks the start");
    require(rmDir("/tmp/bench-tree", true) == 0, "rmDir");
    require(getppid() != -1, "marks the end");
}

const struct {
    const char* name;
    void (*run)(unsigned long);
} things[] = {{"output", output},
              {"input", input},
              {"lines", lines},
              {"construct", construct},
              {"remove", remove}};

} // namespace

int main(int argc, char* argv[]) {
    for (const auto& thing : things) {
        if (argc == 3 && std::strcmp(thing.name, argv[1]) == 0) {
            thing.run(std::strtoul(argv[2], nullptr, 10));
            return 0;
        }
    }
    return 2;
}
