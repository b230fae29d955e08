// SPDX-License-Identifier: MIT
// The libraries' functions, each beside the least that does the same ("floor") or beside what a
// user would take instead ("peer"). The names tell which is compared with which: bench/report.py
// divides "X/library/N" by "X/floor/N" and "X/peer/N".
#include "sockets.h"

#include <libqvio/fileutils>
#include <libqvutil/utility>
#include <libvka/client/VKAClient>

#include <benchmark/benchmark.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <pty.h>
#include <spawn.h>
#include <sstream>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

typedef std::vector<std::string> lines_t;

// --- Output of commands
// ---------------------------------------------------------------------------

class FileOfLines {
public:
    explicit FileOfLines(int64_t count) : path("/tmp/bench-lines") {
        std::ofstream file(path);
        const std::string line(59, 'x');
        for (int64_t i = 0; i < count; ++i)
            file << line << '\n';
        file.close();
        require(!file.fail(), "cannot write the lines");
    }
    ~FileOfLines() { unlink(path.c_str()); }
    std::string command() const { return "cat " + path; }

private:
    const std::string path;
};

int captureByPopen(const char* cmd, lines_t& lines) {
    FILE* const pipe = popen(cmd, "r");
    if (!pipe)
        return -1;
    static char buf[65536];
    std::string rest;
    ssize_t got;
    while ((got = read(fileno(pipe), buf, sizeof(buf))) > 0) {
        const char* data = buf;
        const char* const stop = buf + got;
        while (const void* found = memchr(data, '\n', static_cast<size_t>(stop - data))) {
            const char* end = static_cast<const char*>(found);
            if (rest.empty()) {
                if (end != data)
                    lines.emplace_back(data, end);
            } else {
                rest.append(data, end);
                lines.push_back(rest);
                rest.clear();
            }
            data = end + 1;
        }
        rest.append(data, stop);
    }
    return pclose(pipe);
}

int captureByGetline(const char* cmd, lines_t& lines) {
    FILE* const pipe = popen(cmd, "r");
    if (!pipe)
        return -1;
    char* line = nullptr;
    size_t size = 0;
    ssize_t length;
    while ((length = getline(&line, &size, pipe)) > 0) {
        if (line[length - 1] == '\n')
            --length;
        if (length > 0)
            lines.emplace_back(line, static_cast<size_t>(length));
    }
    free(line);
    return pclose(pipe);
}

int captureByLibrary(const char* cmd, lines_t& lines) {
    return getCmdCallOutput(cmd, lines, true);
}

template <int (*capture)(const char*, lines_t&)>
void captureLines(benchmark::State& state) {
    const FileOfLines file(state.range(0));
    const std::string command = file.command();
    for (auto _ : state) {
        lines_t lines;
        require(capture(command.c_str(), lines) == 0, "cat failed");
        require(lines.size() == static_cast<size_t>(state.range(0)), "lines are missing");
    }
}

template <int (*capture)(const char*, lines_t&)>
void captureNothing(benchmark::State& state) {
    for (auto _ : state) {
        lines_t lines;
        require(capture("true", lines) == 0, "true failed");
    }
}

// --- Deleting
// --------------------------------------------------------------------------------------

const char treePath[] = "/tmp/bench-tree";

void makeTree(int64_t files) {
    require(mkdir(treePath, 0777) == 0, "mkdir");
    for (int64_t dir = 0; dir * 100 < files; ++dir) {
        const std::string path = treePath + std::string("/") + std::to_string(dir);
        require(mkdir(path.c_str(), 0777) == 0, "mkdir");
        for (int64_t file = 0; file < 100 && dir * 100 + file < files; ++file) {
            const int fd = creat((path + "/" + std::to_string(file)).c_str(), 0666);
            require(fd != -1, "creat");
            close(fd);
        }
    }
}

/** Directories in each other; the path of the last is longer than any call takes. */
void makeDeep(int64_t depth) {
    require(mkdir(treePath, 0777) == 0, "mkdir");
    int dir = open(treePath, O_RDONLY | O_DIRECTORY);
    for (int64_t i = 0; i < depth; ++i) {
        require(mkdirat(dir, "d", 0777) == 0, "mkdirat");
        const int below = openat(dir, "d", O_RDONLY | O_DIRECTORY);
        close(dir);
        dir = below;
    }
    close(dir);
}

int removeByLibrary() {
    return rmDir(treePath, true);
}

int removeByRm() {
    const char* const argv[] = {"rm", "-rf", treePath, nullptr};
    pid_t pid;
    int status;
    if (posix_spawnp(&pid, "rm", nullptr, nullptr, const_cast<char* const*>(argv), environ) != 0 ||
        waitpid(pid, &status, 0) != pid)
        return -1;
    return status;
}

template <void (*make)(int64_t), int (*remove)()>
void removeTree(benchmark::State& state) {
    for (auto _ : state) {
        state.PauseTiming();
        make(state.range(0));
        state.ResumeTiming();
        require(remove() == 0, "cannot remove the tree");
    }
}

// --- Starting the program
// --------------------------------------------------------------------------

/** Memory of the host: written to, so that fork() has to copy the tables of its pages. */
class HostMemory {
public:
    HostMemory(int64_t mebibytes, int advice) : size(static_cast<size_t>(mebibytes) << 20) {
        memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        require(memory != MAP_FAILED, "mmap");
        // Pages of 4 KiB, unless asked otherwise: what a heap that grew piece by piece has.
        require(madvise(memory, size, MADV_NOHUGEPAGE) == 0, "madvise");
        if (advice != -1)
            require(madvise(memory, size, advice) == 0, "madvise");
        memset(memory, 1, size);
    }
    ~HostMemory() { munmap(memory, size); }

private:
    const size_t size;
    void* memory;
};

class Agent : public VKAClient {
public:
    Agent() : VKAClient("/tmp/bench-work", true, 1 << 20, 0, "", 0) {}
    int terminal() const { return master; }
    void start() { run(); }
    void reap() {
        pidset_t ended;
        waitChildren(true, ended);
    }
};

class Floor {
public:
    Floor() { require(openpty(&master, &slave, nullptr, nullptr, nullptr) == 0, "openpty"); }
    int terminal() const { return master; }
    void start() {
        pid = fork();
        require(pid != -1, "fork");
        if (pid == 0) {
            for (int fd = 0; fd < 3; ++fd)
                dup2(slave, fd);
            char name[] = "vkabin";
            char* const argv[] = {name, nullptr};
            execv("/tmp/vkabin", argv);
            _exit(1);
        }
    }
    void reap() { waitpid(pid, nullptr, 0); }

private:
    int master = -1;
    int slave = -1;
    pid_t pid = -1;
};

/** From the call to the program's first byte. */
template <class Host, int advice>
void runToFirstByte(benchmark::State& state) {
    const HostMemory memory(state.range(0), advice);
    Host host;
    setenv("BENCH_CHILD", "byte", 1);
    for (auto _ : state) {
        host.start();
        char byte;
        require(read(host.terminal(), &byte, 1) == 1, "the program wrote nothing");
        state.PauseTiming();
        host.reap();
        state.ResumeTiming();
    }
}

// --- Hexadecimal dump
// ------------------------------------------------------------------------------

const size_t dumped = 512;

void dumpByLibrary(std::ostream& os, const unsigned char* data) {
    hexdump(os, data, data + dumped, "fdconn", 16, false, true);
}

void dumpBySnprintf(std::ostream& os, const unsigned char* data) {
    char row[64];
    for (size_t start = 0; start < dumped; start += 16) {
        int length = snprintf(row, sizeof(row), "%sfdconn", start == 0 ? "" : "\n");
        for (size_t i = start; i < start + 16; ++i)
            length += snprintf(row + length, sizeof(row) - static_cast<size_t>(length), " %02x",
                               static_cast<unsigned>(data[i]));
        os.write(row, length);
    }
    os << std::endl;
}

template <void (*dump)(std::ostream&, const unsigned char*)>
void dumpChunk(benchmark::State& state) {
    unsigned char data[dumped];
    for (size_t i = 0; i < dumped; ++i)
        data[i] = static_cast<unsigned char>(i * 7);
    std::ostringstream one, other;
    dumpByLibrary(one, data);
    dumpBySnprintf(other, data);
    require(one.str() == other.str(), "the dumps differ");
    std::ofstream os("/dev/null");
    for (auto _ : state)
        dump(os, data);
}

// --- Queue
// -----------------------------------------------------------------------------------------

void queueChunks(benchmark::State& state) {
    for (auto _ : state) {
        SocketRelay relay;
        for (int64_t i = 0; i < state.range(0); ++i)
            relay.queueChunk();
        for (int64_t i = 0; i < state.range(0); ++i)
            relay.fetchChunk();
    }
}

/** Sizes for the comparison, and for the growth of the library's own cost. */
typedef std::initializer_list<int64_t> sizes_t;

void add(const char* name, void (*function)(benchmark::State&), sizes_t sizes,
         benchmark::TimeUnit unit = benchmark::kMillisecond) {
    benchmark::internal::Benchmark* added = benchmark::RegisterBenchmark(name, function);
    for (int64_t size : sizes)
        added->Arg(size);
    added->UseRealTime()->MeasureProcessCPUTime()->Unit(unit);
}

} // namespace

int main(int argc, char* argv[]) {
    const sizes_t lines = {10000, 100000, 1000000};
    add("capture/library", captureLines<captureByLibrary>, {10000, 100000, 1000000, 10000000});
    add("capture/floor", captureLines<captureByPopen>, lines);
    add("capture/peer getline", captureLines<captureByGetline>, lines);
    add("command/library", captureNothing<captureByLibrary>, {2000}, benchmark::kMicrosecond);
    add("command/floor", captureNothing<captureByPopen>, {2000}, benchmark::kMicrosecond);
    add("delete/library", removeTree<makeTree, removeByLibrary>, {1000, 50000, 1000000});
    add("delete/peer rm -rf", removeTree<makeTree, removeByRm>, {1000, 50000});
    add("delete deep/library", removeTree<makeDeep, removeByLibrary>, {100, 1000, 10000});
    add("delete deep/peer rm -rf", removeTree<makeDeep, removeByRm>, {100, 1000, 10000});
    const sizes_t mebibytes = {10, 100, 500, 1024};
    const auto us = benchmark::kMicrosecond;
    add("run/library", runToFirstByte<Agent, -1>, mebibytes, us);
    add("run/floor", runToFirstByte<Floor, -1>, mebibytes, us);
    add("run with MADV_DONTFORK/library", runToFirstByte<Agent, MADV_DONTFORK>, {500, 1024}, us);
    add("run with MADV_HUGEPAGE/library", runToFirstByte<Agent, MADV_HUGEPAGE>, {500, 1024}, us);
    add("hexdump/library", dumpChunk<dumpByLibrary>, {512}, us);
    add("hexdump/floor", dumpChunk<dumpBySnprintf>, {512}, us);
    add("queue/library", queueChunks, {1000, 10000, 100000, 1000000});
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
