// SPDX-License-Identifier: MIT
// The client of a measured console.
//
//   client PORT flood BYTES        asks for one answer of that size
//   client PORT echo BYTES         sends so much and receives it back, both at a time
//   client PORT ask COUNT BYTES    asks COUNT times for an answer of that size
//
// Prints the nanoseconds that it took; "ask" prints those of each answer. Ends with status 1 when a
// byte is not the right one.
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

static unsigned char expected[1 << 17]; // the child's block, twice: any part of it in one piece
static unsigned char input[1 << 16];
static const size_t period = 1 << 16;

static void fail(const char* what) {
    fprintf(stderr, "client: %s: %s\n", what, strerror(errno));
    exit(1);
}

static int64_t now(void) {
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return (int64_t)time.tv_sec * 1000000000 + time.tv_nsec;
}

static int connect_to(const char* port) {
    struct sockaddr_in addr = {.sin_family = AF_INET, .sin_port = htons((uint16_t)atoi(port))};
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int conn = socket(AF_INET, SOCK_STREAM, 0);
    const int on = 1;
    if (conn == -1 || connect(conn, (struct sockaddr*)&addr, sizeof(addr)) == -1 ||
        setsockopt(conn, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on)) == -1)
        fail("cannot connect");
    return conn;
}

static void send_byte(int conn) {
    if (write(conn, "g", 1) != 1)
        fail("cannot write");
}

/** Receives what is there, and compares it with the place at which it has to stand. */
static size_t receive(int conn, size_t at, size_t most) {
    const ssize_t got = recv(conn, input, most < sizeof(input) ? most : sizeof(input), 0);
    if (got <= 0)
        fail("cannot read");
    if (memcmp(input, expected + at % period, (size_t)got) != 0) {
        fprintf(stderr, "client: a wrong byte behind %zu\n", at);
        exit(1);
    }
    return (size_t)got;
}

static void receive_answer(int conn, size_t size) {
    for (size_t have = 0; have < size;)
        have += receive(conn, have, size - have);
}

static void echo(int conn, size_t size) {
    size_t sent = 0, received = 0;
    while (received < size) {
        struct pollfd entry = {conn, POLLIN, 0};
        if (sent < size)
            entry.events |= POLLOUT;
        if (poll(&entry, 1, -1) == -1)
            fail("cannot wait");
        if (entry.revents & POLLOUT) {
            const size_t left = size - sent;
            const ssize_t done =
                send(conn, expected + sent % period, left < period ? left : period, MSG_DONTWAIT);
            if (done == -1 && errno != EAGAIN)
                fail("cannot write");
            sent += done > 0 ? (size_t)done : 0;
        }
        if (entry.revents & ~POLLOUT)
            received += receive(conn, received, size - received);
    }
}

int main(int argc, char* argv[]) {
    if (argc < 4)
        return 2;
    for (size_t i = 0; i < sizeof(expected); ++i)
        expected[i] = (unsigned char)(i % period * 2654435761u >> 13);
    const int conn = connect_to(argv[1]);
    const size_t number = strtoul(argv[3], NULL, 10);
    if (strcmp(argv[2], "ask") == 0) {
        const size_t size = argc > 4 ? strtoul(argv[4], NULL, 10) : 1;
        for (size_t i = 0; i < number; ++i) {
            const int64_t start = now();
            send_byte(conn);
            receive_answer(conn, size);
            printf("%lld\n", (long long)(now() - start));
        }
        return 0;
    }
    const int64_t start = now();
    if (strcmp(argv[2], "echo") == 0) {
        echo(conn, number);
    } else {
        send_byte(conn);
        receive_answer(conn, number);
    }
    printf("%lld\n", (long long)(now() - start));
    return 0;
}
