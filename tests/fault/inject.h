// SPDX-License-Identifier: MIT
// Makes one call of the product fail: every call that its objects make to the C library's functions
// in calls.cc goes through a function there, which asks here first.
#ifndef TESTS_FAULT_INJECT_H
#define TESTS_FAULT_INJECT_H

#include <cstddef>
#include <string>
#include <sys/types.h>
#include <vector>

namespace inject {

/** A function that can fail, and the error numbers that it may fail with. */
struct Function {
    Function(const char* _name, std::vector<int> _errors);

    const char* const name;
    const std::vector<int> errors; // EINTR and EAGAIN among them
    size_t calls = 0;              // in this process, since the scenario began

    /** Counts a call. @return whether it has to fail; errno is set then. Allocates nothing. */
    bool hit();
    static Function* find(const std::string& name);
};

/** Which call fails. */
struct Fault {
    /** "" for the process that runs the scenario; "/N" is added for its N'th fork. */
    std::string role;
    const Function* function = nullptr;
    size_t number = 0; // the how many'th call of the function in that process
    int error = 0;
    bool forGood = false; // that call and every later one of the function there

    /** As it is written on the command line: ROLE:FUNCTION#NUMBER:ERROR:once, or :forever. */
    std::string text() const;
    static Fault parse(const std::string& text);
};

/** A call seen while nothing failed. */
struct Call {
    std::string role;
    const Function* function;
    size_t number;
};

/** Begins a scenario in this process: counts from zero, with this fault or with none. */
void begin(const Fault* fault);
/** Ends it; nothing is counted and nothing fails from now on, nor in processes forked from here. */
void end();
/** Calls that were made to fail since begin(), in this process and those forked from it. */
size_t hits();
/** The calls since begin(), this process's and those of processes forked from it. */
std::vector<Call> recorded();

/** Notes a child that the product started. */
void noteChild(pid_t child);
/** Notes whether this process has such children that nobody has reaped. */
void lookForChildren();
/** Did a process of the scenario find any since the last call? Forgets this one's. */
bool leavesChildren();

/** The name of an error number, such as EINTR. */
std::string errorName(int error);

} // namespace inject

#endif
