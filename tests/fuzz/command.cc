// SPDX-License-Identifier: MIT
// getCmdCallOutput() on a command that never runs: the input says which of its system calls fail
// and in what pieces its output is read.
#include "require.h"

#include <libqvio/fileutils>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <fuzzer/FuzzedDataProvider.h>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <vector>

namespace {

enum : int { readEnd = 605, writeEnd = 606 };
enum : pid_t { commandPid = 123456 };

/** A read that yields bytes (none: the end), or a failure unless err is 0. */
struct Read {
    std::string bytes;
    int err;
};

/** What the calls of one command do, and what was done. */
struct Command {
    int pipeError, spawnError, waitError;
    int status;
    int waitInterruptions;
    int othersEnded; // children of the host that ended meanwhile
    std::deque<Read> reads;

    bool running, readEndOpen, writeEndOpen;
    int readError;
    std::string handedOut;
};
Command* command; // null while calls are not the product's

int failure(int err) {
    errno = err;
    return -1;
}

/** A call that succeeds may change errno, too. */
int success(int result = 0) {
    errno = EXFULL;
    return result;
}

int anyError(FuzzedDataProvider& input) {
    return input.PickValueInArray({EIO, EAGAIN, ENOMEM, EMFILE, ECHILD, EBADF, 133});
}

Command makeCommand(FuzzedDataProvider& input) {
    Command made = {};
    const int faults = input.ConsumeIntegral<uint8_t>();
    switch (faults & 0xf) {
    case 1:
        made.pipeError = anyError(input);
        break;
    case 2:
        made.spawnError = anyError(input);
        break;
    case 3:
        made.waitError = anyError(input);
        break;
    }
    made.status = input.ConsumeIntegral<uint16_t>();
    made.waitInterruptions = (faults >> 4) & 3;
    made.othersEnded = faults >> 6;
    while (input.remaining_bytes() != 0) {
        const size_t kind = input.ConsumeIntegral<uint8_t>();
        if (kind < 0xf0)
            made.reads.push_back({input.ConsumeBytesAsString(kind % 40), 0});
        else
            made.reads.push_back({"", kind < 0xf8 ? EINTR : anyError(input)});
    }
    return made;
}

/** Lines made a byte at a time. */
std::vector<std::string> linesOf(const std::string& bytes, bool dropEmpty) {
    std::vector<std::string> lines(1);
    for (char byte : bytes) {
        if (byte != '\n')
            lines.back() += byte;
        else if (!dropEmpty || !lines.back().empty())
            lines.emplace_back();
    }
    if (lines.back().empty())
        lines.pop_back();
    return lines;
}

/** SIGCHLD ignored as long as it lives, and still when it ends. */
class IgnoredChildSignal {
public:
    explicit IgnoredChildSignal(bool _active) : active(_active) {
        struct sigaction ignored = {};
        ignored.sa_handler = SIG_IGN;
        REQUIRE(!active || sigaction(SIGCHLD, &ignored, &before) == 0);
    }
    ~IgnoredChildSignal() {
        struct sigaction now;
        REQUIRE(!active || (sigaction(SIGCHLD, &before, &now) == 0 && now.sa_handler == SIG_IGN));
    }
    IgnoredChildSignal(const IgnoredChildSignal&) = delete;
    IgnoredChildSignal& operator=(const IgnoredChildSignal&) = delete;

private:
    const bool active;
    struct sigaction before;
};

} // namespace

extern "C" {
int __real_pipe2(int* fds, int flags);
int __wrap_pipe2(int* fds, int flags);
int __wrap_pipe2(int* fds, int flags) {
    if (!command)
        return __real_pipe2(fds, flags);
    REQUIRE(flags == O_CLOEXEC);
    if (command->pipeError != 0)
        return failure(command->pipeError);
    fds[0] = readEnd;
    fds[1] = writeEnd;
    command->readEndOpen = command->writeEndOpen = true;
    return success();
}

int __wrap_posix_spawn(pid_t* pid, const char* path, const posix_spawn_file_actions_t*,
                       const posix_spawnattr_t*, char* const argv[], char* const envp[]);
int __wrap_posix_spawn(pid_t* pid, const char*, const posix_spawn_file_actions_t*,
                       const posix_spawnattr_t*, char* const argv[], char* const[]) {
    REQUIRE(command && command->readEndOpen && command->writeEndOpen);
    REQUIRE(strcmp(argv[3], "the command") == 0 && !argv[4]);
    errno = EXFULL;
    if (command->spawnError == 0) {
        *pid = commandPid;
        command->running = true;
    }
    return command->spawnError;
}

ssize_t __real_read(int fd, void* buf, size_t size);
ssize_t __wrap_read(int fd, void* buf, size_t size);
ssize_t __wrap_read(int fd, void* buf, size_t size) {
    if (!command)
        return __real_read(fd, buf, size);
    REQUIRE(fd == readEnd && command->readEndOpen && !command->writeEndOpen && command->running);
    REQUIRE(command->readError == 0);
    if (command->reads.empty())
        return success();
    const Read next = command->reads.front();
    command->reads.pop_front();
    if (next.err != 0) {
        command->readError = next.err != EINTR ? next.err : 0;
        return failure(next.err);
    }
    REQUIRE(next.bytes.size() <= size);
    memcpy(buf, next.bytes.data(), next.bytes.size());
    command->handedOut += next.bytes;
    return success(static_cast<int>(next.bytes.size()));
}

int __real_close(int fd);
int __wrap_close(int fd);
int __wrap_close(int fd) {
    if (!command)
        return __real_close(fd);
    bool& open = fd == readEnd ? command->readEndOpen : command->writeEndOpen;
    REQUIRE((fd == readEnd || fd == writeEnd) && open);
    open = false;
    return success();
}

pid_t __real_waitpid(pid_t pid, int* status, int options);
pid_t __wrap_waitpid(pid_t pid, int* status, int options);
pid_t __wrap_waitpid(pid_t pid, int* status, int options) {
    if (!command)
        return __real_waitpid(pid, status, options);
    if (pid == -1) {
        REQUIRE(!command->running && options == WNOHANG);
        return command->othersEnded-- > 0 ? success(1) : failure(ECHILD);
    }
    REQUIRE(pid == commandPid && command->running && options == 0);
    REQUIRE(!command->readEndOpen); // the command might wait for us
    if (command->waitInterruptions-- > 0)
        return failure(EINTR);
    command->running = false;
    if (command->waitError != 0)
        return failure(command->waitError);
    *status = command->status;
    return success(pid);
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    const bool dropEmpty = input.ConsumeBool();
    const IgnoredChildSignal ignored(input.ConsumeBool());
    const std::vector<std::string> before(input.ConsumeIntegralInRange<size_t>(0, 2));
    Command made = makeCommand(input);

    std::vector<std::string> output = before;
    command = &made;
    const int result = getCmdCallOutput("the command", output, dropEmpty);
    const int err = errno;
    command = nullptr;

    REQUIRE(!made.running && !made.readEndOpen && !made.writeEndOpen);
    int expectedError = 0;
    for (int candidate : {made.waitError, made.readError, made.spawnError, made.pipeError})
        expectedError = candidate != 0 ? candidate : expectedError;
    REQUIRE(result == (expectedError != 0 ? -1 : made.status));
    REQUIRE(expectedError == 0 || err == expectedError);

    std::vector<std::string> expected = before;
    for (const std::string& line : linesOf(made.handedOut, dropEmpty))
        expected.push_back(line);
    REQUIRE(output == expected);
    return 0;
}
}
