// SPDX-License-Identifier: MIT
#include <host/builder>

#include <host/FileMark>
#include <host/Signals>
#include <host/archive>
#include <host/clock>
#include <host/ending>
#include <host/report>

#include <libqvio/IOException>
#include <libqvutil/QVException>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <iostream>
#include <poll.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

const int graceMs = 1000; // for the commands of a build that is stopped to clean up

// For the Makefile, whose own output the library hands over only at the end. The shell needs one
// digit.
const int progressFd = 9;

/** The build failed, as opposed to the host. */
class BuildFailure : public std::runtime_error {
public:
    explicit BuildFailure(const std::string& msg) : std::runtime_error(msg) {}
};

void print(const VKAClient::args_t& log) {
    for (const std::string& line : log)
        std::cout << line << '\n';
    std::cout.flush();
}

bool endsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), std::string::npos, end) == 0;
}

/**
 * Whether a line of a build's output comes of a lack of memory. The kernel then ends the compiler,
 * which GCC and make report as a signal only; or the compiler itself is refused more.
 */
bool tellsOfLackingMemory(const std::string& line) {
    const char* const reports[] = {"Killed signal terminated program ", "terminated with signal 9",
                                   "out of memory allocating", "virtual memory exhausted",
                                   "Cannot allocate memory"};
    for (const char* report : reports)
        if (line.find(report) != std::string::npos)
            return true;
    return line.compare(0, 5, "make:") == 0 && endsWith(line, "] Killed");
}

std::string likelyCause(const VKAClient::args_t& log) {
    return std::any_of(log.begin(), log.end(), tellsOfLackingMemory)
               ? ": the compiler has probably run out of memory"
               : "";
}

void build(HostClient& client, const Options& options) {
    const char* program = "/tmp/vkabin";
    const FileMark old(program);
    VKAClient::args_t log;
    try {
        checkArchive(options.archive);
        client.build(archiveWord(options.archive), log, options.force);
    } catch (const QVException& err) {
        print(log);
        throw BuildFailure(err.what() + likelyCause(log));
    } catch (...) {
        print(log);
        throw;
    }
    print(log);
    // A make that was killed counts as success for the library; and what belongs to somebody else
    // was not made by this build, whoever touched it meanwhile.
    const FileMark built(program);
    if (!built.isOwn() || built == old)
        throw BuildFailure("make ended without a new program" + likelyCause(log));
}

void exportSources(HostClient& client, const std::string& file) {
    const FileMark old(file);
    VKAClient::args_t log;
    client.getSources(quoteForShell(file), log);
    print(log);
    const FileMark packed(file);
    if (!packed.isOwn() || packed == old)
        throw QVException(("cannot export the sources to " + file).c_str());
}

/** In the build's own process. @return its exit status */
int buildStatus(HostClient& client, const Options& options) {
    try {
        build(client, options);
        if (!options.exportFile.empty())
            exportSources(client, options.exportFile);
        return 0;
    } catch (const BuildFailure& err) {
        return report("build failed: ", err, buildFailedStatus);
    } catch (const std::exception& err) {
        return report("", err, hostFailedStatus);
    }
}

pid_t startBuild(HostClient& client, const Options& options) {
    std::cout.flush();
    const pid_t host = getpid();
    const pid_t builder = fork();
    const int err = errno;
    if (builder == -1)
        throw IOException(err, "cannot fork");
    if (builder == 0) {
        Signals::resetInChild();
        prctl(PR_SET_PDEATHSIG, SIGKILL); // a crashed host does not go on building
        if (getppid() != host)            // it died before the line above
            _exit(hostFailedStatus);
        setsid();
        client.releaseConsole();
        const int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
        dup2(null, STDIN_FILENO);
        if (dup2(STDOUT_FILENO, progressFd) == progressFd)
            setenv("VKAPROGRESS", std::to_string(progressFd).c_str(), 1);
        const int status = buildStatus(client, options);
        std::cout.flush();
        _exit(status);
    }
    return builder;
}

} // namespace

Build::Build(HostClient& client, const Options& options) : builder(startBuild(client, options)) {}

Build::~Build() {
    stop();
}

bool Build::ended(int& status) {
    int code;
    pid_t pid;
    do {
        pid = waitpid(builder, &code, WNOHANG);
    } while (pid == -1 && errno == EINTR);
    const int err = errno;
    if (pid == -1)
        throw IOException(err, "cannot look at the build");
    if (pid == 0)
        return false;
    builder = -1;
    status = WIFEXITED(code) ? WEXITSTATUS(code) : buildFailedStatus;
    if (WIFSIGNALED(code))
        std::cerr << "vkahost: build failed: killed by " << signalName(WTERMSIG(code)) << std::endl;
    return true;
}

void Build::stop() {
    if (builder == -1)
        return;
    const int64_t deadline = nowMs() + graceMs;
    bool gone = false;
    while (nowMs() < deadline) { // several times, as it may not have had its session yet
        gone = gone || waitpid(builder, nullptr, WNOHANG) == builder;
        if (gone && kill(-builder, 0) == -1) { // its id may be another's by and by
            builder = -1;
            return;
        }
        kill(-builder, SIGTERM);
        poll(nullptr, 0, 5);
    }
    kill(-builder, SIGKILL);
    if (!gone)
        kill(builder, SIGKILL);
    while (!gone && waitpid(builder, nullptr, 0) == -1 && errno == EINTR) {
    }
    builder = -1;
}
