// SPDX-License-Identifier: MIT
// Starting, stopping and reaping the child.
#include <libvka/client/VKAClient>

#include <libqvio/IOException>
#include <libvka/client/log.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <termios.h>
#include <unistd.h>

namespace {

void dupOnto(int fd, int standardFd) {
    if (dup2(fd, standardFd) == -1) {
        const int err = errno;
        throw IOException(err, "cannot replace stdin/stdout/stderr of VKA child");
    }
}

void setRawMode(int master) {
    termios tios;
    if (tcgetattr(master, &tios) == -1) {
        const int err = errno;
        throw IOException(err, "tcgetattr");
    }
    cfmakeraw(&tios);
    if (tcsetattr(master, TCSANOW, &tios) == -1) {
        const int err = errno;
        throw IOException(err, "tcsetattr");
    }
}

} // namespace

void VKAClient::run() {
    try {
        pidset_t pids;
        const int ret = waitChildren(false, pids);
        if (debug > 1)
            VKA_DEBUG(__func__ << ": pid=" << getpid() << ": waitChildren ret=" << ret
                               << " pids=" << pids);
        if (vkaproc.hasChildren())
            throw IOException(EBUSY, "VKA process(es) already running");
        bufConn2Child.clear();

        const pid_t pid = vkaproc.fork();
        if (pid == -1) {
            const int err = errno;
            throw IOException(err, "cannot fork");
        }
        if (pid == 0)
            startChild();
        setRawMode(master);
    } catch (const IOException& err) {
        {
            std::lock_guard<std::mutex> log_qv_locker(LogUtil::logMutex);
            std::cerr << "[ERROR] "
                      << "VKAClient"
                      << "::" << __func__ << "() " << err.getErrorString();
            LogUtil::printError(err.getError());
        }
        if (debug > 1)
            VKA_DEBUG(__func__ << ": pid=" << getpid() << ": close fdServer=" << fdServer
                               << " master=" << master << " slave=" << slave);
        for (int* fd : {&fdServer, &master, &slave}) {
            if (*fd != -1)
                close(*fd);
            *fd = -1;
        }
        throw;
    }
}

/** In the child: redirects its standard descriptors and starts the program. */
void VKAClient::startChild() {
    static const char function[] = "run";
    if (console) {
        dupOnto(slave, STDIN_FILENO);
        dupOnto(slave, STDOUT_FILENO);
        dupOnto(slave, STDERR_FILENO);
        if (debug > 1)
            VKA_DEBUG_OF(function, function << ": pid=" << getpid() << ": dup slave fd=" << slave
                                            << " to " << STDIN_FILENO << ',' << STDOUT_FILENO << ','
                                            << STDERR_FILENO);
    } else {
        const int fd = open(logfile.c_str(), O_WRONLY);
        if (fd == -1) {
            const int err = errno;
            throw IOException(err, "cannot open VKA child log file for writing");
        }
        if (debug > 1)
            VKA_DEBUG_OF(function,
                         function << ": pid=" << getpid() << ": open log file: fd=" << fd);
        dupOnto(fd, STDOUT_FILENO);
        dupOnto(fd, STDERR_FILENO);
        if (debug > 1)
            VKA_DEBUG_OF(function, function << ": pid=" << getpid() << ":: dup log file fd=" << fd
                                            << " to " << STDOUT_FILENO << ',' << STDERR_FILENO);
    }
    exec();
}

void VKAClient::exec() {
    if (debug != 0)
        VKA_DEBUG(__func__ << ": pid=" << getpid() << ": exec");
    char* const argv[] = {strdup(VKA_BIN), nullptr};
    if (!argv[0])
        throw std::bad_alloc();
    execv(VKA_BINFILE, argv);
    const int err = errno;
    std::cerr << "cannot exec: " << strerror(err) << std::endl;
    exit(1);
}

void VKAClient::stop() {
    vkaproc.stopChildren();
}

pid_t VKAClient::waitChildren(bool _blocking, pidset_t& _pids) {
    return vkaproc.waitChildren(_blocking, _pids);
}
