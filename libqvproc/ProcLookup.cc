// SPDX-License-Identifier: MIT
// Finding processes by name and reading their status, from /proc.
#include <libqvproc/Proc>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sstream>
#include <unistd.h>

namespace {

std::string procPath(const std::string& entry, const char* file) {
    return "/proc/" + entry + '/' + file;
}

struct FdCloser {
    ~FdCloser() { close(fd); }
    const int fd;
};

/** @return what the file holds; "" when it cannot be read, as for a process that has just ended */
std::string readFile(const std::string& path) {
    std::string content;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd == -1)
        return content;
    const FdCloser closer = {fd};
    char buf[1024];
    ssize_t got;
    while ((got = read(fd, buf, sizeof(buf))) > 0 || (got == -1 && errno == EINTR)) {
        if (got > 0)
            content.append(buf, static_cast<size_t>(got));
    }
    return content;
}

/** @return path of the executable of a process; "" if there is none or it may not be seen */
std::string exePath(const std::string& entry) {
    char buf[4096];
    const ssize_t len = readlink(procPath(entry, "exe").c_str(), buf, sizeof(buf));
    if (len == -1)
        return std::string();
    std::string path(buf, static_cast<size_t>(len));
    const std::string deleted = " (deleted)"; // the kernel's mark of a replaced file
    if (path.size() > deleted.size() &&
        path.compare(path.size() - deleted.size(), deleted.size(), deleted) == 0)
        path.resize(path.size() - deleted.size());
    return path;
}

bool isPid(const char* entry) {
    return isdigit(static_cast<unsigned char>(*entry)) != 0;
}

struct DirCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};

} // namespace

Proc::Proc(const char* name) : pid(pidof(name)), children() {}

bool Proc::matchesExe(const std::string& exe, const std::string& name) {
    if (name.find('/') != std::string::npos)
        return exe == name;
    return !exe.empty() && exe.substr(exe.rfind('/') + 1) == name;
}

std::string Proc::cmdlinePid(const char* entry) {
    const std::string line = readFile(procPath(entry, "cmdline"));
    return line.substr(0, line.find('\0'));
}

pid_t Proc::pidofProc(const char* entry, const char* name) {
    if (!isPid(entry))
        return -1;
    const std::string argument = cmdlinePid(entry);
    const bool hasTitle = argument.find(' ') != std::string::npos;
    if (matchesExe(argument, name) || (strchr(name, '/') && exePath(entry) == name) ||
        (hasTitle && readFile(procPath(entry, "comm")) == std::string(name) + '\n'))
        return static_cast<pid_t>(atoi(entry));
    return -1;
}

Proc::pidset_t Proc::pidsof(const char* name) {
    pidset_t found;
    const std::unique_ptr<DIR, DirCloser> dir(opendir("/proc"));
    if (!dir)
        return found;
    int err = 0;
    while (true) {
        errno = 0; // only that tells the end from a failure
        const dirent* entry = readdir(dir.get());
        if (!entry) {
            err = errno;
            break;
        }
        const pid_t pid = pidofProc(entry->d_name, name);
        if (pid > 0)
            found.insert(pid);
    }
    if (err != 0)
        found.clear(); // some processes would be missing
    if (found.empty())
        errno = err != 0 ? err : ESRCH;
    return found;
}

pid_t Proc::pidof(const char* name) {
    const pidset_t found = pidsof(name);
    return found.empty() ? -1 : *found.begin();
}

void Proc::pidof(pidvec_t& names) {
    for (entry_t<pidset_t>& entry : names)
        entry.value = pidsof(entry.name.c_str());
}

std::string Proc::statPid(const char* entry) {
    std::string line = readFile(procPath(entry, "stat"));
    if (!line.empty() && line[line.size() - 1] == '\n')
        line.resize(line.size() - 1);
    return line;
}

std::string Proc::statPid(pid_t pid) {
    return statPid(std::to_string(pid).c_str());
}

std::string Proc::statExe(const std::string& exe) {
    const pid_t found = pidof(exe.c_str());
    return found == -1 ? std::string() : statPid(found);
}

std::string Proc::stat(pid_t pid) {
    return statPid(pid);
}

std::string Proc::stat(const char* name) {
    return statExe(name);
}

void Proc::stat(statvec_t& names) {
    for (entry_t<std::multiset<std::string>>& entry : names) {
        entry.value.clear();
        for (int pid : pidsof(entry.name.c_str())) {
            const std::string line = statPid(pid);
            if (!line.empty())
                entry.value.insert(line);
        }
    }
}

Proc::timesMem_t Proc::statTimesMem(const std::string& statLine) {
    // The program's name, in parentheses, may hold blanks and parentheses of its own.
    const size_t nameEnd = statLine.rfind(')');
    if (nameEnd == std::string::npos)
        return timesMem_t(0, 0, 0);

    std::istringstream fields(statLine.substr(nameEnd + 1));
    std::string skipped;
    uint64_t user = 0, kernel = 0, pages = 0;
    const int firstField = 3, userField = 14, pagesField = 24;
    for (int i = firstField; i < userField; ++i)
        fields >> skipped;
    fields >> user >> kernel;
    for (int i = userField + 2; i < pagesField; ++i)
        fields >> skipped;
    fields >> pages;
    if (!fields)
        return timesMem_t(0, 0, 0);

    const uint64_t kib = pages * (static_cast<uint64_t>(sysconf(_SC_PAGESIZE)) / 1024);
    return timesMem_t(user, kernel, static_cast<uint32_t>(std::min<uint64_t>(kib, UINT32_MAX)));
}
