// SPDX-License-Identifier: MIT
// A relay between two pairs of sockets, one in place of the terminal: all in one thread, so each
// step is the same in every run.
#ifndef BENCH_SOCKETS_H
#define BENCH_SOCKETS_H

#include <libvka/client/VKAClient>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sys/socket.h>
#include <unistd.h>

inline void require(bool condition, const char* what) {
    if (!condition) {
        std::perror(what);
        std::exit(1);
    }
}

class SocketRelay : public VKAClient {
public:
    SocketRelay() : VKAClient("/tmp", false, SIZE_MAX / 2, 0, "", 0) {
        for (int* pair : {child, client})
            require(socketpair(AF_UNIX, SOCK_STREAM, 0, pair) == 0, "socketpair");
        master = child[0];
        fdConn = client[0];
    }
    ~SocketRelay() {
        close(child[1]);
        close(client[1]);
    }

    /** One pass of a host's loop. */
    void pass() {
        FdSet rfds;
        FdSet wfds;
        addConsole(rfds, wfds);
        require(select(rfds.num(wfds), rfds.addr(), wfds.addr(), nullptr, nullptr) > 0, "select");
        handleData(rfds, wfds);
    }

    /** The program's end and the client's. */
    int programSide() const { return child[1]; }
    int clientSide() const { return client[1]; }

    void queueChunk() {
        send(programSide());
        handleData(FdSet(master), FdSet());
    }
    void fetchChunk() {
        handleData(FdSet(), FdSet(fdConn));
        receive(clientSide());
    }

    static const size_t chunk = BUFSIZE;
    static void send(int fd) {
        char data[chunk] = {};
        require(write(fd, data, chunk) == static_cast<ssize_t>(chunk), "write");
    }
    static void receive(int fd) {
        char data[chunk];
        require(read(fd, data, chunk) == static_cast<ssize_t>(chunk), "read");
    }

private:
    int child[2];
    int client[2];
};

#endif
