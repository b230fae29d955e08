// SPDX-License-Identifier: MIT
#include <iostream>
#include <sstream>
#include <string>

#include "world.h"

namespace {

const char helpText[] = "look                  where am I, what is here?\n"
                        "go DIRECTION          north, south, east, west, up, down\n"
                        "take THING, use THING\n"
                        "inventory             what do I carry?\n"
                        "quit                  give up: exit status 3\n"
                        "Lighting the lamp ends the game with exit status 0.";

// Reads one line, which the client may end with LF, CR or both.
bool readLine(std::string& line) {
    static bool afterCr = false;
    line.clear();
    char c;
    while (std::cin.get(c)) {
        if (c == '\n' && afterCr) {
            afterCr = false;
            continue;
        }
        afterCr = c == '\r';
        if (c == '\r' || c == '\n')
            return true;
        line += c;
    }
    return false;
}

std::string answer(World& world, const std::string& verb, const std::string& noun) {
    if (verb == "help")
        return helpText;
    if (verb == "look")
        return world.look();
    if (verb == "go")
        return world.go(noun);
    if (verb == "take")
        return world.take(noun);
    if (verb == "use")
        return world.use(noun);
    if (verb == "inventory")
        return world.inventory();
    return "I do not know how to do that; try help.";
}

} // namespace

int main() {
    World world;
    std::string line;
    std::cout << "A storm is coming. Type help if you are lost.\n" << world.look() << '\n';
    while (std::cout << "? " << std::flush && readLine(line)) {
        std::istringstream words(line);
        std::string verb, noun;
        words >> verb >> noun;
        if (verb.empty())
            continue;
        if (verb == "quit")
            return 3;
        std::cout << answer(world, verb, noun) << '\n';
        if (world.lampLit()) {
            std::cout << "The light is back. Well done." << std::endl;
            return 0;
        }
    }
    return 1;
}
