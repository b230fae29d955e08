// SPDX-License-Identifier: MIT
#ifndef TESTS_SUPPORT_TEMPDIR_H
#define TESTS_SUPPORT_TEMPDIR_H

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <system_error>

namespace vkatest {

/** A directory of its own, removed with all it holds. */
class TempDir {
public:
    TempDir() {
        const char* base = getenv("TMPDIR");
        std::string name = std::string(base ? base : "/tmp") + "/vkatest.XXXXXX";
        if (!mkdtemp(&name[0]))
            abort();
        dir = name;
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(dir, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return dir; }
    /** Path of something inside. */
    std::string operator/(const std::string& name) const { return dir + '/' + name; }

    /** Makes a directory inside, parents included. @return its path */
    std::string makeDir(const std::string& name) const {
        std::filesystem::create_directories(*this / name);
        return *this / name;
    }
    /** Makes a file inside. @return its path */
    std::string makeFile(const std::string& name, const std::string& content = "content") const {
        std::ofstream(*this / name, std::ios::binary) << content;
        return *this / name;
    }

private:
    std::string dir;
};

/** What a file holds; "" if it cannot be read. */
inline std::string contentOf(const std::string& path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

/** Does the path name anything, a dangling link included? */
inline bool exists(const std::string& path) {
    struct stat info;
    return lstat(path.c_str(), &info) == 0;
}

} // namespace vkatest

#endif
