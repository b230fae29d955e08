// SPDX-License-Identifier: MIT
#include <libqvio/IOException>
#include <libqvio/sockaddr>
#include <tests/support/client_agent.h>
#include <tests/support/client_log.h>
#include <tests/support/descriptors.h>
#include <tests/support/fault.h>
#include <tests/support/tempdir.h>
#include <tests/support/transfer.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <arpa/inet.h>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <iterator>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/sysinfo.h>
#include <unistd.h>

using namespace vkatest;
using testing::ElementsAre;
using testing::StartsWith;

namespace {

std::vector<std::string> calls; // of the wrapped functions, in order
unsigned long totalram = 0;     // what sysinfo() tells; 0: the truth
unsigned int memUnit = 1;       // its unit, unless the truth is told
Fault socketFault, setsockoptFault, bindFault, listenFault, openptFault;

std::string join(const char* name, std::initializer_list<long> arguments) {
    std::string text = name;
    for (long argument : arguments)
        text += ' ' + std::to_string(argument);
    return text;
}

} // namespace

extern "C" {
int __real_socket(int domain, int type, int protocol);
int __wrap_socket(int domain, int type, int protocol);
int __wrap_socket(int domain, int type, int protocol) {
    calls.push_back(join("socket", {domain, type, protocol}));
    return socketFault.hit() ? -1 : __real_socket(domain, type, protocol);
}

// setsockopt() goes by two names, depending on the size of time_t.
#define WRAP_SETSOCKOPT(name)                                                                      \
    __attribute__((weak)) int __real_##name(int fd, int level, int option, const void* value,      \
                                            socklen_t size);                                       \
    int __wrap_##name(int fd, int level, int option, const void* value, socklen_t size);           \
    int __wrap_##name(int fd, int level, int option, const void* value, socklen_t size) {          \
        const int number = size == sizeof(int) ? *static_cast<const int*>(value) : -1;             \
        calls.push_back(join("setsockopt", {level, option, number}));                              \
        return setsockoptFault.hit() ? -1 : __real_##name(fd, level, option, value, size);         \
    }
WRAP_SETSOCKOPT(setsockopt)
WRAP_SETSOCKOPT(__setsockopt64)

int __real_bind(int fd, const sockaddr* addr, socklen_t size);
int __wrap_bind(int fd, const sockaddr* addr, socklen_t size);
int __wrap_bind(int fd, const sockaddr* addr, socklen_t size) {
    calls.push_back(join("bind", {static_cast<long>(size)}));
    return bindFault.hit() ? -1 : __real_bind(fd, addr, size);
}

int __real_listen(int fd, int backlog);
int __wrap_listen(int fd, int backlog);
int __wrap_listen(int fd, int backlog) {
    calls.push_back(join("listen", {backlog}));
    return listenFault.hit() ? -1 : __real_listen(fd, backlog);
}

int __real_posix_openpt(int flags);
int __wrap_posix_openpt(int flags);
int __wrap_posix_openpt(int flags) {
    calls.push_back(join("posix_openpt", {flags & O_ACCMODE, flags & O_CLOEXEC}));
    return openptFault.hit() ? -1 : __real_posix_openpt(flags);
}

int __real_sysinfo(struct sysinfo* info) noexcept;
int __wrap_sysinfo(struct sysinfo* info) noexcept;
int __wrap_sysinfo(struct sysinfo* info) noexcept {
    calls.push_back("sysinfo");
    const int ret = __real_sysinfo(info);
    if (totalram != 0) {
        info->totalram = totalram;
        info->mem_unit = memUnit;
    }
    return ret;
}
}

namespace {

class VKAClientConstruction : public testing::Test {
protected:
    VKAClientConstruction() {
        calls.clear();
        totalram = 0;
        memUnit = 1;
        for (Fault* fault :
             {&socketFault, &setsockoptFault, &bindFault, &listenFault, &openptFault})
            fault->disarm();
    }
};

sockaddr_in localAddress(int fd) {
    sockaddr_in addr = {};
    socklen_t size = sizeof(addr);
    EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &size), 0);
    return addr;
}

int socketOption(int fd, int name) {
    int value = -1;
    socklen_t size = sizeof(value);
    EXPECT_EQ(getsockopt(fd, SOL_SOCKET, name, &value, &size), 0);
    return value;
}

/** What construction writes in console mode on this port. */
std::string consoleLog(unsigned int debug, const Agent& agent, in_port_t port) {
    std::string expected;
    if (debug > 1) {
        sockaddr_in addr;
        setInetAddr(nullptr, port, addr);
        expected = debugLine("VKAClient", "serveraddr=" + text(addr)) +
                   pidLine("VKAClient", ": open PTY pair: master=" + std::to_string(agent.master) +
                                            ", slave=" + std::to_string(agent.slave));
    }
    return expected + infoLine("VKAClient", "totalram=" + std::to_string(agent.totalram) +
                                                " joblimit=536870912");
}

TEST_F(VKAClientConstruction, keepsItsArguments) {
    Log log;
    const Agent agent("/data/w", false, 1000, 2323, "/data/log", 7);
    EXPECT_EQ(agent.debug, 7u);
    EXPECT_FALSE(agent.console);
    EXPECT_EQ(agent.maxbufsize, 1000u);
    EXPECT_EQ(agent.port, 2323);
    EXPECT_EQ(agent.logfile, "/data/log");
}

TEST_F(VKAClientConstruction, startsWithEmptyBuffersAndNoChildren) {
    Log log;
    const Agent agent("/data/w", true, 1000, 0, "", 0);
    EXPECT_TRUE(agent.console);
    EXPECT_EQ(agent.fdConn, -1);
    EXPECT_TRUE(agent.bufChild2Conn.empty());
    EXPECT_TRUE(agent.bufConn2Child.empty());
    EXPECT_EQ(agent.bufsize, 0u);
    EXPECT_EQ(agent.vkaproc.getPid(), getpid());
    EXPECT_FALSE(agent.vkaproc.hasChildren());
}

TEST_F(VKAClientConstruction, namesItsDirectoriesAfterTheWorkDirectoryAsItStands) {
    const struct {
        const char *workdir, *srcdir, *builddir;
    } rows[] = {
        {"/data/w", "/data/w/src", "/data/w/build"},
        {"/data/w/", "/data/w//src", "/data/w//build"},
        {"w", "w/src", "w/build"},
        {"", "/src", "/build"},
        {"/a b/$(c)", "/a b/$(c)/src", "/a b/$(c)/build"},
    };
    for (const auto& row : rows) {
        Log log;
        const Agent agent(row.workdir, false, 0, 0, "", 0);
        EXPECT_EQ(agent.srcdir, row.srcdir);
        EXPECT_EQ(agent.builddir, row.builddir);
    }
}

TEST_F(VKAClientConstruction, createsNoDirectoryAndKeepsTheWorkingDirectory) {
    const TempDir dir;
    const auto before = std::filesystem::current_path();
    Log log;
    const Agent agent(dir.path().c_str(), false, 0, 0, "", 0);
    EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
    EXPECT_EQ(std::filesystem::current_path(), before);
}

TEST_F(VKAClientConstruction, opensNothingOutsideConsoleMode) {
    const auto before = openDescriptors();
    Log log;
    const Agent agent("/w", false, 1000, 2323, "/log", 3);
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(agent.master, -1);
    EXPECT_EQ(agent.slave, -1);
    EXPECT_EQ(agent.fdServer, -1);
    EXPECT_EQ(agent.fdConn, -1);
    EXPECT_THAT(calls, ElementsAre("sysinfo"));
}

TEST_F(VKAClientConstruction, writesOneLineOutsideConsoleModeAtEveryLevel) {
    totalram = 123456789;
    for (unsigned int debug : {0u, 1u, 2u, 3u}) {
        Log log;
        const Agent agent("/w", false, 1000, 2323, "/log", debug);
        EXPECT_EQ(log.out(),
                  "[INFO] VKAClient::VKAClient() totalram=123456789 joblimit=536870912\n");
        EXPECT_EQ(log.unflushed(), "");
        EXPECT_EQ(log.unlocked(), "");
        EXPECT_EQ(log.err(), "");
        EXPECT_EQ(agent.totalram, 123456789u);
    }
}

TEST_F(VKAClientConstruction, writesTheMemoryInDecimalUpToTheHighestNumber) {
    const bool wide = sizeof(size_t) > 4;
    const struct {
        unsigned long totalram;
        unsigned int unit;
        const char* text;
    } rows[] = {
        {2147483648, 1, "2147483648"},
        {4294967295, 1, "4294967295"},
        {1048575, 4096, "4294963200"},
        {1048576, 4096, wide ? "4294967296" : "4294967295"},
        {6170604, 4096, wide ? "25274793984" : "4294967295"},
        {ULONG_MAX, 4096, wide ? "18446744073709551615" : "4294967295"},
    };
    for (const auto& row : rows) {
        totalram = row.totalram;
        memUnit = row.unit;
        Log log;
        const Agent agent("/w", false, SIZE_MAX, 0, "/log", 0);
        EXPECT_EQ(log.out(), infoLine("VKAClient",
                                      std::string("totalram=") + row.text + " joblimit=536870912"));
        EXPECT_EQ(std::to_string(agent.totalram), row.text);
    }
}

TEST_F(VKAClientConstruction, takesItsStepsInOrder) {
    Log log;
    const Agent agent("/w", true, 1000, 0, "", 0);
    EXPECT_THAT(calls, ElementsAre("sysinfo", join("socket", {AF_INET, SOCK_STREAM, 0}),
                                   join("setsockopt", {SOL_SOCKET, SO_REUSEADDR, 1}),
                                   join("bind", {sizeof(sockaddr_in)}), join("listen", {1}),
                                   join("posix_openpt", {2, 0})));
}

TEST_F(VKAClientConstruction, writesItsLinesInConsoleModeFromLevelTwoOn) {
    for (unsigned int debug : {0u, 1u, 2u, 3u}) {
        Log log;
        const Agent agent("/w", true, 1000, 0, "", debug);
        EXPECT_EQ(log.out(), consoleLog(debug, agent, 0));
        EXPECT_EQ(log.unflushed(), "");
        EXPECT_EQ(log.unlocked(), "");
        EXPECT_EQ(log.err(), "");
    }
}

TEST_F(VKAClientConstruction, listensForClientsOnEveryLocalAddress) {
    Log log;
    const Agent agent("/w", true, 1000, 0, "", 0);
    const sockaddr_in addr = localAddress(agent.fdServer);
    EXPECT_EQ(addr.sin_addr.s_addr, htonl(INADDR_ANY));
    EXPECT_EQ(socketOption(agent.fdServer, SO_ACCEPTCONN), 1);

    sockaddr_in loopback = addr;
    loopback.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const Fd client(__real_socket(AF_INET, SOCK_STREAM, 0));
    EXPECT_EQ(uninterrupted([&] {
                  return connect(client.get(), reinterpret_cast<sockaddr*>(&loopback),
                                 sizeof(loopback));
              }),
              0);
}

TEST_F(VKAClientConstruction, listensOnThePortItWasGiven) {
    in_port_t port = 0;
    {
        Log log;
        const Agent finder("/w", true, 0, 0, "", 0);
        port = ntohs(localAddress(finder.fdServer).sin_port);
    }
    Log log;
    const Agent agent("/w", true, 0, port, "", 2);
    EXPECT_EQ(ntohs(localAddress(agent.fdServer).sin_port), port);
    EXPECT_EQ(agent.port, port);
    EXPECT_EQ(log.out(), consoleLog(2, agent, port));
}

TEST_F(VKAClientConstruction, leavesTheListenerBlockingAndInheritable) {
    Log log;
    const Agent agent("/w", true, 0, 0, "", 0);
    EXPECT_EQ(socketOption(agent.fdServer, SO_REUSEADDR), 1);
    EXPECT_EQ(fcntl(agent.fdServer, F_GETFL) & O_NONBLOCK, 0);
    for (int fd : {agent.fdServer, agent.master, agent.slave})
        EXPECT_EQ(fcntl(fd, F_GETFD), 0) << fd;
}

TEST_F(VKAClientConstruction, opensBothSidesOfOneTerminal) {
    Log log;
    const Agent agent("/w", true, 0, 0, "", 0);
    const char* const slaveName = ptsname(agent.master);
    ASSERT_TRUE(slaveName);
    EXPECT_STREQ(ttyname(agent.slave), slaveName);
    EXPECT_EQ(fcntl(agent.master, F_GETFL) & O_ACCMODE, O_RDWR);
    EXPECT_EQ(fcntl(agent.slave, F_GETFL) & O_ACCMODE, O_RDWR);
}

/** A step that fails: the exception, what was written before and what stays open. */
struct Failure {
    const char* call;
    Fault* fault;
    int err;
    const char* message; // null: whatever the helper says
    bool addressLogged;
    size_t leaked;
};

void PrintTo(const Failure& failure, std::ostream* os) {
    *os << failure.call;
}

class VKAClientConstructionFailure : public VKAClientConstruction,
                                     public testing::WithParamInterface<Failure> {};

TEST_P(VKAClientConstructionFailure, endsConstructionWithTheCallsOwnNumber) {
    const Failure& failure = GetParam();
    for (unsigned int debug : {0u, 1u, 2u, 3u}) {
        const auto before = openDescriptors();
        failure.fault->failAt(1, failure.err);
        Log log;
        try {
            const Agent agent("/w", true, 0, 0, "", debug);
            FAIL() << "constructed";
        } catch (const IOException& e) {
            EXPECT_EQ(e.getError(), failure.err);
            if (failure.message) {
                const IOException expected(failure.err, failure.message);
                EXPECT_STREQ(e.what(), expected.what());
            }
        }
        EXPECT_THAT(calls.back(), StartsWith(failure.call));
        sockaddr_in addr;
        setInetAddr(nullptr, 0, addr);
        EXPECT_EQ(log.out(), failure.addressLogged && debug > 1
                                 ? debugLine("VKAClient", "serveraddr=" + text(addr))
                                 : "");
        EXPECT_EQ(log.err(), "");

        std::set<int> leaked;
        const auto after = openDescriptors();
        std::set_difference(after.begin(), after.end(), before.begin(), before.end(),
                            std::inserter(leaked, leaked.end()));
        EXPECT_EQ(leaked.size(), failure.leaked);
        for (int fd : leaked)
            close(fd);
    }
}

INSTANTIATE_TEST_SUITE_P(
    EachStep, VKAClientConstructionFailure,
    testing::Values(
        Failure{"socket", &socketFault, EMFILE, "create socket", false, 0},
        Failure{"setsockopt", &setsockoptFault, ENOMEM, "cannot set SO_REUSEADDR", false, 1},
        Failure{"bind", &bindFault, EACCES, nullptr, true, 1},
        Failure{"listen", &listenFault, EOPNOTSUPP, nullptr, true, 1},
        Failure{"posix_openpt", &openptFault, ENOSPC, "cannot open PTY pair", true, 1}));

TEST_F(VKAClientConstruction, failsAsBindSocketDoesWhereSomebodyListens) {
    Log log;
    const Agent first("/w", true, 0, 0, "", 0);
    const in_port_t port = ntohs(localAddress(first.fdServer).sin_port);

    const Fd other(__real_socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in addr;
    const socklen_t size = setInetAddr(nullptr, port, addr);
    std::string expected;
    try {
        bindSocket(other.get(), addr, size);
    } catch (const IOException& e) {
        EXPECT_EQ(e.getError(), EADDRINUSE);
        expected = e.what();
    }

    const auto before = openDescriptors();
    try {
        const Agent second("/w", true, 0, port, "", 0);
        FAIL() << "constructed";
    } catch (const IOException& e) {
        EXPECT_EQ(e.getError(), EADDRINUSE);
        EXPECT_EQ(e.what(), expected);
    }
    for (int fd : openDescriptors()) {
        if (before.count(fd) == 0)
            close(fd);
    }
}

TEST_F(VKAClientConstruction, worksAgainAfterAFailure) {
    openptFault.failAt(1, ENOSPC);
    const auto before = openDescriptors();
    Log log;
    EXPECT_THROW(Agent("/w", true, 0, 0, "", 0), IOException);
    const Agent agent("/w", true, 0, 0, "", 0);
    EXPECT_NE(agent.master, -1);
    for (int fd : openDescriptors()) {
        if (before.count(fd) == 0 && fd != agent.master && fd != agent.slave &&
            fd != agent.fdServer)
            close(fd);
    }
}

} // namespace
