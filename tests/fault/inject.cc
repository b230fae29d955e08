// SPDX-License-Identifier: MIT
#include "inject.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/wait.h>

namespace inject {

namespace {

// What the kernel interrupts or puts off again and again gets through at last.
const size_t triesInVain = 20;

bool passes(int error) {
    return error == EINTR || error == EAGAIN;
}

std::vector<Function*>& functions() {
    static std::vector<Function*> all;
    return all;
}

/** Seen by all processes of a scenario. */
struct Shared {
    std::atomic<size_t> hits, size;
    std::atomic<bool> leavesChildren;
    struct {
        char role[16];
        const Function* function;
        size_t number;
    } calls[100000];
};
Shared* shared;

bool active = false;
Fault current;
char role[16]; // of this process
size_t forks = 0;

pid_t children[1000]; // of this process
size_t childCount = 0;

void countFork() {
    ++forks;
}
void becomeChild() {
    const size_t length = strlen(role);
    snprintf(role + length, sizeof(role) - length, "/%zu", forks);
    forks = 0;
    childCount = 0;
    for (Function* function : functions())
        function->calls = 0;
}

void prepare() {
    if (shared)
        return;
    void* const memory =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED || pthread_atfork(countFork, nullptr, becomeChild) != 0)
        abort();
    shared = static_cast<Shared*>(memory);
}

} // namespace

Function::Function(const char* _name, std::vector<int> _errors) : name(_name), errors(_errors) {
    functions().push_back(this);
}

Function* Function::find(const std::string& name) {
    for (Function* function : functions())
        if (name == function->name)
            return function;
    throw std::invalid_argument("no function " + name);
}

bool Function::hit() {
    if (!active)
        return false;
    ++calls;
    if (!current.function) {
        const size_t index = shared->size++;
        if (index >= std::size(shared->calls))
            abort();
        strcpy(shared->calls[index].role, role);
        shared->calls[index].function = this;
        shared->calls[index].number = calls;
        return false;
    }
    if (current.function != this || current.role != role || calls < current.number ||
        (calls > current.number && !current.forGood) ||
        (passes(current.error) && calls - current.number >= triesInVain))
        return false;
    ++shared->hits;
    errno = current.error;
    return true;
}

void begin(const Fault* fault) {
    prepare();
    current = fault ? *fault : Fault();
    role[0] = '\0';
    forks = 0;
    for (Function* function : functions())
        function->calls = 0;
    shared->hits = shared->size = 0;
    active = true;
}

void end() {
    active = false;
}

size_t hits() {
    return shared->hits;
}

std::vector<Call> recorded() {
    std::vector<Call> calls;
    for (size_t i = 0; i < shared->size; ++i)
        calls.push_back(
            {shared->calls[i].role, shared->calls[i].function, shared->calls[i].number});
    return calls;
}

void noteChild(pid_t child) {
    if (childCount == std::size(children))
        abort();
    children[childCount++] = child;
}

void lookForChildren() {
    for (const pid_t* child = children; child != children + childCount; ++child) {
        siginfo_t info;
        if (waitid(P_PID, static_cast<id_t>(*child), &info, WEXITED | WNOHANG | WNOWAIT) == 0)
            shared->leavesChildren = true;
    }
}

bool leavesChildren() {
    childCount = 0;
    return shared && shared->leavesChildren.exchange(false);
}

std::string errorName(int error) {
    const char* const name = strerrorname_np(error);
    return name ? name : std::to_string(error);
}

std::string Fault::text() const {
    return role + ':' + function->name + '#' + std::to_string(number) + ':' + errorName(error) +
           (forGood ? ":forever" : ":once");
}

Fault Fault::parse(const std::string& text) {
    Fault fault;
    const size_t first = text.find(':'), hash = text.find('#'), second = text.find(':', hash),
                 third = text.rfind(':');
    if (first >= hash || hash >= second || second >= third)
        throw std::invalid_argument("no fault: " + text);
    fault.role = text.substr(0, first);
    fault.function = Function::find(text.substr(first + 1, hash - first - 1));
    fault.number = std::stoul(text.substr(hash + 1));
    const std::string error = text.substr(second + 1, third - second - 1);
    for (int number : fault.function->errors)
        if (error == errorName(number))
            fault.error = number;
    if (fault.error == 0)
        throw std::invalid_argument(error + " is none of the errors of " + fault.function->name);
    fault.forGood = text.substr(third) == ":forever";
    return fault;
}

} // namespace inject
