// SPDX-License-Identifier: MIT
#include <libqvio/fileutils>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

namespace {

/**
 * Keeps SIGCHLD from coming between a command and its status: blocks it and, where the kernel would
 * reap the command itself, sets the default disposition. The end of the scope puts both back.
 */
class ChildSignalGuard {
public:
    ChildSignalGuard() : kernelReaps(false) {
        sigset_t childSignal;
        sigemptyset(&childSignal);
        sigaddset(&childSignal, SIGCHLD);
        pthread_sigmask(SIG_BLOCK, &childSignal, &mask);

        sigaction(SIGCHLD, nullptr, &action);
        kernelReaps = action.sa_handler == SIG_IGN || (action.sa_flags & SA_NOCLDWAIT) != 0;
        if (kernelReaps) {
            struct sigaction byDefault = {};
            byDefault.sa_handler = SIG_DFL;
            sigaction(SIGCHLD, &byDefault, nullptr);
        }
    }
    ~ChildSignalGuard() {
        const int err = errno;
        if (kernelReaps) {
            sigaction(SIGCHLD, &action, nullptr);
            // Children of the host that ended meanwhile: the kernel will not do it any more.
            while (waitpid(-1, nullptr, WNOHANG) > 0) {
            }
        }
        pthread_sigmask(SIG_SETMASK, &mask, nullptr);
        errno = err;
    }
    ChildSignalGuard(const ChildSignalGuard&) = delete;
    ChildSignalGuard& operator=(const ChildSignalGuard&) = delete;

    const sigset_t& callersMask() const { return mask; }

private:
    sigset_t mask;
    struct sigaction action;
    bool kernelReaps;
};

/** Starts `sh -c cmd` with its standard output on out. @return 0 or an error number */
int spawnShell(pid_t& pid, const char* cmd, int out, const sigset_t& mask) {
    posix_spawn_file_actions_t actions;
    int err = posix_spawn_file_actions_init(&actions);
    if (err != 0)
        return err;
    posix_spawnattr_t attr;
    err = posix_spawnattr_init(&attr);
    if (err == 0) {
        err = posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
        posix_spawnattr_setsigmask(&attr, &mask);
        posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK);
        const char* const argv[] = {"sh", "-c", "--", cmd, nullptr};
        if (err == 0)
            err = posix_spawn(&pid, "/bin/sh", &actions, &attr, const_cast<char* const*>(argv),
                              environ);
        posix_spawnattr_destroy(&attr);
    }
    posix_spawn_file_actions_destroy(&actions);
    return err;
}

/** Splits a stream of bytes into lines. */
class LineSplitter {
public:
    LineSplitter(std::vector<std::string>& _output, bool _dropEmpty)
        : output(_output), dropEmpty(_dropEmpty), rest() {}

    void feed(const char* data, size_t size) {
        while (const char* end = static_cast<const char*>(memchr(data, '\n', size))) {
            const size_t length = static_cast<size_t>(end - data);
            if (rest.empty()) {
                keep(data, length);
            } else {
                rest.append(data, length);
                keep(rest.data(), rest.size());
                rest.clear();
            }
            data += length + 1;
            size -= length + 1;
        }
        rest.append(data, size);
    }

    /** Keeps a last line that has no line feed. */
    void finish() {
        if (!rest.empty())
            keep(rest.data(), rest.size());
    }

private:
    void keep(const char* line, size_t length) {
        if (length != 0 || !dropEmpty)
            output.emplace_back(line, length);
    }

    std::vector<std::string>& output;
    const bool dropEmpty;
    std::string rest; // start of a line whose end was not read yet
};

/** A running command: ends with its output closed first, so that it cannot wait for us, and reaped.
 */
class Command {
public:
    Command(pid_t _pid, int _out) : pid(_pid), out(_out) {}
    ~Command() { end(); }
    Command(const Command&) = delete;
    Command& operator=(const Command&) = delete;

    /** @return bytes read, 0 at the end, -1 with errno */
    ssize_t readSome(char* buf, size_t size) {
        ssize_t got;
        do {
            got = read(out, buf, size);
        } while (got == -1 && errno == EINTR);
        return got;
    }

    /** @return the wait status, or -1 with errno; -1 when called again */
    int end() {
        if (pid == -1)
            return -1;
        close(out);
        int status;
        pid_t ret;
        do {
            ret = waitpid(pid, &status, 0);
        } while (ret == -1 && errno == EINTR);
        pid = -1;
        return ret == -1 ? -1 : status;
    }

private:
    pid_t pid;
    const int out;
};

} // namespace

int getCmdCallOutput(const char* cmd, std::vector<std::string>& output, bool dropEmpty) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) == -1)
        return -1;

    const ChildSignalGuard guard;
    pid_t pid = -1;
    const int spawnError = spawnShell(pid, cmd, fds[1], guard.callersMask());
    close(fds[1]);
    if (spawnError != 0) {
        close(fds[0]);
        errno = spawnError;
        return -1;
    }

    Command command(pid, fds[0]);
    LineSplitter lines(output, dropEmpty);
    char buf[65536];
    ssize_t got;
    while ((got = command.readSome(buf, sizeof(buf))) > 0)
        lines.feed(buf, static_cast<size_t>(got));
    const int readError = errno;
    lines.finish();

    const int status = command.end();
    if (got == -1) {
        errno = readError;
        return -1;
    }
    return status;
}
