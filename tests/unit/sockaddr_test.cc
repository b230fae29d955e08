// SPDX-License-Identifier: MIT
#include <libqvio/sockaddr>

#include <libqvio/IOException>
#include <libqvutil/QVException>

#include "tests/support/descriptors.h"
#include "tests/support/fault.h"
#include "tests/support/signals.h"
#include "tests/support/transfer.h"
#include "tests/support/wait.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <iomanip>
#include <netdb.h>
#include <pthread.h>
#include <sstream>
#include <sys/un.h>
#include <thread>

using testing::HasSubstr;
using vkatest::Disarm;
using vkatest::Fault;
using vkatest::Fd;

namespace {

Fault acceptFault, lookupFault, textFault, unusedFault;
int lookupAnswer = 0; // what a failing getaddrinfo() returns
int lastBacklog = -1;
const char* knownHost =
    nullptr; // has the address 127.0.0.1, whatever the machine's /etc/hosts says

const char* resolved(const char* host) {
    return knownHost && strcmp(host, knownHost) == 0 ? "127.0.0.1" : host;
}

sockaddr_in address(const char* ip, int port) {
    sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<in_port_t>(port));
    EXPECT_EQ(1, inet_pton(AF_INET, ip, &addr.sin_addr));
    return addr;
}

std::string text(const sockaddr_in& addr) {
    std::ostringstream os;
    os << addr;
    return os.str();
}

Fd tcpSocket(int flags = 0) {
    return Fd(socket(AF_INET, SOCK_STREAM | flags, 0));
}

sockaddr_in nameOf(int fd) {
    sockaddr_in addr = {};
    socklen_t length = sizeof(addr);
    EXPECT_EQ(0, getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &length));
    return addr;
}

/** A socket that listens on a free port of the loopback interface. */
struct Listener {
    explicit Listener(int flags = 0) : fd(tcpSocket(flags)) {
        bindSocket(fd.get(), address("127.0.0.1", 0), sizeof(sockaddr_in));
        listenConnection(fd.get(), 1);
        addr = nameOf(fd.get());
    }
    Fd connectClient() const {
        Fd client = tcpSocket();
        EXPECT_EQ(0, vkatest::uninterrupted([&] {
                      return connect(client.get(), reinterpret_cast<const sockaddr*>(&addr),
                                     sizeof(addr));
                  }));
        return client;
    }
    Fd fd;
    sockaddr_in addr;
};

/** Calls the function, which must throw an IOException with this number. @return its text */
template <typename Function>
std::string thrownBy(Function function, int err) {
    try {
        function();
    } catch (const IOException& e) {
        EXPECT_EQ(err, e.getError());
        return e.what();
    }
    ADD_FAILURE() << "nothing was thrown";
    return "";
}

/** How setInetAddr() fails for a host; the address has to stay as it is. */
template <typename Exception>
std::string lookupFailure(const char* host) {
    sockaddr_in addr;
    memset(&addr, 0x5a, sizeof(addr));
    const sockaddr_in before = addr;
    std::string what;
    try {
        setInetAddr(host, 80, addr);
        ADD_FAILURE() << "nothing was thrown";
    } catch (const Exception& e) {
        what = e.what();
    }
    EXPECT_EQ(0, memcmp(&before, &addr, sizeof(addr)));
    return what;
}

} // namespace

VKA_WRAP(acceptFault, int, accept, (int fd, sockaddr* addr, socklen_t* length), (fd, addr, length),
         -1)
VKA_WRAP(lookupFault, int, getaddrinfo,
         (const char* host, const char* service, const addrinfo* hints, addrinfo** found),
         (resolved(host), service, hints, found), lookupAnswer)
VKA_WRAP(textFault, const char*, inet_ntop,
         (int family, const void* addr, char* buf, socklen_t size), (family, addr, buf, size),
         nullptr)
VKA_WRAP((lastBacklog = backlog, unusedFault), int, listen, (int fd, int backlog), (fd, backlog),
         -1)

TEST(SetInetAddr, NullHostMeansAnyAddress) {
    sockaddr_in addr;
    memset(&addr, 0xff, sizeof(addr));
    EXPECT_EQ(sizeof(sockaddr_in), setInetAddr(nullptr, 8080, addr));
    const sockaddr_in expected = address("0.0.0.0", 8080);
    EXPECT_EQ(0, memcmp(&expected, &addr, sizeof(addr))) << "cleared throughout";
}

TEST(SetInetAddr, PortIsInNetworkByteOrder) {
    for (int port = 0; port <= 65535; ++port) {
        sockaddr_in addr;
        ASSERT_EQ(sizeof(sockaddr_in), setInetAddr(nullptr, static_cast<in_port_t>(port), addr));
        const unsigned char* bytes = reinterpret_cast<const unsigned char*>(&addr.sin_port);
        ASSERT_EQ(port, bytes[0] * 256 + bytes[1]);
    }
}

TEST(SetInetAddr, PortZeroLetsTheKernelPick) {
    sockaddr_in addr;
    const socklen_t length = setInetAddr(nullptr, 0, addr);
    const Fd fd = tcpSocket();
    bindSocket(fd.get(), addr, length);
    EXPECT_NE(0, nameOf(fd.get()).sin_port);
}

TEST(SetInetAddr, TakesADottedAddress) {
    sockaddr_in addr;
    memset(&addr, 0xff, sizeof(addr));
    EXPECT_EQ(sizeof(sockaddr_in), setInetAddr("127.0.0.1", 1234, addr));
    const sockaddr_in expected = address("127.0.0.1", 1234);
    EXPECT_EQ(0, memcmp(&expected, &addr, sizeof(addr)));
}

TEST(SetInetAddr, LooksNamesUp) {
    knownHost = "device";
    sockaddr_in addr;
    EXPECT_EQ(sizeof(sockaddr_in), setInetAddr("device", 80, addr));
    EXPECT_EQ("127.0.0.1:80", text(addr));
    knownHost = nullptr;
}

TEST(SetInetAddr, ThrowsForAnUnknownName) {
    ASSERT_EQ(0, setenv("RES_OPTIONS", "timeout:1 attempts:1", 1));
    const std::string what = lookupFailure<QVException>("no.such.host.invalid");
    EXPECT_THAT(what, HasSubstr("cannot resolve host no.such.host.invalid: "));
}

TEST(SetInetAddr, ThrowsForAnAddressOfAnotherFamily) {
    EXPECT_THAT(lookupFailure<QVException>("::1"), HasSubstr("::1"));
}

TEST(SetInetAddr, SaysWhatTheResolverSays) {
    const Disarm disarm(lookupFault);
    for (int answer : {EAI_NONAME, EAI_AGAIN, EAI_FAIL, EAI_MEMORY}) {
        lookupAnswer = answer;
        lookupFault.failAt(1, EIO);
        EXPECT_EQ(std::string("cannot resolve host h: ") + gai_strerror(answer),
                  lookupFailure<QVException>("h"));
    }
}

TEST(SetInetAddr, SystemErrorOfTheResolverIsAnIOException) {
    const Disarm disarm(lookupFault);
    lookupAnswer = EAI_SYSTEM;
    lookupFault.failAlways(EMFILE);
    EXPECT_EQ(std::string("cannot resolve host h: ") + strerror(EMFILE),
              lookupFailure<IOException>("h"));
    sockaddr_in addr;
    thrownBy([&] { setInetAddr("h", 80, addr); }, EMFILE);
}

TEST(BindSocket, BindsToTheAddress) {
    const Fd fd = tcpSocket(), other = tcpSocket();
    bindSocket(fd.get(), address("127.0.0.1", 0), sizeof(sockaddr_in));
    EXPECT_EQ(htonl(INADDR_LOOPBACK), nameOf(fd.get()).sin_addr.s_addr);
    const sockaddr_in addr = address("127.0.0.1", 0);
    bindSocket(other.get(), reinterpret_cast<const sockaddr&>(addr), sizeof(addr));
    EXPECT_NE(0, nameOf(other.get()).sin_port);
}

TEST(BindSocket, ThrowsForAUsedPortNamingTheAddress) {
    const Listener listener;
    const Fd fd = tcpSocket();
    const std::string what =
        thrownBy([&] { bindSocket(fd.get(), listener.addr, sizeof(sockaddr_in)); }, EADDRINUSE);
    EXPECT_THAT(what, HasSubstr("127.0.0.1:" + std::to_string(ntohs(listener.addr.sin_port))));
    EXPECT_THAT(what, HasSubstr(strerror(EADDRINUSE)));
}

TEST(BindSocket, ThrowsForABadDescriptor) {
    const std::string what =
        thrownBy([] { bindSocket(-1, address("127.0.0.1", 8080), sizeof(sockaddr_in)); }, EBADF);
    EXPECT_THAT(what, HasSubstr("127.0.0.1:8080"));
}

TEST(BindSocket, ThrowsForAnAddressItCannotPrint) {
    const Fd fd = tcpSocket();
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    const auto failure = [&](const void* tested, socklen_t length, int err) {
        const sockaddr& other = *static_cast<const sockaddr*>(tested);
        return thrownBy([&] { bindSocket(fd.get(), other, length); }, err);
    };
    const std::string what = "cannot bind socket: ";
    EXPECT_EQ(what + strerror(EAFNOSUPPORT), failure(&addr, sizeof(addr), EAFNOSUPPORT));
    const sa_family_t family = AF_INET; // no byte more may be read
    EXPECT_EQ(what + strerror(EINVAL), failure(&family, sizeof(family), EINVAL));
}

TEST(ListenConnection, PassesTheBacklogOn) {
    const Fd fd = tcpSocket();
    bindSocket(fd.get(), address("127.0.0.1", 0), sizeof(sockaddr_in));
    for (int backlog : {1, 5}) {
        listenConnection(fd.get(), backlog);
        EXPECT_EQ(backlog, lastBacklog);
    }
    int listening = 0;
    socklen_t length = sizeof(listening);
    ASSERT_EQ(0, getsockopt(fd.get(), SOL_SOCKET, SO_ACCEPTCONN, &listening, &length));
    EXPECT_EQ(1, listening);
}

TEST(ListenConnection, ThrowsForABadDescriptor) {
    EXPECT_THAT(thrownBy([] { listenConnection(-1, 1); }, EBADF), HasSubstr(strerror(EBADF)));
    const vkatest::Pipe pipe;
    thrownBy([&] { listenConnection(pipe.readEnd.get(), 1); }, ENOTSOCK);
}

TEST(AcceptClient, SetsTheLengthItself) {
    const Listener listener;
    for (socklen_t garbage : {socklen_t(0), socklen_t(1), socklen_t(~0u)}) {
        const Fd client = listener.connectClient();
        sockaddr peer;
        memset(&peer, 0xff, sizeof(peer));
        socklen_t length = garbage;
        const Fd conn(acceptClient(listener.fd.get(), peer, length));
        ASSERT_NE(-1, conn.get());
        EXPECT_EQ(sizeof(sockaddr_in), length);
        sockaddr_in inpeer;
        memcpy(&inpeer, &peer, sizeof(inpeer));
        EXPECT_EQ(text(nameOf(client.get())), text(inpeer));
    }
}

TEST(AcceptClient, ConnectsBothWays) {
    const Listener listener;
    const Fd client = listener.connectClient();
    sockaddr peer;
    socklen_t length;
    const Fd conn(acceptClient(listener.fd.get(), peer, length));
    char byte = 0;
    ASSERT_EQ(1, write(client.get(), "a", 1));
    ASSERT_EQ(1, vkatest::uninterrupted([&] { return read(conn.get(), &byte, 1); }));
    EXPECT_EQ('a', byte);
    ASSERT_EQ(1, write(conn.get(), "b", 1));
    ASSERT_EQ(1, vkatest::uninterrupted([&] { return read(client.get(), &byte, 1); }));
    EXPECT_EQ('b', byte);
}

TEST(AcceptClient, ConnectionIsInheritedAndBlocks) {
    const Listener listener(SOCK_CLOEXEC | SOCK_NONBLOCK);
    const Fd client = listener.connectClient();
    sockaddr peer;
    socklen_t length;
    const Fd conn(acceptClient(listener.fd.get(), peer, length));
    EXPECT_EQ(0, fcntl(conn.get(), F_GETFD) & FD_CLOEXEC);
    EXPECT_EQ(0, fcntl(conn.get(), F_GETFL) & O_NONBLOCK);
}

TEST(AcceptClient, GoesOnAfterInterruptions) {
    const Disarm disarm(acceptFault);
    const Listener listener;
    const Fd client = listener.connectClient();
    sockaddr peer;
    socklen_t length;
    acceptFault.failAt(1, EINTR);
    const Fd conn(acceptClient(listener.fd.get(), peer, length));
    EXPECT_NE(-1, conn.get());
    EXPECT_EQ(2, acceptFault.calls());
}

TEST(AcceptClient, WaitsThroughRealInterruptions) {
    const Listener listener;
    sigset_t alarms, before;
    sigemptyset(&alarms);
    sigaddset(&alarms, SIGALRM);
    const vkatest::Ticker ticker;
    Fd client;
    pthread_sigmask(SIG_BLOCK, &alarms, &before); // so that the ticks reach this thread only
    std::thread connector([&] {
        vkatest::waitUntil([&] { return ticker.ticks() > 20; });
        client = listener.connectClient();
    });
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    sockaddr peer;
    socklen_t length;
    const Fd conn(acceptClient(listener.fd.get(), peer, length));
    const int err = errno;
    connector.join();
    EXPECT_NE(-1, conn.get()) << strerror(err);
    EXPECT_GT(ticker.ticks(), 20);
}

TEST(AcceptClient, ReturnsFailures) {
    const Disarm disarm(acceptFault);
    const auto errorOf = [](int fd) {
        sockaddr peer;
        socklen_t length;
        errno = 0;
        return acceptClient(fd, peer, length) == -1 ? errno : 0;
    };
    const Listener listener(SOCK_NONBLOCK);
    const vkatest::Pipe pipe;
    EXPECT_EQ(EBADF, errorOf(-1));
    EXPECT_EQ(ENOTSOCK, errorOf(pipe.readEnd.get()));
    EXPECT_EQ(EAGAIN, errorOf(listener.fd.get()));
    for (int err : {ECONNABORTED, EMFILE, EPROTO, EPERM}) {
        acceptFault.failAt(1, err);
        EXPECT_EQ(err, errorOf(listener.fd.get()));
        EXPECT_EQ(1, acceptFault.calls());
    }
}

TEST(SockaddrOutput, ShowsAddressAndPort) {
    EXPECT_EQ("127.0.0.1:8080", text(address("127.0.0.1", 8080)));
    EXPECT_EQ("0.0.0.0:0", text(address("0.0.0.0", 0)));
    EXPECT_EQ("255.255.255.255:65535", text(address("255.255.255.255", 65535)));
    EXPECT_EQ("192.168.1.20:1", text(address("192.168.1.20", 1)));
}

TEST(SockaddrOutput, DoesNotDependOnTheNumberFormatOfTheStream) {
    std::ostringstream os;
    os << std::hex << std::showbase << std::showpos << std::uppercase;
    const auto flags = os.flags();
    EXPECT_EQ(&os, &(os << address("127.0.0.1", 8080)));
    EXPECT_EQ("127.0.0.1:8080", os.str());
    EXPECT_EQ(flags, os.flags());
    os << ' ' << 255;
    EXPECT_EQ("127.0.0.1:8080 0XFF", os.str());
}

TEST(SockaddrOutput, ShowsAQuestionMarkForWhatHasNoText) {
    const Disarm disarm(textFault);
    const sockaddr_in addr = address("127.0.0.1", 80);
    textFault.failAt(1, ENOSPC);
    EXPECT_EQ("?", text(addr));
    EXPECT_EQ("127.0.0.1:80", text(addr));
}
