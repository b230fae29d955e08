// SPDX-License-Identifier: MIT
#include "maze.h"

#include <algorithm>
#include <random>
#include <utility>

Maze::Maze(int columns, int rows, unsigned seed)
    : _width(2 * columns + 1), _height(2 * rows + 1),
      _cells(static_cast<size_t>(_height), std::string(static_cast<size_t>(_width), '#')), _x(1),
      _y(1), _steps(0) {
    dig(seed);
}

// Walks at random into solid wall two cells at a time and turns back where it finds none left.
void Maze::dig(unsigned seed) {
    std::mt19937 random(seed);
    std::vector<std::pair<int, int>> way(1, {1, 1});
    _cells[1][1] = ' ';
    while (!way.empty()) {
        const int x = way.back().first, y = way.back().second;
        std::vector<std::pair<int, int>> turns = {{1, 0}, {-1, 0}, {0, 1}, {0, -1}};
        std::shuffle(turns.begin(), turns.end(), random);
        const auto solid = [&](const std::pair<int, int>& turn) {
            const int toX = x + 2 * turn.first, toY = y + 2 * turn.second;
            return toX > 0 && toX < _width && toY > 0 && toY < _height && _cells[toY][toX] == '#';
        };
        const auto turn = std::find_if(turns.begin(), turns.end(), solid);
        if (turn == turns.end()) {
            way.pop_back();
            continue;
        }
        _cells[y + turn->second][x + turn->first] = ' ';
        _cells[y + 2 * turn->second][x + 2 * turn->first] = ' ';
        way.push_back({x + 2 * turn->first, y + 2 * turn->second});
    }
}

void Maze::move(int dx, int dy) {
    if (_cells[_y + dy][_x + dx] == '#')
        return;
    _x += dx;
    _y += dy;
    ++_steps;
}

bool Maze::solved() const {
    return _x == _width - 2 && _y == _height - 2;
}

std::vector<std::string> Maze::picture() const {
    std::vector<std::string> lines = _cells;
    lines[_height - 2][_width - 2] = 'X';
    lines[_y][_x] = '@';
    return lines;
}
