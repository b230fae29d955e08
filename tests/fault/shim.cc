// SPDX-License-Identifier: MIT
//
// For LD_PRELOAD: makes system calls do what they may do any time and hardly ever do.
//
//   VKA_SHIM        "bytes": transfers end after one byte; "signals": every millisecond a signal
//                   interrupts the call that waits
//   VKA_SHIM_BELOW  acts on the programs below this directory; those around them are left alone
//   VKA_SHIM_COUNT  file to which each such program appends a line at its exit, forked children
//                   included: "PROGRAM: N transfers cut, N calls interrupted"
//
// What a program under test executes is not disturbed: these variables are taken from it.

#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dlfcn.h>
#include <fcntl.h>
#include <initializer_list>
#include <new>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <ucontext.h>
#include <unistd.h>

namespace {

// Its default is to be ignored, so that one under way when a program is executed does not end it.
const int tickSignal = SIGURG;

struct Counts {
    std::atomic<unsigned long> cut, interrupted;
};

Counts* counts; // shared with forked children
bool cutting, ticking;
pid_t self;
char program[PATH_MAX], countFile[PATH_MAX];

/** The C library's function that one defined here hides. */
template <typename Function>
Function* hidden(Function*& known, const char* name) {
    if (!known)
        known = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
    return known;
}
#define HIDDEN(name)                                                                               \
    [] {                                                                                           \
        static decltype(&(name)) known;                                                            \
        return hidden(known, #name);                                                               \
    }()

size_t cut(size_t size) {
    if (!cutting || size <= 1)
        return size;
    ++counts->cut;
    return 1;
}

/** What happens to files is read as whole events; a shorter read fails. */
size_t cutRead(int fd, size_t size) {
    struct stat info;
    const bool events = cutting && fstat(fd, &info) == 0 && (info.st_mode & S_IFMT) == 0;
    return events ? size : cut(size);
}

/** Files take all; so do pipes what is small: that is promised. */
size_t cutWrite(int fd, size_t size) {
    struct stat info;
    const bool whole = cutting && fstat(fd, &info) == 0 &&
                       (S_ISREG(info.st_mode) || (S_ISFIFO(info.st_mode) && size <= PIPE_BUF));
    return whole ? size : cut(size);
}

/** The first piece that is not empty; a call's vector is one of at least one piece. */
iovec first(const iovec* vector, int count) {
    int i = 0;
    while (i < count - 1 && vector[i].iov_len == 0)
        ++i;
    return vector[i];
}

/** A call that the signal interrupted and that is not started again has its result already. */
bool hasInterrupted(const mcontext_t& state) {
#if defined(__x86_64__)
    return state.gregs[REG_RAX] == -EINTR;
#elif defined(__aarch64__)
    return static_cast<long>(state.regs[0]) == -EINTR;
#else
#error "where does this machine keep a system call's result?"
#endif
}

void tick(int, siginfo_t*, void* context) {
    if (hasInterrupted(static_cast<ucontext_t*>(context)->uc_mcontext))
        ++counts->interrupted;
}

/** Timers are not inherited by a child. */
void startTicks() {
    sigevent event = {};
    event.sigev_notify = SIGEV_SIGNAL;
    event.sigev_signo = tickSignal;
    timer_t timer;
    itimerspec interval = {};
    interval.it_value.tv_nsec = interval.it_interval.tv_nsec = 1000000;
    if (timer_create(CLOCK_MONOTONIC, &event, &timer) == -1 ||
        timer_settime(timer, 0, &interval, nullptr) == -1)
        abort();
}

void handleTicks() {
    struct sigaction action = {};
    action.sa_sigaction = tick;
    action.sa_flags = SA_SIGINFO;
    sigset_t ticks;
    sigemptyset(&ticks);
    sigaddset(&ticks, tickSignal);
    if (sigaction(tickSignal, &action, nullptr) == -1 ||
        pthread_sigmask(SIG_UNBLOCK, &ticks, nullptr) != 0 ||
        pthread_atfork(nullptr, nullptr, startTicks) != 0)
        abort();
    startTicks();
}

bool isMeant(const char* directory) {
    const ssize_t size = readlink("/proc/self/exe", program, sizeof(program) - 1);
    const size_t length = strlen(directory);
    return size > 0 && strncmp(program, directory, length) == 0 && program[length] == '/';
}

__attribute__((constructor)) void start() {
    const char* const mode = getenv("VKA_SHIM");
    const char* const directory = getenv("VKA_SHIM_BELOW");
    if (!mode || !directory || !isMeant(directory))
        return;
    void* const page =
        mmap(nullptr, sizeof(Counts), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED)
        abort();
    counts = new (page) Counts();
    self = getpid();
    if (const char* file = getenv("VKA_SHIM_COUNT"))
        snprintf(countFile, sizeof(countFile), "%s", file);
    cutting = strcmp(mode, "bytes") == 0;
    ticking = strcmp(mode, "signals") == 0;
    if (ticking)
        handleTicks();
    for (const char* name : {"LD_PRELOAD", "VKA_SHIM", "VKA_SHIM_BELOW", "VKA_SHIM_COUNT"})
        unsetenv(name);
}

__attribute__((destructor)) void end() {
    if (!counts || getpid() != self || *countFile == '\0')
        return;
    const int fd = open(countFile, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    if (fd == -1)
        abort();
    dprintf(fd, "%s: %lu transfers cut, %lu calls interrupted\n", strrchr(program, '/') + 1,
            counts->cut.load(), counts->interrupted.load());
    close(fd);
}

} // namespace

extern "C" {

ssize_t read(int fd, void* data, size_t size) {
    return HIDDEN(read)(fd, data, cutRead(fd, size));
}

ssize_t __read_chk(int fd, void* data, size_t size, size_t room);
ssize_t __read_chk(int fd, void* data, size_t size, size_t room) {
    return HIDDEN(__read_chk)(fd, data, size > room ? size : cutRead(fd, size), room);
}

ssize_t recv(int fd, void* data, size_t size, int flags) {
    return HIDDEN(recv)(fd, data, cut(size), flags);
}

ssize_t __recv_chk(int fd, void* data, size_t size, size_t room, int flags);
ssize_t __recv_chk(int fd, void* data, size_t size, size_t room, int flags) {
    return HIDDEN(__recv_chk)(fd, data, size > room ? size : cut(size), room, flags);
}

ssize_t readv(int fd, const iovec* vector, int count) {
    if (!cutting || count < 1)
        return HIDDEN(readv)(fd, vector, count);
    const iovec piece = first(vector, count);
    return read(fd, piece.iov_base, piece.iov_len);
}

ssize_t write(int fd, const void* data, size_t size) {
    return HIDDEN(write)(fd, data, cutWrite(fd, size));
}

ssize_t send(int fd, const void* data, size_t size, int flags) {
    return HIDDEN(send)(fd, data, cut(size), flags);
}

ssize_t writev(int fd, const iovec* vector, int count) {
    if (!cutting || count < 1)
        return HIDDEN(writev)(fd, vector, count);
    const iovec piece = first(vector, count);
    return write(fd, piece.iov_base, piece.iov_len);
}

/** The ticks go on where a program sets every signal back to its default. */
sighandler_t signal(int sig, sighandler_t handler) noexcept {
    return ticking && sig == tickSignal ? SIG_DFL : HIDDEN(signal)(sig, handler);
}
}
