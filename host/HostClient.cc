// SPDX-License-Identifier: MIT
#include <host/HostClient>

#include <host/clock>
#include <libqvio/IOException>
#include <libqvio/ptypair>
#include <libqvutil/QVException>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <iostream>
#include <netinet/tcp.h>
#include <new>
#include <poll.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

namespace {

const int acceptPauseMs = 1000;
const int stuckMs = 5000; // a client that hung up waits so long for the child to read
const int failedStartStatus = 126;
// Output that waits is kept in chunks of this size: each has a cost of its own in memory.
const size_t packedSize = 4096;

/** What the last output and the client may take of the host's time, in milliseconds. */
struct Patience {
    int lastOutput; // for reading what is left in the terminal
    int slowClient; // a client that takes nothing for so long gets no more
    int closing;    // for the client to see the end and close
};
const Patience programEnded = {1000, 5000, 500};
const Patience hostStopped = {40, 40, 20}; // somebody waits for the host's end

void addFdFlag(int fd, int getCommand, int setCommand, int flag, const char* what) {
    const int flags = fcntl(fd, getCommand);
    if (flags == -1 || fcntl(fd, setCommand, flags | flag) == -1) {
        const int err = errno;
        throw IOException(err, what);
    }
}

void setCloseOnExec(int fd) {
    addFdFlag(fd, F_GETFD, F_SETFD, FD_CLOEXEC, "cannot set close-on-exec");
}

void setNonBlocking(int fd) {
    addFdFlag(fd, F_GETFL, F_SETFL, O_NONBLOCK, "cannot set non-blocking mode");
}

/** What poll() says of a descriptor right now. */
short eventsOf(int fd, short events) {
    pollfd entry = {fd, events, 0};
    return poll(&entry, 1, 0) == 1 ? entry.revents : static_cast<short>(0);
}

/** Would the next read give the end of the stream, or an error? */
bool isAtEnd(int conn) {
    char byte;
    const ssize_t got = recv(conn, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    return got == 0 || (got == -1 && errno != EAGAIN && errno != EINTR);
}

// The library forks and executes in one call and keeps the id to itself, so what must happen in the
// child in between is a fork handler. It acts only while start() runs.
struct {
    pid_t host; // -1: not starting
    int report; // pipe for the child's id
} starting = {-1, -1};

void prepareChild() {
    if (starting.host == -1)
        return;
    Signals::resetInChild();
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const pid_t self = getpid();
    if (getppid() != starting.host || // the host died before the line above
        write(starting.report, &self, sizeof(self)) != sizeof(self))
        _exit(failedStartStatus);
}

/** The id that the child tells. @return -1 when it ended before */
pid_t readId(int pipe) {
    pid_t id;
    size_t have = 0;
    while (have < sizeof(id)) {
        const ssize_t got = read(pipe, reinterpret_cast<char*>(&id) + have, sizeof(id) - have);
        if (got > 0)
            have += static_cast<size_t>(got);
        else if (got == 0 || errno != EINTR)
            return -1;
    }
    return id;
}

} // namespace

HostClient::HostClient(const Options& options)
    : VKAClient(options.workdir.c_str(), options.logfile.empty(), options.maxbufsize, options.port,
                options.logfile, options.debug),
      size(), child(-1), acceptAgainAt(0), clientIsDeaf(false), waitingInput(0), waitingSince(0) {
    const int err = pthread_atfork(nullptr, nullptr, prepareChild);
    if (err != 0)
        throw IOException(err, "cannot prepare for starting programs");
    size.ws_col = options.columns;
    size.ws_row = options.rows;
    if (console) {
        setCloseOnExec(fdServer);
        setNonBlocking(fdServer); // a client may be gone between select() and accept()
        prepareTerminal();
    }
}

HostClient::~HostClient() {
    try {
        stop();
    } catch (const std::bad_alloc&) {
        // The library's destructor would end the host here. These need no memory.
        if (vkaproc.killChildren(SIGKILL) == 0)
            vkaproc.waitChildren(true);
    }
}

void HostClient::checkSelectable() const {
    for (int fd : {fdServer, master, slave}) {
        if (fd >= FD_SETSIZE) {
            QVException failure("too many open files: descriptor ");
            failure << fd << " is too high for select()";
            throw failure;
        }
    }
}

void HostClient::prepareTerminal() {
    checkSelectable();
    setCloseOnExec(master);
    setCloseOnExec(slave);
    setNonBlocking(master); // a program that never reads must not hold up the host
    termios tios;
    if (ioctl(master, TIOCSWINSZ, &size) == -1 || tcgetattr(master, &tios) == -1) {
        const int err = errno;
        throw IOException(err, "cannot set up the terminal");
    }
    cfmakeraw(&tios);
    if (tcsetattr(master, TCSANOW, &tios) == -1) {
        const int err = errno;
        throw IOException(err, "cannot set up the terminal");
    }
}

in_port_t HostClient::listeningPort() const {
    sockaddr_in addr = sockaddr_in();
    socklen_t len = sizeof(addr);
    if (getsockname(fdServer, reinterpret_cast<sockaddr*>(&addr), &len) == -1) {
        const int err = errno;
        throw IOException(err, "cannot get the port");
    }
    return ntohs(addr.sin_port);
}

void HostClient::releaseConsole() {
    for (int* fd : {&fdServer, &master, &slave, &fdConn}) {
        if (*fd != -1)
            close(*fd);
        *fd = -1;
    }
}

void HostClient::start() {
    if (!console) {
        // Not blocking: a FIFO that nobody reads is refused, instead of holding up the host.
        const int fd =
            open(logfile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NONBLOCK, 0666);
        const int err = errno;
        if (fd == -1)
            throw IOException(err, "cannot create log file " + logfile);
        close(fd);
    }
    // As after a build in this process: a program finds the files of its archive.
    if (chdir(srcdir.c_str()) == -1) {
        const int err = errno;
        throw IOException(err, "change dir to " + srcdir);
    }
    std::cout.flush(); // or the child, on some ways to its end, would print it again

    int report[2];
    if (pipe2(report, O_CLOEXEC) == -1) {
        const int err = errno;
        throw IOException(err, "cannot create pipe");
    }
    starting = {getpid(), report[1]};
    std::exception_ptr failure;
    try {
        run();
    } catch (...) {
        if (getpid() != starting.host)
            _exit(failedStartStatus);
        failure = std::current_exception();
    }
    starting.host = -1;
    close(report[1]);
    child = readId(report[0]); // -1: no child, or it was killed before it could tell
    close(report[0]);
    if (failure && !isExpected(failure))
        std::rethrow_exception(failure);
    if (child == -1)
        throw QVException("the program was killed before it started");
}

/** Outside console mode run() looks for a terminal in vain, after it has started the program. */
bool HostClient::isExpected(const std::exception_ptr& failure) const {
    try {
        std::rethrow_exception(failure);
    } catch (const IOException& err) {
        return !console && child != -1 && err.getError() == EBADF &&
               strncmp(err.what(), "tcgetattr", strlen("tcgetattr")) == 0;
    } catch (...) {
        return false;
    }
}

int HostClient::watch(FdSet& rfds, FdSet& wfds) {
    if (clientIsDeaf && isAtEnd(fdConn))
        dropClient();
    addConsole(rfds, wfds);
    if (clientIsDeaf)
        wfds -= fdConn;
    const int64_t pauseMs = acceptAgainAt - nowMs();
    if (pauseMs > 0 && fdConn == -1) {
        rfds -= fdServer;
        return static_cast<int>(pauseMs);
    }
    // A client whose input waits for the child is not read, so its hanging up must be looked for.
    return fdConn != -1 && !bufConn2Child.empty() ? 1000 : -1;
}

void HostClient::serve(const FdSet& rfds, const FdSet& wfds) {
    const bool reading = rfds.isActiveAndSet(fdConn);
    const bool writing = wfds.isActiveAndSet(fdConn);
    if (reading || writing)
        transferWithClient(reading, writing);

    FdSet otherReads = rfds;
    FdSet otherWrites = wfds;
    if (fdConn != -1) {
        otherReads -= fdConn;
        otherWrites -= fdConn;
    }
    // Fresh input is tried at once: the terminal nearly always takes it, which saves a select().
    if (reading && master != -1 && !bufConn2Child.empty())
        otherWrites += master;
    const bool accepting = otherReads.isActiveAndSet(fdServer);
    if (relay(otherReads, otherWrites) && accepting)
        adoptClient();
    packQueue();
    dropStuckClient();
}

/** The client's two transfers, apart from the rest so that what was written can be counted. */
void HostClient::transferWithClient(bool reading, bool writing) {
    FdSet rfds;
    FdSet wfds;
    if (reading && debug < 2) {
        if (!takeInput())
            return;
    } else if (reading) { // with its trace
        if (isAtEnd(fdConn)) {
            dropClient();
            return;
        }
        rfds += fdConn;
    }
    if (writing)
        wfds += fdConn;
    const size_t chunks = bufChild2Conn.size();
    const size_t before = chunks == 0 ? 0 : bufChild2Conn.front().size();
    relay(rfds, wfds);
    if (chunks != 0) {
        const size_t after = bufChild2Conn.size() < chunks ? 0 : bufChild2Conn.front().size();
        bufsize -= before - after;
    }
}

/**
 * As handleData() reads the client, which must not meet the end of the stream: looking ahead for it
 * would cost another call for each chunk. @return whether the client is still there
 */
bool HostClient::takeInput() {
    unsigned char buf[BUFSIZE];
    const ssize_t got = read(fdConn, buf, BUFSIZE);
    if (got > 0) {
        bufConn2Child.insert(bufConn2Child.end(), buf, buf + got);
    } else if (got == 0 || (errno != EAGAIN && errno != EINTR)) {
        dropClient();
        return false;
    }
    return true;
}

/** Moves the newest chunk into the one before it, unless the client is about to get that. */
void HostClient::packQueue() {
    const size_t chunks = bufChild2Conn.size();
    if (chunks < 3)
        return;
    const byteVec_t& newest = bufChild2Conn.back();
    byteVec_t& before = bufChild2Conn[chunks - 2];
    // Whole chunks are dropped at the bound, so they are small beside it.
    const size_t most = maxbufsize / 16 < packedSize ? size_t(BUFSIZE) : packedSize;
    if (before.size() + newest.size() > most)
        return;
    before.reserve(most);
    before.insert(before.end(), newest.begin(), newest.end());
    bufChild2Conn.pop_back();
}

/** @return whether every step was done; otherwise those after the failed one were left out */
bool HostClient::relay(const FdSet& rfds, const FdSet& wfds) {
    try {
        handleData(rfds, wfds);
        return true;
    } catch (const IOException& err) {
        if (err.getError() == EAGAIN || err.getError() == EINTR)
            return false;
        if (fdConn != -1 && (eventsOf(fdConn, POLLIN) & (POLLERR | POLLHUP)) != 0)
            clientIsDeaf = true;
        else if (err.getError() == EIO && master != -1)
            closeTerminal();
        else
            throw;
        return false;
    }
}

void HostClient::adoptClient() {
    if (fdConn == -1) {
        const int err = errno; // of accept(), unless the trace could not be written since
        if (err == EAGAIN)     // the client is gone already
            return;
        std::cerr << "vkahost: cannot accept a client: " << strerror(err) << std::endl;
        acceptAgainAt = nowMs() + acceptPauseMs;
        return;
    }
    if (fdConn >= FD_SETSIZE) {
        std::cerr << "vkahost: client refused: descriptor " << fdConn << " is too high for select()"
                  << std::endl;
        close(fdConn);
        fdConn = -1;
        return;
    }
    setCloseOnExec(fdConn);
    setNonBlocking(fdConn);
    const struct {
        int level;
        int name;
        int value;
    } settings[] = {
        {IPPROTO_TCP, TCP_NODELAY, 1}, // a two-chunk answer would wait for the peer's delayed ACK
        {SOL_SOCKET, SO_KEEPALIVE, 1}, // a silent peer is asked after 30 s, three times
        {IPPROTO_TCP, TCP_KEEPIDLE, 30},
        {IPPROTO_TCP, TCP_KEEPINTVL, 10},
        {IPPROTO_TCP, TCP_KEEPCNT, 3},
        {IPPROTO_TCP, TCP_USER_TIMEOUT, 60000}, // ms that sent bytes may stay unacknowledged
    };
    for (const auto& setting : settings) {
        if (setsockopt(fdConn, setting.level, setting.name, &setting.value,
                       sizeof(setting.value)) == -1) {
            const int err = errno; // such as EINVAL: reset meanwhile; the next read will tell
            std::cerr << "vkahost: cannot set a socket option: " << strerror(err) << std::endl;
        }
    }
    std::cout << "vkahost: client connected" << std::endl;
}

void HostClient::dropClient() {
    close(fdConn);
    fdConn = -1;
    clientIsDeaf = false;
    std::cout << "vkahost: client disconnected" << std::endl;
}

/** The program made the terminal its own and left it: nobody can use it again. */
void HostClient::closeTerminal() {
    for (int* fd : {&master, &slave}) {
        if (*fd != -1)
            close(*fd);
        *fd = -1;
    }
}

/** Makes room when the client has hung up and the child takes nothing of its input any more. */
void HostClient::dropStuckClient() {
    const int64_t now = nowMs();
    if (bufConn2Child.empty() || bufConn2Child.size() != waitingInput) {
        waitingInput = bufConn2Child.size();
        waitingSince = now;
    } else if (fdConn != -1 && now - waitingSince >= stuckMs) {
        waitingSince = now;
        if ((eventsOf(fdConn, POLLRDHUP) & (POLLERR | POLLHUP | POLLRDHUP)) != 0)
            dropClient();
    }
}

bool HostClient::childEnded(Ending& ending) const {
    siginfo_t info = siginfo_t();
    int ret;
    do {
        ret = waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOHANG | WNOWAIT);
    } while (ret == -1 && errno == EINTR);
    const int err = errno;
    if (ret == -1) // nobody would tell of the end again
        throw IOException(err, "cannot look at the program");
    if (info.si_pid == 0)
        return false;
    ending.killed = info.si_code != CLD_EXITED;
    ending.number = info.si_status;
    return true;
}

void HostClient::deliver(Signals& signals, bool stopped) {
    const Patience& patience = stopped ? hostStopped : programEnded;
    relayRest(signals, patience.lastOutput, patience.slowClient);
    if (fdConn != -1)
        closeClientGently(patience.closing);
}

int HostClient::renew(Signals& signals) {
    stop();
    pidset_t ended;
    waitChildren(false, ended);
    child = -1;
    if (!console)
        return 0;
    const int stopSignal = relayRest(signals, hostStopped.lastOutput, hostStopped.slowClient);
    closeTerminal();
    if (openPtyPair(master, slave, O_RDWR) == -1) {
        const int err = errno;
        throw IOException(err, "cannot open a terminal");
    }
    prepareTerminal();
    return stopSignal;
}

/**
 * Relays what the program wrote last until there is no more, or the client takes nothing for
 * slowClientMs. @return a signal that asked to stop meanwhile, which ends it, or 0
 */
int HostClient::relayRest(Signals& signals, int lastOutputMs, int slowClientMs) {
    const int64_t lastOutput = nowMs() + lastOutputMs;
    int64_t lastTransfer = nowMs();
    while (true) {
        FdSet rfds;
        FdSet wfds;
        if (clientIsDeaf)
            dropClient();
        watch(rfds, wfds);
        rfds += signals.fd();
        if (fdConn != -1)
            rfds -= fdConn; // there is nobody left to read its input
        if (master != -1) {
            wfds -= master;
            if (nowMs() >= lastOutput)
                rfds -= master; // a process that the child left behind goes on writing
        }
        int64_t waitMs = 0;
        if (fdConn != -1 && !bufChild2Conn.empty())
            waitMs = std::max<int64_t>(lastTransfer + slowClientMs - nowMs(), 0);
        timeval timeout = {static_cast<time_t>(waitMs / 1000),
                           static_cast<suseconds_t>(waitMs % 1000 * 1000)};
        const int ready = select(rfds.num(wfds), rfds.addr(), wfds.addr(), nullptr, &timeout);
        const int err = errno;
        if (ready == -1 && err == EINTR)
            continue;
        if (ready == -1) // output may be left
            throw IOException(err, "cannot wait for events");
        if (ready == 0)
            return 0;
        if (rfds.isSet(signals.fd())) {
            const int stopSignal = signals.take();
            if (stopSignal != 0)
                return stopSignal;
        }
        serve(rfds, wfds);
        lastTransfer = nowMs();
    }
}

/** Lets the client see the end first: closing with input unread would reset the connection. */
void HostClient::closeClientGently(int closingMs) {
    shutdown(fdConn, SHUT_WR);
    const int64_t deadline = nowMs() + closingMs;
    char discarded[4096];
    for (int64_t left = closingMs; left > 0; left = deadline - nowMs()) {
        pollfd entry = {fdConn, POLLIN, 0};
        if (poll(&entry, 1, static_cast<int>(left)) == 1 &&
            read(fdConn, discarded, sizeof(discarded)) <= 0)
            break;
    }
    dropClient();
}

std::string HostClient::takeUnfetched() {
    args_t chunks;
    getRunLog(chunks);
    bufsize = 0;
    std::string output;
    for (const std::string& chunk : chunks)
        output += chunk;
    return output;
}
