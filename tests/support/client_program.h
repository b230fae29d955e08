// SPDX-License-Identifier: MIT
#ifndef TESTS_SUPPORT_CLIENT_PROGRAM_H
#define TESTS_SUPPORT_CLIENT_PROGRAM_H

#include <tests/support/tempdir.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace vkatest {

/** Puts a program where the agent looks for it, and removes it in the end. Inside the sandbox only.
 */
class Program {
public:
    static constexpr const char* path = "/tmp/vkabin";

    /** A shell script. */
    explicit Program(const std::string& script) {
        prepare();
        std::ofstream(path) << "#!/bin/sh\n" << script << '\n';
        std::filesystem::permissions(path, std::filesystem::perms::owner_all);
    }
    /** A copy of an executable file. */
    static Program copyOf(const std::string& executable) {
        prepare();
        copyProgram(executable, path);
        return Program();
    }
    ~Program() { std::filesystem::remove(path); }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

private:
    Program() = default;
    static void prepare() {
        if (!getenv("VKA_SANDBOX"))
            abort();
        std::filesystem::remove(path);
    }
};

} // namespace vkatest

#endif
