// SPDX-License-Identifier: MIT
// vkahost: builds an archive's program, runs it and serves its console.
#include <host/Options>
#include <host/Session>
#include <host/report>

#include <libqvutil/QVException>

#include <fcntl.h>
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

} // namespace

int main(int argc, char* argv[]) {
    openStandardDescriptors();
    try {
        Options options;
        if (parseOptions(argc, argv, options))
            return Session(options).run();
        if (!std::cout.flush())
            throw QVException("cannot write to standard output");
        return 0;
    } catch (const std::exception& err) {
        return report("", err, hostFailedStatus);
    }
}
