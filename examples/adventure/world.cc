// SPDX-License-Identifier: MIT
#include "world.h"

namespace {

const char nowhere[] = "You cannot go there.";

std::string listed(const std::set<std::string>& things) {
    std::string text;
    for (const std::string& thing : things)
        text += (text.empty() ? "" : ", ") + thing;
    return text;
}

} // namespace

World::World() : _here("beach"), _doorOpen(false), _lampLit(false) {
    _rooms["beach"] = {"A grey beach. A lighthouse stands dark to the north.",
                       {{"north", "door"}, {"east", "boathouse"}},
                       {"driftwood"}};
    _rooms["boathouse"] = {"A boathouse that smells of tar. The beach is to the west.",
                           {{"west", "beach"}},
                           {"key", "matches"}};
    _rooms["door"] = {"The lighthouse door. It is locked. The beach is to the south.",
                      {{"south", "beach"}, {"up", "lamp"}},
                      {}};
    _rooms["lamp"] = {"The lamp room. The great lamp is out; a ship's bell rings close by.",
                      {{"down", "door"}},
                      {}};
}

std::string World::look() const {
    const Room& room = _rooms.at(_here);
    return room.description + (room.things.empty() ? "" : "\nYou see: " + listed(room.things));
}

std::string World::go(const std::string& direction) {
    const Room& room = _rooms.at(_here);
    const auto exit = room.exits.find(direction);
    if (exit == room.exits.end())
        return nowhere;
    if (exit->second == "lamp" && !_doorOpen)
        return "The door is locked.";
    _here = exit->second;
    return look();
}

std::string World::take(const std::string& thing) {
    if (_rooms.at(_here).things.erase(thing) == 0)
        return "There is no such thing here.";
    _carried.insert(thing);
    return "Taken: " + thing + ".";
}

std::string World::use(const std::string& thing) {
    if (_carried.count(thing) == 0)
        return "You do not have that.";
    if (thing == "key" && _here == "door" && !_doorOpen) {
        _doorOpen = true;
        _rooms["door"].description = "The lighthouse door, open. Stairs lead up.";
        return "The lock gives way. Stairs lead up.";
    }
    if (thing == "matches" && _here == "lamp") {
        _lampLit = true;
        return "The lamp flares up. Out at sea a bell answers: the ship turns away in time.";
    }
    return "Nothing happens.";
}

std::string World::inventory() const {
    return _carried.empty() ? "You carry nothing." : "You carry: " + listed(_carried);
}
