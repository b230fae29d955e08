// SPDX-License-Identifier: MIT
#ifndef TESTS_SUPPORT_SIGNALS_H
#define TESTS_SUPPORT_SIGNALS_H

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <sys/time.h>

namespace vkatest {

/** Sets the action of a signal and puts the one before back. */
class SignalAction {
public:
    SignalAction(int _signo, void (*handler)(int), int flags = 0) : signo(_signo) {
        struct sigaction action = {};
        action.sa_handler = handler;
        action.sa_flags = flags;
        if (sigaction(signo, &action, &before) == -1)
            abort();
    }
    ~SignalAction() { sigaction(signo, &before, nullptr); }
    SignalAction(const SignalAction&) = delete;
    SignalAction& operator=(const SignalAction&) = delete;

    struct sigaction current() const {
        struct sigaction action;
        sigaction(signo, nullptr, &action);
        return action;
    }

private:
    const int signo;
    struct sigaction before;
};

/** Interrupts every slow system call 1,000 times a second: SIGALRM without SA_RESTART. */
class Ticker {
public:
    Ticker() : action(SIGALRM, &Ticker::tick) {
        count = 0;
        set(1000);
    }
    ~Ticker() {
        set(0);
        signal(SIGALRM, SIG_IGN); // drops one that is on its way
    }

    /** Signals handled so far. */
    int ticks() const { return count; }

private:
    static inline std::atomic<int> count{0};
    static void tick(int) { ++count; }
    static void set(suseconds_t us) {
        itimerval interval = {};
        interval.it_interval.tv_usec = interval.it_value.tv_usec = us;
        if (setitimer(ITIMER_REAL, &interval, nullptr) == -1)
            abort();
    }

    const SignalAction action;
};

} // namespace vkatest

#endif
