// SPDX-License-Identifier: MIT
#ifndef WORLD_H
#define WORLD_H

#include <map>
#include <set>
#include <string>

struct Room {
    std::string description;
    std::map<std::string, std::string> exits; // direction to the name of a room
    std::set<std::string> things;
};

// The lighthouse: where everything is. Each command answers with the text to show.
class World {
public:
    World();

    std::string look() const;
    std::string go(const std::string& direction);
    std::string take(const std::string& thing);
    std::string use(const std::string& thing);
    std::string inventory() const;

    bool lampLit() const { return _lampLit; }

private:
    std::map<std::string, Room> _rooms;
    std::string _here;
    std::set<std::string> _carried;
    bool _doorOpen;
    bool _lampLit;
};

#endif
