// SPDX-License-Identifier: MIT
// The console: moving bytes between the TCP client and the terminal's master side.
#include <libvka/client/VKAClient>

#include <libqvio/IOException>
#include <libqvio/sockaddr>
#include <libvka/client/log.h>

#include <cerrno>
#include <sys/socket.h>
#include <unistd.h>

namespace {
const char handleDataName[] = "handleData"; // its steps log under its name
}

void VKAClient::addConsole(FdSet& rfds, FdSet& wfds) {
    if (fdConn != -1) {
        if (bufConn2Child.empty())
            rfds += fdConn;
        if (!bufChild2Conn.empty())
            wfds += fdConn;
    } else if (fdServer != -1) {
        rfds += fdServer;
    }
    if (master != -1) {
        rfds += master;
        if (!bufConn2Child.empty())
            wfds += master;
    }
}

void VKAClient::handleData(const FdSet& rfds, const FdSet& wfds) {
    if (fdConn != -1) {
        if (rfds.isSet(fdConn))
            readClient();
        // After an end-of-file this asks about -1, which ends the process; it is meant to.
        if (wfds.isSet(fdConn) && !bufChild2Conn.empty())
            writeClient();
    }
    if (master != -1) {
        if (rfds.isSet(master))
            readMaster();
        if (wfds.isSet(master) && !bufConn2Child.empty()) // the same for the terminal
            writeMaster();
    }
    if (rfds.isActiveAndSet(fdServer)) {
        sockaddr addr;
        socklen_t len;
        fdConn = acceptClient(fdServer, addr, len);
        if (debug >= 1)
            VKA_DEBUG(__func__ << ": pid=" << getpid()
                               << ": connection request: fdConn=" << fdConn);
    }
}

void VKAClient::readClient() {
    unsigned char buf[BUFSIZE];
    const ssize_t sret = read(fdConn, buf, BUFSIZE);
    const int err = errno;
    if (debug >= 2)
        VKA_DEBUG_OF(handleDataName,
                     "read (" << sret << ") data from fdConn=" << fdConn << " to bufConn2Child");
    if (sret == -1)
        throw IOException(err, "cannot read from TCP port");
    if (sret != 0) {
        if (debug >= 3)
            hexdump(std::cout, buf, buf + sret, "fdconn", 16, false, true);
        bufConn2Child.insert(bufConn2Child.end(), buf, buf + sret);
    } else {
        if (debug >= 2)
            VKA_DEBUG_OF(handleDataName,
                         handleDataName << ": pid=" << getpid()
                                        << ": EOF, shutdown connection, close fdConn=" << fdConn);
        closeClient();
    }
}

void VKAClient::writeClient() {
    byteVec_t& chunk = bufChild2Conn.front();
    const ssize_t sret = write(fdConn, chunk.data(), chunk.size());
    const int err = errno;
    if (debug >= 2)
        VKA_DEBUG_OF(handleDataName, "write (" << chunk.size() << '/' << sret
                                               << ") data from bufChild2Conn to fdConn=" << fdConn);
    if (sret == -1)
        throw IOException(err, "cannot write to TCP port");
    if (sret != 0) {
        chunk.erase(chunk.begin(), chunk.begin() + sret);
        if (chunk.empty())
            bufChild2Conn.pop_front();
    } else {
        if (debug >= 1)
            VKA_DEBUG_OF(handleDataName,
                         handleDataName << ": pid=" << getpid()
                                        << ": EOF, shutdown connection, close fdConn=" << fdConn);
        closeClient();
    }
}

void VKAClient::readMaster() {
    unsigned char buf[BUFSIZE];
    const ssize_t sret = read(master, buf, BUFSIZE);
    const int err = errno;
    if (debug >= 2)
        VKA_DEBUG_OF(handleDataName, "read (" << sret << ") data from the PTY master=" << master
                                              << " to bufChild2Conn");
    if (sret == -1)
        throw IOException(err, "cannot read from PTTY");
    if (sret != 0) {
        if (debug >= 3)
            hexdump(std::cout, buf, buf + sret, "master", 16, false, true);
        bufChild2Conn.emplace_back(buf, buf + sret);
        bufsize += static_cast<size_t>(sret);
        while (!bufChild2Conn.empty() && bufsize > maxbufsize) {
            bufsize -= bufChild2Conn.front().size();
            bufChild2Conn.pop_front();
        }
    } else {
        if (debug >= 2)
            VKA_DEBUG_OF(handleDataName, handleDataName << ": pid=" << getpid() << ": close master="
                                                        << master << " slave=" << slave);
        closeTerminal();
    }
}

void VKAClient::writeMaster() {
    const ssize_t sret = write(master, bufConn2Child.data(), bufConn2Child.size());
    const int err = errno;
    if (debug >= 2)
        VKA_DEBUG_OF(handleDataName,
                     "write (" << bufConn2Child.size() << '/' << sret
                               << ") data from bufConn2Child to the PTY master=" << master);
    if (sret == -1)
        throw IOException(err, "cannot write to PTTY");
    if (sret != 0) {
        bufConn2Child.erase(bufConn2Child.begin(), bufConn2Child.begin() + sret);
    } else {
        if (debug >= 2) // no ": " before EOF: the line's settled form
            VKA_DEBUG_OF(handleDataName, handleDataName << ": pid=" << getpid()
                                                        << "EOF: close master=" << master
                                                        << " slave=" << slave);
        closeTerminal();
    }
}

void VKAClient::closeClient() {
    close(fdConn);
    fdConn = -1;
}

void VKAClient::closeTerminal() {
    close(master);
    close(slave);
    master = slave = -1;
}
