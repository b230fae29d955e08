// SPDX-License-Identifier: MIT
// vkahost: builds an archive's program, runs it and serves its console.
#include <host/HostClient>
#include <host/Signals>
#include <host/archive>
#include <host/builder>
#include <host/report>

#include <libqvio/IOException>

#include <cerrno>
#include <fcntl.h>
#include <iostream>
#include <unistd.h>

namespace {

/** A descriptor below 3 that is closed would be given to a socket, and then to programs. */
void openStandardDescriptors() {
    int fd;
    do {
        fd = open("/dev/null", O_RDWR);
    } while (fd != -1 && fd <= STDERR_FILENO);
    if (fd != -1)
        close(fd);
}

/** Serves the console until the child ends. @return a signal that asked to stop, or 0 */
int serveUntilEnd(HostClient& client, Signals& signals, Ending& ending) {
    while (true) {
        FdSet rfds;
        FdSet wfds;
        const int waitMs = client.watch(rfds, wfds);
        rfds += signals.fd();
        timeval timeout = {waitMs / 1000, waitMs % 1000 * 1000};
        const int ready = select(rfds.num(wfds), rfds.addr(), wfds.addr(), nullptr,
                                 waitMs < 0 ? nullptr : &timeout);
        const int err = errno;
        if (ready == -1 && err != EINTR)
            throw IOException(err, "cannot wait for events");
        if (ready == -1) { // what passes with time goes on, however often signals come
            rfds.clear();
            wfds.clear();
        }
        client.serve(rfds, wfds);
        if (rfds.isSet(signals.fd())) {
            const int stopSignal = signals.take();
            if (stopSignal != 0 || client.childEnded(ending))
                return stopSignal;
        }
    }
}

int serve(HostClient& client, Signals& signals, const Options& options) {
    client.start();
    if (options.logfile.empty())
        std::cout << "vkahost: running, console on port " << client.listeningPort() << std::endl;
    else
        std::cout << "vkahost: running, output in " << options.logfile << std::endl;

    Ending ending = {false, 0};
    const int stopSignal = serveUntilEnd(client, signals, ending);
    if (stopSignal != 0)
        client.stop();
    VKAClient::pidset_t ended;
    client.waitChildren(false, ended);
    client.deliver(signals, stopSignal != 0);

    const std::string unfetched = client.takeUnfetched();
    if (!unfetched.empty())
        std::cout << "vkahost: output that no client fetched:\n" << unfetched << '\n';
    if (stopSignal != 0) {
        std::cout << "vkahost: program stopped by " << signalName(stopSignal) << std::endl;
        return 128 + stopSignal;
    }
    std::cout << "vkahost: program " << ending.describe() << std::endl;
    return ending.exitStatus();
}

int buildAndServe(const Options& options) {
    Signals signals;
    requireCommand("make");
    requireCommand("unzip");
    if (!options.exportFile.empty())
        requireCommand("zip");
    HostClient client(options);
    const int status = buildProgram(client, options, signals);
    return status != 0 ? status : serve(client, signals, options);
}

} // namespace

int main(int argc, char* argv[]) {
    openStandardDescriptors();
    try {
        Options options;
        return parseOptions(argc, argv, options) ? buildAndServe(options) : 0;
    } catch (const std::exception& err) {
        return report("", err, hostFailedStatus);
    }
}
