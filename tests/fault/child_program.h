// SPDX-License-Identifier: MIT
// The agent's program in the scenarios.
#ifndef TESTS_FAULT_CHILD_PROGRAM_H
#define TESTS_FAULT_CHILD_PROGRAM_H

#include <string>

/** A program at /tmp/vkabin does what the environment says, so runs in parallel can share it. */
void installProgram();

/** What the program is to do as long as this lives. The last one ends what is left of it. */
class Program {
public:
    explicit Program(const std::string& script);
    ~Program();
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    /** Waits until the child executes it. */
    void awaitStart() const;
};

/**
 * Waits for the program's end, without reaping it, and looks at what it wrote.
 *
 * @param master   terminal to read, -1 for none
 * @param expected all that it should have written
 * @return such as "said it, status 0", or "no program"
 */
std::string programEnd(int master, const std::string& expected);

#endif
