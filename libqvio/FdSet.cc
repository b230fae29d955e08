// SPDX-License-Identifier: MIT
#include <libqvio/FdSet>

#include <cstdio>
#include <cstdlib>

void FdSet::outOfRange(int fd) {
    fprintf(stderr, "*** FdSet: descriptor %d outside 0 to %d ***: terminated\n", fd,
            FD_SETSIZE - 1);
    abort();
}
