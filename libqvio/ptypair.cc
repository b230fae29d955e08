// SPDX-License-Identifier: MIT
#include <libqvio/ptypair>

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

namespace {

/** Opens the slave side that belongs to the master. @return the descriptor, or -1 with errno */
int openSlave(int master, int flags) {
    if (grantpt(master) == -1 || unlockpt(master) == -1)
        return -1;
    char name[64]; // "/dev/pts/" and a number
    const int err = ptsname_r(master, name, sizeof(name));
    if (err != 0) {
        errno = err;
        return -1;
    }
    return open(name, flags | O_NOCTTY);
}

} // namespace

int openPtyPair(int& master, int& slave, int flags) {
    const int newMaster = posix_openpt(flags | O_NOCTTY);
    if (newMaster == -1)
        return -1;
    const int newSlave = openSlave(newMaster, flags);
    if (newSlave == -1) {
        const int err = errno;
        close(newMaster);
        errno = err;
        return -1;
    }
    master = newMaster;
    slave = newSlave;
    return 0;
}
