// SPDX-License-Identifier: MIT
#include <host/builder>

#include <host/archive>
#include <host/report>

#include <libqvio/IOException>
#include <libqvutil/QVException>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <iostream>
#include <poll.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

const int graceMs = 1000; // for commands of a stopped build to clean up

/** The build failed, as opposed to the host. */
class BuildFailure : public std::runtime_error {
public:
    explicit BuildFailure(const std::string& msg) : std::runtime_error(msg) {}
};

/** Tells whether a file was replaced or written since. */
class FileMark {
public:
    explicit FileMark(const std::string& path) : info() {
        // What belongs to somebody else was not made by this build, whoever touched it meanwhile.
        if (stat(path.c_str(), &info) == -1 || info.st_uid != geteuid())
            info = {};
    }
    bool exists() const { return info.st_ino != 0; }
    bool operator==(const FileMark& other) const {
        return info.st_dev == other.info.st_dev && info.st_ino == other.info.st_ino &&
               info.st_ctim.tv_sec == other.info.st_ctim.tv_sec &&
               info.st_ctim.tv_nsec == other.info.st_ctim.tv_nsec;
    }

private:
    struct stat info;
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
    // A make that was killed counts as success for the library.
    const FileMark built(program);
    if (!built.exists() || built == old)
        throw BuildFailure("make ended without a new program" + likelyCause(log));
}

void exportSources(HostClient& client, const std::string& file) {
    const FileMark old(file);
    VKAClient::args_t log;
    client.getSources(quoteForShell(file), log);
    print(log);
    const FileMark packed(file);
    if (!packed.exists() || packed == old)
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
        const int null = open("/dev/null", O_RDONLY);
        dup2(null, STDIN_FILENO);
        const int status = buildStatus(client, options);
        std::cout.flush();
        _exit(status);
    }
    return builder;
}

/** Ends what is left of a build after its own process. */
void endCommands(pid_t builder) {
    for (int waitedMs = 0; waitedMs < graceMs && kill(-builder, 0) == 0; waitedMs += 20)
        poll(nullptr, 0, 20);
    kill(-builder, SIGKILL);
}

int supervise(pid_t builder, Signals& signals) {
    int stopSignal = 0;
    int status;
    while (waitpid(builder, &status, WNOHANG) == 0) {
        pollfd entry = {signals.fd(), POLLIN, 0};
        poll(&entry, 1, stopSignal == 0 ? -1 : 100);
        const int sig = signals.take();
        if (stopSignal == 0)
            stopSignal = sig;
        if (stopSignal != 0)
            kill(-builder, SIGTERM); // again and again: it may not have had its session yet
    }
    if (stopSignal != 0) {
        endCommands(builder);
        std::cout << "vkahost: build stopped by " << signalName(stopSignal) << std::endl;
        return 128 + stopSignal;
    }
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    std::cerr << "vkahost: build failed: killed by " << signalName(WTERMSIG(status)) << std::endl;
    return buildFailedStatus;
}

} // namespace

int buildProgram(HostClient& client, const Options& options, Signals& signals) {
    return supervise(startBuild(client, options), signals);
}
