// SPDX-License-Identifier: MIT
#include <host/Session>

#include <host/archive>
#include <host/ending>

#include <libqvio/IOException>

#include <algorithm>
#include <cerrno>
#include <iostream>
#include <sys/select.h>

namespace {

const int goOn = -1; // instead of an exit status

const Options& withItsCommands(const Options& options) {
    requireCommand("make");
    requireCommand("unzip");
    if (!options.exportFile.empty())
        requireCommand("zip");
    return options;
}

/** Of two times to wait, of which -1 is for ever. */
int shorter(int a, int b) {
    return static_cast<int>(std::min(static_cast<unsigned int>(a), static_cast<unsigned int>(b)));
}

} // namespace

Session::Session(const Options& _options)
    : options(_options), signals(), client(withItsCommands(_options)),
      archive(_options.watch ? new ArchiveWatch(_options.archive) : nullptr), build(),
      serving(false), running(false), stopSignal(0) {}

int Session::run() {
    build.reset(new Build(client, options));
    int status = goOn;
    while (status == goOn) {
        FdSet rfds;
        wait(rfds);
        if (rfds.isSet(signals.fd())) {
            stopSignal = signals.take();
            if (stopSignal == 0)
                status = lookAtProgram();
            if (stopSignal == 0 && status == goOn)
                status = lookAtBuild();
            if (stopSignal != 0)
                status = stop();
        }
        if (status == goOn && archive && archive->replaced(rfds))
            buildAgain();
    }
    return status;
}

/** One pass of the host's loop. @param rfds what was found ready */
void Session::wait(FdSet& rfds) {
    FdSet wfds;
    int waitMs = serving ? client.watch(rfds, wfds) : -1;
    rfds += signals.fd();
    if (archive) {
        rfds += archive->fd();
        waitMs = shorter(waitMs, archive->waitMs());
    }
    timeval timeout = {waitMs / 1000, waitMs % 1000 * 1000};
    const int ready =
        select(rfds.num(wfds), rfds.addr(), wfds.addr(), nullptr, waitMs < 0 ? nullptr : &timeout);
    const int err = errno;
    if (ready == -1 && err != EINTR)
        throw IOException(err, "cannot wait for events");
    if (ready == -1) { // what passes with time goes on, however often signals come
        rfds.clear();
        wfds.clear();
    }
    if (serving)
        client.serve(rfds, wfds);
}

void Session::buildAgain() {
    std::cout << (build ? "vkahost: build stopped, as the archive was replaced again"
                        : "vkahost: archive replaced")
              << std::endl;
    build.reset();
    build.reset(new Build(client, options));
}

int Session::lookAtBuild() {
    int status = 0;
    if (!build || !build->ended(status))
        return goOn;
    build.reset();
    if (status == 0)
        startProgram();
    else if (!archive)
        return status;
    else
        sayWhatGoesOn();
    return goOn;
}

void Session::startProgram() {
    if (serving) {
        stopSignal = client.renew(signals);
        if (running)
            std::cout << "vkahost: program stopped for the new one" << std::endl;
        running = false;
        if (stopSignal != 0)
            return;
    }
    client.start();
    serving = running = true;
    if (options.logfile.empty())
        std::cout << "vkahost: running, console on port " << client.listeningPort() << std::endl;
    else
        std::cout << "vkahost: running, output in " << options.logfile << std::endl;
}

int Session::lookAtProgram() {
    Ending ending = {false, 0};
    if (!running || !client.childEnded(ending))
        return goOn;
    running = false;
    VKAClient::pidset_t ended;
    client.waitChildren(false, ended);
    if (!archive)
        closeConsole();
    std::cout << "vkahost: program " << ending.describe() << std::endl;
    if (!archive)
        return ending.exitStatus();
    if (!build)
        sayWhatGoesOn();
    return goOn;
}

void Session::sayWhatGoesOn() const {
    std::cout << (running ? "vkahost: the program before goes on"
                          : "vkahost: waiting for another archive")
              << std::endl;
}

int Session::stop() {
    const std::string name = signalName(stopSignal);
    if (build)
        std::cout << "vkahost: build stopped by " << name << std::endl;
    build.reset();
    client.stop();
    if (serving)
        closeConsole();
    if (running)
        std::cout << "vkahost: program stopped by " << name << std::endl;
    else if (archive)
        std::cout << "vkahost: stopped by " << name << std::endl;
    return 128 + stopSignal;
}

/** Nothing more will be written: gives it to the client, or else prints it. */
void Session::closeConsole() {
    client.deliver(signals, stopSignal != 0);
    const std::string unfetched = client.takeUnfetched();
    if (!unfetched.empty())
        std::cout << "vkahost: output that no client fetched:\n" << unfetched << '\n';
}
