// SPDX-License-Identifier: MIT
#ifndef TESTS_SUPPORT_TEMPDIR_H
#define TESTS_SUPPORT_TEMPDIR_H

#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <system_error>
#include <unistd.h>

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

/** Copies an executable file; unlike the library's own copying also when signals come. */
inline void copyProgram(const std::string& from, const std::string& to) {
    std::ofstream(to, std::ios::binary) << std::ifstream(from, std::ios::binary).rdbuf();
    std::filesystem::permissions(to, std::filesystem::perms::owner_all);
}

/** Does the path name anything, a dangling link included? */
inline bool exists(const std::string& path) {
    struct stat info;
    return lstat(path.c_str(), &info) == 0;
}

/**
 * Gives what the path names dates beyond 2038, which 32 bits cannot count, also where this
 * program's own time_t cannot. @return whether its file system keeps them
 */
inline bool setDatesBeyond2038(const std::string& path) {
    const int64_t date = 4102444800; // 2100-01-01
    const int64_t accessAndChange[] = {date, 0, date, 0};
#ifdef SYS_utimensat_time64
    const long number = SYS_utimensat_time64;
#else
    const long number = SYS_utimensat;
#endif
    struct statx info = {};
    return syscall(number, AT_FDCWD, path.c_str(), accessAndChange, 0) == 0 &&
           statx(AT_FDCWD, path.c_str(), 0, STATX_BASIC_STATS, &info) == 0 &&
           info.stx_atime.tv_sec == date && info.stx_mtime.tv_sec == date;
}

} // namespace vkatest

#endif
