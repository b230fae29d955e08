// SPDX-License-Identifier: MIT
#include <libqvio/fileutils>

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <utility>

namespace {

const int openDirFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

/** Owns one descriptor; closing leaves errno alone. */
class Descriptor {
public:
    explicit Descriptor(int _fd) : fd(_fd) {}
    ~Descriptor() { reset(-1); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int get() const { return fd; }
    void reset(int _fd) {
        const int err = errno;
        if (fd != -1)
            close(fd);
        fd = _fd;
        errno = err;
    }
    void swap(Descriptor& other) { std::swap(fd, other.fd); }

private:
    int fd;
};

/**
 * Empties a directory tree, going down and up with one directory open at a time.
 *
 * The way down is kept on the heap as names and inode numbers, so going up through ".." is checked:
 * a directory that was moved elsewhere meanwhile must not lead there.
 */
class TreeRemover {
public:
    /** @param root open directory to empty; stays the caller's */
    // cppcheck-suppress uninitMemberVar ; entries is filled before it is read
    explicit TreeRemover(int root) : top(root), current(-1), device(), way() {}

    /** @return 0, or -1 with errno */
    int run() {
        struct stat info;
        if (fstat(top, &info) == -1)
            return -1;
        device = info.st_dev;
        way.push_back(Level{std::string(), info.st_ino, {}});
        if (removeFiles() == -1)
            return -1;
        while (way.size() > 1 || !way.back().subdirs.empty()) {
            if ((way.back().subdirs.empty() ? goUp() : goDown()) == -1)
                return -1;
        }
        return 0;
    }

private:
    /** A directory on the way from the root to the current one, both included. */
    struct Level {
        std::string name; // in the directory above
        ino_t inode;
        std::vector<std::string> subdirs; // not removed yet
    };

    int here() const { return way.size() == 1 ? top : current.get(); }

    /** Removes what is no directory from the current one and notes the directories. */
    int removeFiles() {
        while (true) {
            const ssize_t got = getdents64(here(), entries, sizeof(entries));
            if (got <= 0)
                return static_cast<int>(got);
            for (ssize_t pos = 0; pos < got;) {
                const dirent64* entry = reinterpret_cast<const dirent64*>(entries + pos);
                pos += entry->d_reclen;
                const char* name = entry->d_name;
                if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0)
                    continue;
                if (entry->d_type == DT_DIR)
                    way.back().subdirs.push_back(name);
                else if (removeFile(name) == -1)
                    return -1;
            }
        }
    }

    int removeFile(const char* name) {
        if (unlinkat(here(), name, 0) == 0 || errno == ENOENT)
            return 0;
        if (errno != EISDIR) // not every file system tells the type of its entries
            return -1;
        way.back().subdirs.push_back(name);
        return 0;
    }

    int goDown() {
        const std::string name = way.back().subdirs.back();
        way.back().subdirs.pop_back();
        const int fd = openat(here(), name.c_str(), openDirFlags);
        if (fd == -1) {
            if (errno == ENOENT)
                return 0;
            // Exchanged for something else meanwhile: that is removed, not followed. If it is a
            // directory again, this is a race that we leave.
            return (errno == ENOTDIR || errno == ELOOP) &&
                           (unlinkat(here(), name.c_str(), 0) == 0 || errno == ENOENT)
                       ? 0
                       : -1;
        }
        Descriptor below(fd);
        struct stat info;
        if (fstat(fd, &info) == -1)
            return -1;
        if (info.st_dev != device) {
            errno = EXDEV;
            return -1;
        }
        way.push_back(Level{name, info.st_ino, {}});
        current.swap(below);
        return removeFiles();
    }

    /** Returns to the directory above, if that is still the one we came from, and removes this. */
    int goUp() {
        const std::string name = way.back().name;
        way.pop_back();
        if (way.size() == 1) {
            current.reset(-1);
        } else {
            const int above = openat(current.get(), "..", openDirFlags);
            if (above == -1)
                return -1;
            current.reset(above);
            struct stat info;
            if (fstat(above, &info) == -1)
                return -1;
            if (info.st_dev != device || info.st_ino != way.back().inode) {
                errno = ESTALE;
                return -1;
            }
        }
        return unlinkat(here(), name.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT ? 0 : -1;
    }

    const int top;
    Descriptor current; // below top
    dev_t device;
    std::vector<Level> way;
    alignas(dirent64) char entries[32768];
};

} // namespace

int rmDir(const std::string& path, bool flag) {
    if (path.empty()) {
        errno = ENOENT;
        return -1;
    }
    // A separator at the end would make open() follow a link there.
    const size_t last = path.find_last_not_of(dirsep);
    if (last == std::string::npos) {
        errno = EBUSY;
        return -1;
    }
    const size_t start = path.rfind(dirsep, last) + 1; // 0 for a bare name
    const std::string name = path.substr(start, last + 1 - start);
    const std::string parentPath = start == 0 ? std::string(".") : path.substr(0, start);
    if (flag && (name == "." || name == "..")) {
        errno = EINVAL;
        return -1;
    }

    const Descriptor parent(open(parentPath.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (parent.get() == -1)
        return -1;
    const Descriptor dir(openat(parent.get(), name.c_str(), openDirFlags));
    if (dir.get() == -1)
        return -1;
    if (TreeRemover(dir.get()).run() == -1)
        return -1;
    return flag ? unlinkat(parent.get(), name.c_str(), AT_REMOVEDIR) : 0;
}
