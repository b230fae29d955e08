// SPDX-License-Identifier: MIT
// Building, and handing back sources and links.
#include "scenario.h"

#include <tests/support/client_agent.h>
#include <tests/support/client_commands.h>

#include <memory>

using namespace vkatest;

namespace {

/** An agent with a work directory and stand-ins for the commands. */
struct Builder {
    Builder() {
        commands.define("unzip", "echo 'inflating: a.c'; echo new > a.c");
        commands.define("make", "echo compiling");
        commands.define("zip", "echo 'adding: a.c'");
        dir.makeDir("src/old/deep");
        dir.makeFile("src/old/deep/b.c");
        dir.makeFile("src/a.c");
        agent.reset(new Agent(dir.path().c_str(), false, 1000, 0, "", 2));
    }
    /** What the log holds, in one line. */
    std::string logged() const {
        std::string text;
        for (const std::string& line : log)
            text += line.substr(line.find_first_not_of('\n')) + ';';
        for (char& c : text)
            c = c == '\n' ? ' ' : c;
        return text;
    }

    const WorkingDirectory before;
    const TempDir dir;
    const Commands commands;
    std::unique_ptr<Agent> agent;
    VKAClient::args_t log;
};

std::string build() {
    Builder builder;
    const std::string outcome =
        armed([&] { builder.agent->build("/archive.zip", builder.log, true); });
    return outcome + ", " + builder.logged() +
           (contentOf(builder.dir / "src/a.c") == "new\n" ? ", unpacked" : "");
}

std::string make() {
    Builder builder;
    const std::string outcome = armed([&] { builder.agent->make(builder.log, {"-j", "1"}); });
    return outcome + ", " + builder.logged();
}

std::string makeFails() {
    Builder builder;
    builder.commands.define("make", "echo wrong; exit 2");
    const std::string outcome = armed([&] { builder.agent->make(builder.log, {}); });
    return outcome + ", " + builder.logged();
}

std::string getSources() {
    Builder builder;
    const std::string outcome =
        armed([&] { builder.agent->getSources("/sources.zip", builder.log); });
    return outcome + ", " + builder.logged();
}

std::string createFile(const char* name) {
    Builder builder;
    const std::string outcome = armed([&] { builder.agent->createFile(name); });
    std::error_code ignored;
    const std::filesystem::path target =
        std::filesystem::read_symlink(builder.dir / ("src/" + std::string(name)), ignored);
    return outcome + ", " + target.string();
}

/** A command that cannot be run, and one whose output or status cannot be had. */
std::vector<Rule> commandRules(const std::string& failure) {
    const std::string fails = "IOException $E " + failure + ", *";
    return {
        {"read:EINTR", "="},
        {"waitpid:EINTR", "="},
        {"close", "="},
        {"pipe2", fails},
        {"posix_spawn", fails},
        {"posix_spawn_file_actions_init", fails},
        {"posix_spawn_file_actions_adddup2", fails},
        {"posix_spawnattr_init", fails},
        {"read", fails},
        {"waitpid", fails, true},
        {"malloc", "=|bad_alloc, *|IOException 12 *"},
    };
}

std::vector<Rule> both(std::vector<Rule> rules, const std::vector<Rule>& more) {
    rules.insert(rules.end(), more.begin(), more.end());
    return rules;
}

std::vector<Rule> buildRules() {
    std::vector<Rule> rules = {
        {"mkdir", "="}, // as it is there already
        {"stat", "=|IOException * create src dir *"},
        {"open", "IOException $E remove old source files in *"},
        {"openat:ENOENT", "=|IOException * remove old source files in *"},
        {"openat:ENOTDIR", "IOException * remove old source files in *"},
        {"openat:ELOOP", "IOException * remove old source files in *"},
        {"openat", "=|IOException $E remove old source files in *"},
        {"fstat", "IOException $E remove old source files in *"},
        {"getdents64", "IOException $E remove old source files in *"},
        {"unlinkat", "=|IOException * remove old source files in *"},
        {"chdir", "IOException $E change dir to *"},
        {"read:EINTR", "="},
        {"waitpid:EINTR", "="},
        {"close", "="},
        {"malloc", "=|bad_alloc, *|IOException 12 *"},
    };
    for (const std::string call :
         {"pipe2", "posix_spawn", "posix_spawn_file_actions_init",
          "posix_spawn_file_actions_adddup2", "posix_spawnattr_init", "read", "waitpid"})
        rules.push_back({call,
                         "IOException $E cannot unzip /archive.zip, unzip log: ;*|"
                         "IOException $E cannot call make, unzip log: ;inflating: a.c;"
                         "make log: ;*",
                         call == "waitpid"});
    return rules;
}

} // namespace

std::vector<Scenario> buildScenarios() {
    return {
        {"build", build, buildRules(), 0},
        {"make", make, commandRules("cannot call make"), 0},
        {"make-error", makeFails, commandRules("cannot call make"), 0},
        {"get-sources", getSources,
         both(
             {{"stat", "IOException $E no src dir *"}, {"chdir", "IOException $E change dir to *"}},
             commandRules("cannot zip /sources.zip")),
         0},
        {"create-file",
         [] { return createFile("new.mk"); },
         {
             {"chdir", "IOException $E cannto chdir to *"},
             {"unlink:ENOENT", "="},
             {"unlink", "IOException $E cannot remove old new.mk, "},
             {"symlink", "IOException $E cannot create symlink to new.mk, "},
             {"malloc", "bad_alloc, *"},
         },
         0},
        {"create-file-again",
         [] { return createFile("a.c"); },
         {
             {"chdir", "IOException $E cannto chdir to *"},
             // An unlink() that claims that there is nothing leaves the old file in the way.
             {"unlink:ENOENT", "IOException 17 cannot create symlink to a.c, "},
             {"unlink", "IOException $E cannot remove old a.c, "},
             {"symlink", "IOException $E cannot create symlink to a.c, "},
             {"malloc", "bad_alloc, *"},
         },
         0},
    };
}
