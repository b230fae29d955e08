// SPDX-License-Identifier: MIT
// The least that a relay between a terminal and a client has to do: the same calls to the kernel as
// vkahost makes for each chunk, and nothing else. Serves one client and ends with it.
//
//   relay [nagle]    "nagle" leaves the algorithm on
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <pty.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

enum { chunk_size = 512, slots = 4096 };

static struct {
    unsigned char data[chunk_size];
    size_t start, size;
} queue[slots];

static void check(int result, const char* what) {
    if (result == -1) {
        perror(what);
        exit(1);
    }
}

static int listen_anywhere(void) {
    struct sockaddr_in addr = {.sin_family = AF_INET};
    socklen_t len = sizeof(addr);
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    check(fd, "socket");
    check(bind(fd, (struct sockaddr*)&addr, len), "bind");
    check(listen(fd, 1), "listen");
    check(getsockname(fd, (struct sockaddr*)&addr, &len), "getsockname");
    printf("console on port %d\n", ntohs(addr.sin_port));
    fflush(stdout);
    return fd;
}

static int start_child(void) {
    int master, slave;
    check(openpty(&master, &slave, NULL, NULL, NULL), "openpty");
    struct termios tios;
    check(tcgetattr(master, &tios), "tcgetattr");
    cfmakeraw(&tios);
    check(tcsetattr(master, TCSANOW, &tios), "tcsetattr");
    const pid_t pid = fork();
    check(pid, "fork");
    if (pid == 0) {
        for (int fd = 0; fd < 3; ++fd)
            dup2(slave, fd);
        execl("/tmp/vkabin", "vkabin", (char*)NULL);
        _exit(1);
    }
    check(fcntl(master, F_SETFL, O_RDWR | O_NONBLOCK), "fcntl");
    return master;
}

/** Any such program waits for signals, too: the read end of a pipe, as in vkahost. */
static int open_signals(void) {
    int fds[2];
    check(pipe(fds), "pipe");
    return fds[0];
}

static void relay(int conn, int master, int signals) {
    unsigned char input[chunk_size];
    size_t waiting = 0, first = 0, count = 0;
    const int highest = conn > signals ? conn : signals;
    while (1) {
        fd_set rfds, wfds;
        FD_ZERO(&rfds);
        FD_ZERO(&wfds);
        FD_SET(signals, &rfds);
        if (waiting == 0)
            FD_SET(conn, &rfds);
        if (count > 0)
            FD_SET(conn, &wfds);
        if (count < slots)
            FD_SET(master, &rfds);
        if (waiting > 0)
            FD_SET(master, &wfds);
        check(select(highest + 1, &rfds, &wfds, NULL, NULL), "select");
        if (FD_ISSET(conn, &rfds)) {
            const ssize_t got = read(conn, input, chunk_size);
            if (got <= 0)
                return;
            waiting = (size_t)got;
            FD_SET(master, &wfds);
        }
        if (FD_ISSET(conn, &wfds)) {
            const ssize_t done =
                write(conn, queue[first].data + queue[first].start, queue[first].size);
            if (done == -1)
                return;
            queue[first].start += (size_t)done;
            queue[first].size -= (size_t)done;
            if (queue[first].size == 0) {
                first = (first + 1) % slots;
                --count;
            }
        }
        if (FD_ISSET(master, &rfds)) {
            const size_t last = (first + count) % slots;
            const ssize_t got = read(master, queue[last].data, chunk_size);
            if (got <= 0)
                return;
            queue[last].start = 0;
            queue[last].size = (size_t)got;
            ++count;
        }
        if (FD_ISSET(master, &wfds)) {
            const ssize_t done = write(master, input, waiting);
            if (done > 0) {
                waiting -= (size_t)done;
                memmove(input, input + done, waiting);
            }
        }
    }
}

int main(int argc, char* argv[]) {
    const int server = listen_anywhere();
    const int master = start_child();
    const int signals = open_signals();
    const int conn = accept(server, NULL, NULL);
    check(conn, "accept");
    const int on = argc < 2 || strcmp(argv[1], "nagle") != 0;
    check(setsockopt(conn, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on)), "setsockopt");
    check(fcntl(conn, F_SETFL, O_RDWR | O_NONBLOCK), "fcntl");
    relay(conn, master, signals);
    return 0;
}
