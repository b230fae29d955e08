// SPDX-License-Identifier: MIT
#include <libqvio/fileutils>

#include <cerrno>
#include <sys/stat.h>

bool isDirectory(const char* path) {
    struct stat info;
    if (stat(path, &info) == -1)
        return false;
    if (S_ISDIR(info.st_mode))
        return true;
    errno = ENOTDIR;
    return false;
}

int mkdirPath(const std::string& path, int mode) {
    if (path.empty()) {
        errno = ENOENT;
        return -1;
    }
    for (size_t end = 0; end != path.size();) {
        const size_t start = path.find_first_not_of(dirsep, end);
        if (start == std::string::npos)
            break; // trailing separators
        end = path.find(dirsep, start);
        if (end == std::string::npos)
            end = path.size();

        const std::string prefix = path.substr(0, end);
        if (mkdir(prefix.c_str(), static_cast<mode_t>(mode)) == -1) {
            const int err = errno;
            if (isDirectory(prefix)) // there already; on some file systems not said by EEXIST
                continue;
            const bool last = path.find_first_not_of(dirsep, end) == std::string::npos;
            errno = err == EEXIST && !last ? ENOTDIR : err;
            return -1;
        }
    }
    return 0;
}
