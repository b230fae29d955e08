// SPDX-License-Identifier: MIT
// Random sequences of everything that can happen to the relay; after each step the agent must be
// where the model is. A sequence that fails is shrunk and printed with what reproduces it.
//
//     RC_PARAMS="max_success=100000" VKAClientRelayModel_test
//
// runs more sequences than the default; RC_PARAMS takes seed, max_size (the longest sequence) and
// the rest of RapidCheck's settings, too.
#include <tests/support/relay_commands.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>

using namespace vkatest;
namespace gen = rc::gen;

namespace {

const int sequences = 2000;

typedef std::shared_ptr<const RelayCommand> CommandPtr;

// Values shrink towards nothing being ready, all of a write being taken, and no failure.

/** A number from 0 to below the end, whatever the size of the sequence is. */
rc::Gen<int> below(int end) {
    return gen::resize(rc::kNominalSize, gen::inRange(0, end));
}

/** True once in so many times. */
bool rarely(int times) {
    static const auto permille = below(1000);
    return *permille >= 1000 - 1000 / times;
}
/** False once in so many times. */
bool mostly(int times) {
    static const auto permille = below(1000);
    return *permille >= 1000 / times;
}

int errorNumber() {
    static const auto number =
        gen::weightedOneOf<int>({{3, gen::element(EINTR, EAGAIN, EIO, ECONNRESET)},
                                 {1, gen::map(below(133), [](int n) { return n + 1; })}});
    return *number;
}

Roles roles(bool any) {
    Roles chosen;
    chosen.client = mostly(4);
    chosen.terminal = mostly(4);
    chosen.listener = any ? rarely(4) : mostly(3);
    chosen.others = any && rarely(4);
    return chosen;
}

size_t transferSize() {
    static const auto size = gen::weightedOneOf<int>(
        {{4, gen::map(below(512), [](int n) { return n + 1; })}, {1, gen::element(1, 511, 512)}});
    return static_cast<size_t>(*size);
}

Source source() {
    static const auto first = below(256);
    Source chosen;
    if (rarely(30))
        chosen.err = errorNumber();
    else if (mostly(40))
        chosen.size = transferSize();
    chosen.first = static_cast<unsigned char>(*first);
    return chosen;
}

Sink sink() {
    Sink chosen;
    if (rarely(30))
        chosen.err = errorNumber();
    else if (rarely(3))
        chosen.most = rarely(20) ? 0 : transferSize();
    return chosen;
}

World world() {
    World chosen;
    chosen.clientSays = source();
    chosen.childSays = source();
    chosen.clientTakes = sink();
    chosen.childTakes = sink();
    static const auto times = below(3);
    if (rarely(10))
        chosen.interrupted = *times;
    if (rarely(5)) {
        chosen.acceptErr = errorNumber();
        if (chosen.acceptErr == EINTR) // would be tried again
            chosen.acceptErr = EMFILE;
    }
    chosen.closeFails = rarely(4);
    return chosen;
}

Count bound() {
    static const auto value = gen::weightedOneOf<size_t>(
        {{3, gen::element<size_t>(0, 1, 511, 512, 513, 1000, SIZE_MAX - 512, SIZE_MAX)},
         {2, gen::map(below(5000), [](int n) { return static_cast<size_t>(n); })},
         {1, gen::map(below(50000), [](int n) { return static_cast<size_t>(n); })}});
    return {*value};
}

template <typename Make>
rc::Gen<CommandPtr> command(Make make) {
    return gen::exec([make]() -> CommandPtr { return make(); });
}

rc::Gen<CommandPtr> commandFor(const RelayModel& model) {
    static const auto start = command([] {
        static const auto debug = below(4);
        const Count chosen = bound();
        return std::make_shared<Start>(chosen, static_cast<unsigned int>(*debug));
    });
    static const auto pass = [](bool obedient) {
        return command([obedient] {
            const Roles readable = roles(!obedient), writable = roles(!obedient);
            return std::make_shared<Pass>(obedient, readable, writable, world());
        });
    };
    static const auto ask = command([] {
        const Roles readable = roles(true), writable = roles(true);
        return std::make_shared<Ask>(readable, writable);
    });
    static const auto count = command([] {
        static const auto near = below(1100);
        const size_t distance = static_cast<size_t>(*near);
        std::optional<Count> chosen;
        if (rarely(2))
            chosen = Count{rarely(4) ? SIZE_MAX - distance : distance};
        return std::make_shared<SetCount>(chosen);
    });
    static const auto any = gen::weightedOneOf<CommandPtr>(
        {{60, pass(true)},
         {20, pass(false)},
         {8, ask},
         {2, command([] { return std::make_shared<TakeRunLog>(); })},
         {2, count},
         {1, command([] { return std::make_shared<SetBound>(bound()); })},
         {1, command([] { return std::make_shared<LoseConsole>(); })},
         {1, start}});
    return model.running ? any : start;
}

/** Each has to be met in a default run, and not just by luck. */
const char* const wanted[] = {
    "accept: fails",
    "accept: interrupted",
    "accept: next client",
    "accept: next client, old output",
    "accept: replaces a client",
    "bound: count starts over",
    "bound: new chunk dropped",
    "bound: only old chunks dropped",
    "bound: reached exactly",
    "bound: several chunks dropped",
    "bound: used up by clients",
    "console closed",
    "debug 0",
    "debug 1",
    "debug 2",
    "debug 3",
    "derived class: sets the bound",
    "derived class: sets the count",
    "dump: of one row",
    "dump: of several rows",
    "end: of the client's stream",
    "end: of the terminal's stream",
    "end: the client takes nothing",
    "end: the terminal takes nothing",
    "input: added to what waits",
    "input: more than one read waits",
    "input: taken in part",
    "input: taken whole",
    "output: chunk taken in part",
    "output: chunk taken whole",
    "run log: empty",
    "run log: with chunks",
    "sequences of 100 steps and more",
};

void expectCoverage() {
    std::vector<std::string> names(std::begin(wanted), std::end(wanted));
    for (const char* transfer : {"cannot read from TCP port", "cannot write to TCP port",
                                 "cannot read from PTTY", "cannot write to PTTY"}) {
        for (int err : {EINTR, EAGAIN, EIO, ECONNRESET})
            names.push_back(std::string("throws: ") + transfer + ": " + strerror(err));
    }
    for (const std::string& name : names)
        EXPECT_GE(coverage[name], 20u) << name;
}

TEST(VKAClientRelayModel, describesEveryStepOfEverySequence) {
    // Later settings win: those of the caller.
    const char* const settings = getenv("RC_PARAMS");
    const std::string all =
        "max_success=" + std::to_string(sequences) + " max_size=200 " + (settings ? settings : "");
    setenv("RC_PARAMS", all.c_str(), 1);

    const bool same = rc::check("the agent does what the model does", [] {
        const auto commands = *rc::state::gen::commands(RelayModel(), commandFor);
        RelayHost host;
        rc::state::runAll(commands, RelayModel(), host);
        ++coverage["sequences"];
        coverage["sequences of 100 steps and more"] += commands.size() >= 100;
    });
    ASSERT_TRUE(same);

    for (const auto& [name, times] : coverage)
        std::cout << times << '\t' << name << '\n';
    if (coverage["sequences"] >= sequences) // with fewer it is a matter of chance
        expectCoverage();
}

} // namespace
