// SPDX-License-Identifier: MIT
#include <libvka/client/VKAClient>

#include <libqvio/IOException>
#include <libqvio/ptypair>
#include <libqvio/sockaddr>
#include <libvka/client/log.h>

#include <cerrno>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

const size_t VKAClient::BUFSIZE;
const size_t VKAClient::joblimit;
const char VKAClient::VKA_BIN[7] = "vkabin";
const char VKAClient::VKA_BINFILE[12] = "/tmp/vkabin";

VKAClient::VKAClient(const char* _workdir, bool _console, size_t _maxbufsize, in_port_t _port,
                     const std::string& _logfile, unsigned int _debug)
    : debug(_debug), srcdir(_workdir), builddir(_workdir), vkaproc(getpid()), console(_console),
      master(-1), slave(-1), fdServer(-1), port(_port), fdConn(-1), logfile(_logfile),
      bufChild2Conn(), bufsize(0), maxbufsize(_maxbufsize), bufConn2Child(),
      totalram(getTotalRam()) {
    srcdir += "/src";
    builddir += "/build";
    if (console) {
        fdServer = socket(AF_INET, SOCK_STREAM, 0);
        if (fdServer == -1) {
            const int err = errno;
            throw IOException(err, "create socket");
        }
        const int on = 1;
        if (setsockopt(fdServer, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) == -1) {
            const int err = errno;
            throw IOException(err, "cannot set SO_REUSEADDR");
        }
        sockaddr_in serveraddr;
        const socklen_t serveraddrlen = setInetAddr(nullptr, port, serveraddr);
        if (debug > 1)
            VKA_DEBUG("serveraddr=" << serveraddr);
        bindSocket(fdServer, serveraddr, serveraddrlen);
        listenConnection(fdServer, 1);
        if (openPtyPair(master, slave, O_RDWR) == -1) {
            const int err = errno;
            throw IOException(err, "cannot open PTY pair");
        }
        if (debug > 1)
            VKA_DEBUG(__func__ << ": pid=" << getpid() << ": open PTY pair: master=" << master
                               << ", slave=" << slave);
    }
    VKA_INFO("totalram=" << totalram << " joblimit=" << joblimit);
}

VKAClient::~VKAClient() {
    vkaproc.stopChildren();
    if (debug > 1)
        VKA_DEBUG(__func__ << ": pid=" << getpid() << ": close master=" << master << " slave="
                           << slave << " fdServer=" << fdServer << " fdConn=" << fdConn);
    for (int fd : {master, slave, fdServer, fdConn}) {
        if (fd != -1)
            close(fd);
    }
}
