// SPDX-License-Identifier: MIT
// Played key by key on a terminal in raw mode, so lines end in CR LF and nothing is echoed.
#include <ctime>
#include <iostream>
#include <string>

#include "maze.h"

namespace {

const char clearScreen[] = "\033[H\033[2J";
const char helpText[] = "h j k l or the arrow keys move @ to X; n another maze, ? this text,\r\n"
                        "q gives up (exit status 1); reaching X ends with exit status 0\r\n";

void draw(const Maze& maze) {
    std::cout << clearScreen;
    for (const std::string& line : maze.picture())
        std::cout << line << "\r\n";
    std::cout << "steps: " << maze.steps() << "  (? for help)\r\n" << std::flush;
}

// Reads one key; an arrow key, sent as ESC [ A to D, is returned as the letter for it.
char readKey() {
    char c = 'q';
    std::cin.get(c);
    if (c != '\033')
        return c;
    std::cin.get(c);
    if (c != '[')
        return c;
    std::cin.get(c);
    return c == 'A' ? 'k' : c == 'B' ? 'j' : c == 'C' ? 'l' : c == 'D' ? 'h' : c;
}

} // namespace

int main() {
    unsigned seed = static_cast<unsigned>(std::time(nullptr));
    Maze maze(16, 8, seed);
    draw(maze);
    while (!maze.solved()) {
        switch (readKey()) {
        case 'h':
            maze.move(-1, 0);
            break;
        case 'l':
            maze.move(1, 0);
            break;
        case 'k':
            maze.move(0, -1);
            break;
        case 'j':
            maze.move(0, 1);
            break;
        case 'n':
            maze = Maze(16, 8, ++seed);
            break;
        case '?':
            std::cout << helpText << std::flush;
            continue;
        case 'q':
            std::cout << "Another time.\r\n" << std::flush;
            return 1;
        default:
            continue;
        }
        draw(maze);
    }
    std::cout << "Out in " << maze.steps() << " steps.\r\n" << std::flush;
    return 0;
}
