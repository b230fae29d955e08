// SPDX-License-Identifier: MIT
#ifndef TESTS_SUPPORT_CLIENT_COMMANDS_H
#define TESTS_SUPPORT_CLIENT_COMMANDS_H

#include <tests/support/tempdir.h>

#include <cstdlib>
#include <filesystem>
#include <string>

namespace vkatest {

/** Returns to the working directory of before. */
class WorkingDirectory {
public:
    WorkingDirectory() : before(std::filesystem::current_path()) {}
    ~WorkingDirectory() { std::filesystem::current_path(before); }
    WorkingDirectory(const WorkingDirectory&) = delete;
    WorkingDirectory& operator=(const WorkingDirectory&) = delete;

private:
    const std::filesystem::path before;
};

/** Commands that take the place of installed ones as long as this lives; they note their calls. */
class Commands {
public:
    Commands() : path(getenv("PATH") ? getenv("PATH") : "/usr/bin:/bin") {
        setenv("PATH", (dir.path() + ':' + path).c_str(), 1);
    }
    ~Commands() { setenv("PATH", path.c_str(), 1); }
    Commands(const Commands&) = delete;
    Commands& operator=(const Commands&) = delete;

    /** Defines a command by the shell script that it runs after noting the call. */
    void define(const std::string& name, const std::string& script) const {
        const std::string note =
            "{ printf '%s' '" + name + "'; printf ' <%s>' \"$@\"; echo \" in $PWD\"; }";
        dir.makeFile(name,
                     "#!/bin/sh\n" + note + " >> '" + (dir / "calls") + "'\n" + script + '\n');
        std::filesystem::permissions(dir / name, std::filesystem::perms::owner_all);
    }

    /** The calls so far, each as: name <argument>... in directory, and a line feed. */
    std::string calls() const { return contentOf(dir / "calls"); }

private:
    const TempDir dir;
    const std::string path;
};

} // namespace vkatest

#endif
