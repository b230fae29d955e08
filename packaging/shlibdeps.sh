#!/bin/bash
# SPDX-License-Identifier: MIT
#
# Usage: packaging/shlibdeps.sh [ARG]...
#
# dpkg-shlibdeps, also for programs of a cross compiler. What it says of such a compiler's libraries
# are the device's packages as seen from the machine that compiles ("libc6:armhf"), or packages that
# only that one has ("libgcc-s1-armhf-cross"): the names are turned into the device's own.

set -eu -o pipefail
dpkg-shlibdeps "$@" | sed -E 's/(:armhf|-armhf-cross)\>//g'
