// SPDX-License-Identifier: MIT
#ifndef MAZE_H
#define MAZE_H

#include <string>
#include <vector>

// A maze with one way between any two places, dug anew from each seed.
class Maze {
public:
    Maze(int columns, int rows, unsigned seed);

    // Moves the walker one step if no wall is in the way.
    void move(int dx, int dy);

    bool solved() const;
    int steps() const { return _steps; }

    // The picture, one string per line.
    std::vector<std::string> picture() const;

private:
    void dig(unsigned seed);

    int _width, _height; // walls included, both odd
    std::vector<std::string> _cells;
    int _x, _y;
    int _steps;
};

#endif
