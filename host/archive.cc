// SPDX-License-Identifier: MIT
#include <host/archive>

#include <libqvio/IOException>
#include <libqvio/fileutils>
#include <libqvutil/QVException>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

typedef std::vector<std::string> lines_t;

/** Runs a command. @return whether it exited with status 0 */
bool succeeds(const std::string& command, lines_t& output) {
    const int status = getCmdCallOutput(command, output, true);
    const int err = errno;
    if (status < 0)
        throw IOException(err, "cannot run " + command);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

[[noreturn]] void refuse(const std::string& path, const std::string& reason) {
    throw QVException(("archive " + path + ": " + reason).c_str());
}

std::string joined(const lines_t& lines) {
    std::string text;
    for (const std::string& line : lines)
        text += "\n  " + line;
    return text;
}

/** Would a member of this name be unpacked outside? Backslashes count: DOS archives have them. */
bool leadsOutside(const std::string& name) {
    if (name[0] == '/' || name[0] == '\\')
        return true;
    for (size_t start = 0; start != std::string::npos;) {
        const size_t end = name.find_first_of("/\\", start);
        if (name.compare(start, end == std::string::npos ? end : end - start, "..") == 0)
            return true;
        start = end == std::string::npos ? end : end + 1;
    }
    return false;
}

} // namespace

std::string quoteForShell(const std::string& text) {
    static const char plain[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"
                                "/._-+,:@%=";
    if (!text.empty() && text.find_first_not_of(plain) == std::string::npos)
        return text;
    std::string quoted = "'";
    for (char c : text)
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + '\'';
}

std::string archiveWord(const std::string& path) {
    // unzip takes the file name for a pattern as soon as there is a wildcard anywhere in the path,
    // and would find another file. The directories are always literal.
    if (path.find_first_of("*?[") == std::string::npos)
        return quoteForShell(path);
    const size_t name = path.rfind('/') + 1;
    std::string pattern = path.substr(0, name);
    for (char c : path.substr(name)) {
        if (c == '\\')
            pattern += "\\\\";
        else if (strchr("*?[", c))
            pattern += std::string("[") + c + ']';
        else
            pattern += c;
    }
    return quoteForShell(pattern);
}

void requireCommand(const std::string& name) {
    lines_t output;
    if (!succeeds("command -v " + name, output))
        throw QVException((name + " is not installed").c_str());
}

void checkArchive(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    const int err = errno;
    if (fd == -1)
        refuse(path, strerror(err));
    struct stat info;
    const bool isFile = fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
    close(fd);
    if (!isFile)
        refuse(path, "not a file");

    // The caller's own options might allow names that lead outside. What unzip leaves out of names
    // can hide such a name from the look below, so its guard is needed.
    for (const char* variable : {"UNZIP", "UNZIPOPT", "ZIPINFO", "ZIPINFOOPT"})
        unsetenv(variable);
    const std::string word = archiveWord(path) + " 2>&1";
    lines_t names;
    if (!succeeds("unzip -Z1 " + word, names))
        refuse(path, "no zip archive, or damaged:" + joined(names));
    for (const std::string& name : names) {
        if (leadsOutside(name))
            refuse(path, "member outside the archive's own directory: " + name);
    }
    // Needs the missing terminal of the build's session: unzip would ask for a password there.
    lines_t complaints;
    if (!succeeds("unzip -tqq " + word, complaints))
        refuse(path, "damaged or encrypted:" + joined(complaints));
}
