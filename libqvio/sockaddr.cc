// SPDX-License-Identifier: MIT
#include <libqvio/sockaddr>

#include <libqvio/IOException>
#include <libqvutil/QVException>

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netdb.h>
#include <string>

namespace {

in_addr lookUp(const char* host) {
    addrinfo hints = addrinfo();
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int ret = getaddrinfo(host, nullptr, &hints, &found);
    const int err = errno;
    if (ret == EAI_SYSTEM)
        throw IOException(err, std::string("cannot resolve host ") + host);
    if (ret != 0) {
        QVException failure("cannot resolve host ");
        failure << host << ": " << gai_strerror(ret);
        throw failure;
    }
    sockaddr_in first;
    memcpy(&first, found->ai_addr, sizeof(first));
    freeaddrinfo(found);
    return first.sin_addr;
}

std::string toString(const sockaddr_in& addr) {
    char text[INET_ADDRSTRLEN];
    if (!inet_ntop(AF_INET, &addr.sin_addr, text, sizeof(text)))
        return "?";
    return std::string(text) + ':' + std::to_string(ntohs(addr.sin_port));
}

} // namespace

socklen_t setInetAddr(const char* host, in_port_t port, sockaddr_in& addr) {
    in_addr ip = in_addr();
    if (host)
        ip = lookUp(host);
    else
        ip.s_addr = htonl(INADDR_ANY);

    addr = sockaddr_in();
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr = ip;
    return sizeof(addr);
}

void bindSocket(int fd, const sockaddr& addr, socklen_t addrlen) {
    if (bind(fd, &addr, addrlen) == -1) {
        const int err = errno;
        std::string what = "cannot bind socket";
        if (addr.sa_family == AF_INET && addrlen >= sizeof(sockaddr_in)) {
            sockaddr_in inaddr;
            memcpy(&inaddr, &addr, sizeof(inaddr));
            what += " to " + toString(inaddr);
        }
        throw IOException(err, what);
    }
}

void listenConnection(int fd, int backlog) {
    if (listen(fd, backlog) == -1) {
        const int err = errno;
        throw IOException(err, "cannot listen on socket");
    }
}

int acceptClient(int fd, sockaddr& addr, socklen_t& addrlen) {
    int conn;
    do {
        addrlen = sizeof(addr);
        conn = accept(fd, &addr, &addrlen);
    } while (conn == -1 && errno == EINTR);
    return conn;
}

std::ostream& operator<<(std::ostream& os, const sockaddr_in& addr) {
    return os << toString(addr);
}
