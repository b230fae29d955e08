// SPDX-License-Identifier: MIT
// What is done while calls fail, and what has to come of it.
#ifndef TESTS_FAULT_SCENARIO_H
#define TESTS_FAULT_SCENARIO_H

#include "inject.h"
#include "leave.h"

#include <libqvio/IOException>
#include <libqvutil/QVException>

#include <functional>
#include <new>
#include <string>
#include <unistd.h>
#include <vector>

/** The fault of the run that is under way; null for a good one. */
extern const inject::Fault* fault;

/** What comes of the failure of certain calls. */
struct Rule {
    /**
     * FUNCTION, FUNCTION#NUMBER, FUNCTION:ERROR or FUNCTION#NUMBER:ERROR, each behind ROLE: for a
     * child process and before "+" for failures for good.
     */
    std::string calls;
    /**
     * Acceptable outcomes, separated by '|': patterns of the shell, with $E for the error number
     * and $S for its text; "=" is the outcome of the good run.
     */
    std::string outcomes;
    /** May a child stay that was started? Nobody can reap or signal it while those calls fail. */
    bool leavesChild = false;
};

struct Scenario {
    const char* name;
    /** Prepares, does what is tested below armed(), cleans up. @return the outcome as one line */
    std::function<std::string()> run;
    /** The first one that matches counts. A failure without a rule is an error of this table. */
    std::vector<Rule> rules;
    /** Descriptors that stay open when the scenario's own subject fails, as its declaration says.
     */
    size_t leak = 0;
    /** The outcome while nothing fails; "" where that is for other tests. */
    std::string good = "";
};

/** Runs a step with the fault. @return "done", or the exception that it threw */
template <typename Step>
std::string armed(Step step) {
    const pid_t self = getpid();
    std::string outcome = "done";
    inject::begin(fault);
    try {
        step();
        inject::end();
    } catch (const IOException& err) {
        inject::end();
        const std::string text = err.what();
        outcome = "IOException " + std::to_string(err.getError()) + ' ' +
                  text.substr(0, text.rfind(": " + err.getErrorString()));
    } catch (const QVException& err) {
        inject::end();
        outcome = std::string("QVException ") + err.what();
    } catch (const std::bad_alloc&) {
        inject::end();
        outcome = "bad_alloc";
    } catch (const std::exception& err) {
        inject::end();
        outcome = std::string("exception ") + err.what();
    }
    if (getpid() != self) // what leaves run() in the child process
        leave(99);
    return outcome;
}

/** Runs a step that tells of a failure by -1 and errno. */
template <typename Step>
std::string armedResult(Step step) {
    long result = 0;
    int error = 0;
    const std::string outcome = armed([&] {
        result = step();
        error = errno;
    });
    if (outcome != "done")
        return outcome;
    return result == -1 ? "-1 " + std::to_string(error) : std::to_string(result);
}

std::vector<Scenario> agentScenarios();
std::vector<Scenario> relayScenarios();
std::vector<Scenario> buildScenarios();
std::vector<Scenario> fileScenarios();
std::vector<Scenario> processScenarios();
std::vector<Scenario> hostScenarios();

#endif
