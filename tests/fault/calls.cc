// SPDX-License-Identifier: MIT
// Functions of the C library that the product calls, with plausible error numbers: most of those
// that their manual pages name, and some that Linux gives besides. redirect.sh reads from this
// file's object which calls to redirect.
#include "inject.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

using inject::Function;

// The errors that each function gets in any case.
#define ALWAYS EINTR, EAGAIN

#define FUNCTION(name, ...) static Function name##Function(#name, {ALWAYS, __VA_ARGS__});

/** A function whose name in the product is NAME, counted as FUNCTION; FAILURE tells of it. */
#define INJECT(function, result, name, params, args, failure)                                      \
    extern "C" result inject_##name params;                                                        \
    extern "C" result inject_##name params {                                                       \
        return function##Function.hit() ? (failure) : name args;                                   \
    }

#define INJECT_INT(name, params, args) INJECT(name, int, name, params, args, -1)
/** A function that returns its error number. */
#define INJECT_ERROR(name, params, args) INJECT(name, int, name, params, args, errno)

// Files and directories.
FUNCTION(open, EACCES, EEXIST, EISDIR, ELOOP, EMFILE, ENFILE, ENOENT, ENOSPC, ENOTDIR, EROFS, EIO,
         ENOMEM, EPERM, ENXIO)
FUNCTION(openat, EACCES, ELOOP, EMFILE, ENFILE, ENOENT, ENOTDIR, EIO, ENOMEM, ENXIO, ESTALE)
FUNCTION(stat, EACCES, ELOOP, ENOENT, ENOTDIR, EIO, ENOMEM, EOVERFLOW, ENAMETOOLONG)
FUNCTION(fstat, EBADF, EIO, ENOMEM, EOVERFLOW, ESTALE)
FUNCTION(getdents64, EBADF, EFAULT, EINVAL, ENOENT, ENOTDIR, EIO, ESTALE)
FUNCTION(mkdir, EACCES, EEXIST, ELOOP, EMLINK, ENAMETOOLONG, ENOENT, ENOSPC, ENOTDIR, EROFS, EDQUOT,
         EIO, EPERM)
FUNCTION(unlinkat, EACCES, EBUSY, EIO, EISDIR, ELOOP, ENOENT, ENOTDIR, EPERM, EROFS, ENOMEM,
         ENOTEMPTY)
FUNCTION(unlink, EACCES, EBUSY, EIO, EISDIR, ENOENT, ENOTDIR, EPERM, EROFS)
FUNCTION(symlink, EACCES, EDQUOT, EEXIST, EIO, ENAMETOOLONG, ENOENT, ENOSPC, ENOTDIR, EROFS, EPERM)
FUNCTION(chdir, EACCES, EIO, ELOOP, ENOENT, ENOTDIR, ENOMEM, ESTALE)
FUNCTION(readlink, EACCES, EINVAL, EIO, ENOENT, ENOTDIR, EPERM)
FUNCTION(opendir, EACCES, EMFILE, ENFILE, ENOENT, ENOMEM, ENOTDIR)
FUNCTION(readdir64, EBADF, ENOENT)
FUNCTION(getcwd, ENOENT, EACCES, ENOMEM)

extern "C" {
int __open_2(const char* path, int flags);
int __open64_2(const char* path, int flags);
int __openat_2(int dir, const char* path, int flags);
int __openat64_2(int dir, const char* path, int flags);
ssize_t __read_chk(int fd, void* buf, size_t size, size_t room);
ssize_t __readlink_chk(const char* path, char* buf, size_t size, size_t room);
ssize_t __recv_chk(int fd, void* buf, size_t size, size_t room, int flags);
int __ptsname_r_chk(int fd, char* buf, size_t size, size_t room);
char* __getcwd_chk(char* buf, size_t size, size_t room);
int __poll_chk(pollfd* entries, nfds_t count, int timeout, size_t room);
}

#define INJECT_OPEN(name)                                                                          \
    INJECT(open, int, name, (const char* path, int flags, mode_t mode), (path, flags, mode), -1)
INJECT_OPEN(open)
INJECT_OPEN(open64)
INJECT(open, int, __open_2, (const char* path, int flags), (path, flags), -1)
INJECT(open, int, __open64_2, (const char* path, int flags), (path, flags), -1)
#define INJECT_OPENAT(name)                                                                        \
    INJECT(openat, int, name, (int dir, const char* path, int flags, mode_t mode),                 \
           (dir, path, flags, mode), -1)
INJECT_OPENAT(openat)
INJECT_OPENAT(openat64)
INJECT(openat, int, __openat_2, (int dir, const char* path, int flags), (dir, path, flags), -1)
INJECT(openat, int, __openat64_2, (int dir, const char* path, int flags), (dir, path, flags), -1)
INJECT_INT(stat, (const char* path, struct stat* info), (path, info))
INJECT(stat, int, stat64, (const char* path, struct stat64* info), (path, info), -1)
INJECT_INT(fstat, (int fd, struct stat* info), (fd, info))
INJECT(fstat, int, fstat64, (int fd, struct stat64* info), (fd, info), -1)
INJECT(getdents64, ssize_t, getdents64, (int fd, void* buf, size_t size), (fd, buf, size), -1)
INJECT_INT(mkdir, (const char* path, mode_t mode), (path, mode))
INJECT_INT(unlinkat, (int dir, const char* path, int flags), (dir, path, flags))
INJECT_INT(unlink, (const char* path), (path))
INJECT_INT(symlink, (const char* target, const char* path), (target, path))
INJECT_INT(chdir, (const char* path), (path))
INJECT(readlink, ssize_t, readlink, (const char* path, char* buf, size_t size), (path, buf, size),
       -1)
INJECT(readlink, ssize_t, __readlink_chk, (const char* path, char* buf, size_t size, size_t room),
       (path, buf, size, room), -1)
INJECT(opendir, DIR*, opendir, (const char* path), (path), nullptr)
INJECT(readdir64, dirent64*, readdir64, (DIR * dir), (dir), nullptr)
INJECT(readdir64, dirent*, readdir, (DIR * dir), (dir), nullptr)
INJECT(getcwd, char*, getcwd, (char* buf, size_t size), (buf, size), nullptr)
INJECT(getcwd, char*, __getcwd_chk, (char* buf, size_t size, size_t room), (buf, size, room),
       nullptr)

// Descriptors.
FUNCTION(read, EBADF, ECONNRESET, EFAULT, EINVAL, EIO, EISDIR, ENOMEM, ETIMEDOUT)
FUNCTION(write, EBADF, ECONNRESET, EDQUOT, EFBIG, EIO, ENOSPC, EPERM, EPIPE, EINVAL, ETIMEDOUT)
FUNCTION(recv, EBADF, ECONNRESET, ENOMEM, ENOTCONN, ETIMEDOUT)
FUNCTION(close, EIO, ENOSPC, EDQUOT, EBADF)
FUNCTION(dup2, EBADF, EBUSY, EMFILE)
FUNCTION(pipe2, EMFILE, ENFILE, EINVAL, ENOMEM)
FUNCTION(inotify_init1, EMFILE, ENFILE, ENOMEM)
FUNCTION(inotify_add_watch, EACCES, ENOENT, ENOMEM, ENOSPC, ENOTDIR)
FUNCTION(inotify_rm_watch, EINVAL)
FUNCTION(fcntl, EBADF, EINVAL, EPERM)
FUNCTION(poll, ENOMEM, EINVAL)
FUNCTION(select, ENOMEM, EINVAL, EBADF)
FUNCTION(ioctl, EBADF, EINVAL, ENOTTY, EIO)

INJECT(read, ssize_t, read, (int fd, void* buf, size_t size), (fd, buf, size), -1)
INJECT(read, ssize_t, __read_chk, (int fd, void* buf, size_t size, size_t room),
       (fd, buf, size, room), -1)

// A pipe that somebody reads takes a few bytes in any case.
static bool isPipe(int fd) {
    struct stat info;
    return fstat(fd, &info) == 0 && S_ISFIFO(info.st_mode);
}
extern "C" ssize_t inject_write(int fd, const void* data, size_t size);
extern "C" ssize_t inject_write(int fd, const void* data, size_t size) {
    return !isPipe(fd) && writeFunction.hit() ? -1 : write(fd, data, size);
}
INJECT(recv, ssize_t, recv, (int fd, void* buf, size_t size, int flags), (fd, buf, size, flags), -1)
INJECT(recv, ssize_t, __recv_chk, (int fd, void* buf, size_t size, size_t room, int flags),
       (fd, buf, size, room, flags), -1)
INJECT_INT(dup2, (int from, int to), (from, to))
INJECT_INT(pipe2, (int fds[2], int flags), (fds, flags))
INJECT_INT(inotify_init1, (int flags), (flags))
INJECT_INT(inotify_add_watch, (int fd, const char* path, uint32_t mask), (fd, path, mask))
INJECT_INT(inotify_rm_watch, (int fd, int watched), (fd, watched))
INJECT(fcntl, int, fcntl, (int fd, int command, long argument), (fd, command, argument), -1)
INJECT(fcntl, int, fcntl64, (int fd, int command, long argument), (fd, command, argument), -1)
INJECT_INT(ioctl, (int fd, unsigned long request, void* argument), (fd, request, argument))

// The product's clock runs fast, and its limits are over soon: what it does then is tested, not
// that it waits.
static const int haste = 10;

static int hastened(int timeoutMs) {
    return timeoutMs <= 0 ? timeoutMs : (timeoutMs + haste - 1) / haste;
}

extern "C" int inject_clock_gettime(clockid_t clock, timespec* now);
extern "C" int inject_clock_gettime(clockid_t clock, timespec* now) {
    const int result = clock_gettime(clock, now);
    const int64_t nanoseconds =
        (static_cast<int64_t>(now->tv_sec % 100000000) * 1000000000 + now->tv_nsec) * haste;
    now->tv_sec = static_cast<time_t>(nanoseconds / 1000000000);
    now->tv_nsec = static_cast<long>(nanoseconds % 1000000000);
    return result;
}
INJECT(poll, int, poll, (pollfd * entries, nfds_t count, int timeout),
       (entries, count, hastened(timeout)), -1)
INJECT(poll, int, __poll_chk, (pollfd * entries, nfds_t count, int timeout, size_t room),
       (entries, count, hastened(timeout), room), -1)

extern "C" int inject_select(int count, fd_set* reads, fd_set* writes, fd_set* others,
                             timeval* timeout);
extern "C" int inject_select(int count, fd_set* reads, fd_set* writes, fd_set* others,
                             timeval* timeout) {
    if (timeout) {
        const int ms = hastened(static_cast<int>(timeout->tv_sec * 1000 + timeout->tv_usec / 1000));
        timeout->tv_sec = 0;
        timeout->tv_usec = ms * 1000;
    }
    return selectFunction.hit() ? -1 : select(count, reads, writes, others, timeout);
}

// Linux gives the descriptor back whatever close() says.
extern "C" int inject_close(int fd);
extern "C" int inject_close(int fd) {
    if (!closeFunction.hit())
        return close(fd);
    const int error = errno;
    close(fd);
    errno = error;
    return -1;
}

// Sockets and terminals.
FUNCTION(socket, EACCES, EAFNOSUPPORT, EINVAL, EMFILE, ENFILE, ENOBUFS, ENOMEM)
FUNCTION(setsockopt, EBADF, EINVAL, ENOPROTOOPT, ENOBUFS, ENOMEM)
FUNCTION(bind, EACCES, EADDRINUSE, EADDRNOTAVAIL, EINVAL, ENOMEM)
FUNCTION(listen, EADDRINUSE, EBADF, EOPNOTSUPP)
FUNCTION(accept, ECONNABORTED, EMFILE, ENFILE, ENOBUFS, ENOMEM, EPERM, EPROTO, EINVAL)
FUNCTION(getsockname, EBADF, ENOBUFS)
FUNCTION(shutdown, ENOTCONN, EBADF)
FUNCTION(getaddrinfo, EMFILE, ENFILE, ENOMEM)
FUNCTION(posix_openpt, EACCES, EMFILE, ENFILE, ENOSPC, ENOENT, EIO)
FUNCTION(grantpt, EACCES, EBADF, EINVAL)
FUNCTION(unlockpt, EBADF, EINVAL, EIO)
FUNCTION(ptsname_r, ENOTTY, ERANGE, EBADF)
FUNCTION(tcgetattr, EBADF, ENOTTY, EIO)
FUNCTION(tcsetattr, EBADF, ENOTTY, EINVAL, EIO)

INJECT_INT(socket, (int domain, int type, int protocol), (domain, type, protocol))
INJECT_INT(setsockopt, (int fd, int level, int name, const void* value, socklen_t size),
           (fd, level, name, value, size))
INJECT_INT(bind, (int fd, const sockaddr* addr, socklen_t size), (fd, addr, size))
INJECT_INT(listen, (int fd, int backlog), (fd, backlog))
INJECT_INT(accept, (int fd, sockaddr* addr, socklen_t* size), (fd, addr, size))
INJECT_INT(getsockname, (int fd, sockaddr* addr, socklen_t* size), (fd, addr, size))
INJECT_INT(shutdown, (int fd, int how), (fd, how))
INJECT(getaddrinfo, int, getaddrinfo,
       (const char* host, const char* service, const addrinfo* hints, addrinfo** found),
       (host, service, hints, found), EAI_SYSTEM)
INJECT_INT(posix_openpt, (int flags), (flags))
INJECT_INT(grantpt, (int fd), (fd))
INJECT_INT(unlockpt, (int fd), (fd))
INJECT_ERROR(ptsname_r, (int fd, char* buf, size_t size), (fd, buf, size))
INJECT(ptsname_r, int, __ptsname_r_chk, (int fd, char* buf, size_t size, size_t room),
       (fd, buf, size, room), errno)
INJECT_INT(tcgetattr, (int fd, termios* tios), (fd, tios))
INJECT_INT(tcsetattr, (int fd, int when, const termios* tios), (fd, when, tios))

// Processes.
FUNCTION(fork, ENOMEM, ENOSYS)
FUNCTION(execv, E2BIG, EACCES, EIO, ELOOP, EMFILE, ENOENT, ENOEXEC, ENOMEM, EPERM, ETXTBSY)
FUNCTION(posix_spawn, ENOMEM, EACCES, ENOENT, EMFILE)
FUNCTION(posix_spawn_file_actions_init, ENOMEM)
FUNCTION(posix_spawn_file_actions_adddup2, ENOMEM, EBADF)
FUNCTION(posix_spawnattr_init, ENOMEM)
FUNCTION(waitpid, ECHILD, EINVAL)
FUNCTION(waitid, ECHILD, EINVAL)
FUNCTION(kill, EPERM, ESRCH, EINVAL)
FUNCTION(pidfd_open, EMFILE, ENFILE, ENODEV, ENOSYS, ENOMEM, ESRCH, EPERM)
FUNCTION(prctl, EINVAL, EPERM)
FUNCTION(setsid, EPERM)
FUNCTION(pthread_atfork, ENOMEM)
FUNCTION(sysinfo, EFAULT)
FUNCTION(strdup, ENOMEM)

extern "C" pid_t inject_fork();
extern "C" pid_t inject_fork() {
    const pid_t child = forkFunction.hit() ? -1 : fork();
    if (child > 0)
        inject::noteChild(child);
    return child;
}
INJECT_INT(execv, (const char* path, char* const argv[]), (path, argv))
extern "C" int inject_posix_spawn(pid_t* pid, const char* path,
                                  const posix_spawn_file_actions_t* actions,
                                  const posix_spawnattr_t* attr, char* const argv[],
                                  char* const env[]);
extern "C" int inject_posix_spawn(pid_t* pid, const char* path,
                                  const posix_spawn_file_actions_t* actions,
                                  const posix_spawnattr_t* attr, char* const argv[],
                                  char* const env[]) {
    if (posix_spawnFunction.hit())
        return errno;
    const int error = posix_spawn(pid, path, actions, attr, argv, env);
    if (error == 0)
        inject::noteChild(*pid);
    return error;
}
INJECT_ERROR(posix_spawn_file_actions_init, (posix_spawn_file_actions_t * actions), (actions))
INJECT_ERROR(posix_spawn_file_actions_adddup2,
             (posix_spawn_file_actions_t * actions, int from, int to), (actions, from, to))
INJECT_ERROR(posix_spawnattr_init, (posix_spawnattr_t * attr), (attr))
INJECT_INT(kill, (pid_t pid, int sig), (pid, sig))
INJECT_INT(prctl, (int option, unsigned long a, unsigned long b, unsigned long c, unsigned long d),
           (option, a, b, c, d))
INJECT(setsid, pid_t, setsid, (), (), -1)
INJECT_INT(sysinfo, (struct sysinfo * info), (info))
INJECT(strdup, char*, strdup, (const char* text), (text), nullptr)

// No child of that id means that somebody else has reaped it.
extern "C" pid_t inject_waitpid(pid_t pid, int* status, int options);
extern "C" pid_t inject_waitpid(pid_t pid, int* status, int options) {
    if (!waitpidFunction.hit())
        return waitpid(pid, status, options);
    const int error = errno;
    if (error == ECHILD) {
        const pid_t found = waitpid(pid, status, options);
        if (found <= 0)
            return found;
    }
    errno = error;
    return -1;
}
extern "C" int inject_waitid(idtype_t type, id_t id, siginfo_t* info, int options);
extern "C" int inject_waitid(idtype_t type, id_t id, siginfo_t* info, int options) {
    if (!waitidFunction.hit())
        return waitid(type, id, info, options);
    const int error = errno;
    if (error == ECHILD && waitpid(static_cast<pid_t>(id), nullptr, WNOHANG) == 0)
        return waitid(type, id, info, options); // it lives
    errno = error;
    return -1;
}

// The only one made by number is pidfd_open.
extern "C" long inject_syscall(long number, long a, long b);
extern "C" long inject_syscall(long number, long a, long b) {
    return pidfd_openFunction.hit() ? -1 : syscall(number, a, b);
}

extern "C" int inject_pthread_atfork(void (*prepare)(), void (*parent)(), void (*child)());
extern "C" int inject_pthread_atfork(void (*prepare)(), void (*parent)(), void (*child)()) {
    return pthread_atforkFunction.hit() ? errno : pthread_atfork(prepare, parent, child);
}
