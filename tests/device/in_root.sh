#!/bin/bash
# SPDX-License-Identifier: MIT
#
# Usage: tests/device/in_root.sh ROOT KEEP COMMAND [ARG]...
#
# Runs COMMAND inside a throw-away copy of the directory ROOT, an armhf system, where the tree and
# the directory KEEP are visible under their own paths. Run by tests/device/run as root in mount and
# process namespaces of its own.

set -eu
tree=$(cd -- "$(dirname -- "$0")/../.." && pwd -P)
root=$1 keep=$2
shift 2

# Over a directory that is there on every system and that nothing here needs.
place=/mnt
mount -t tmpfs tmpfs $place
mkdir $place/{changes,work,root}
mount -t overlay -o "lowerdir=$root,upperdir=$place/changes,workdir=$place/work" overlay $place/root
place=$place/root
mount -t proc proc $place/proc
mount --rbind /sys $place/sys
mount --rbind /dev $place/dev
for dir in "$tree" "$keep"; do
    mkdir -p "$place$dir"
    mount --bind "$dir" "$place$dir"
done
cd "$place"
# shellcheck disable=SC2016 # for the shell inside
exec chroot . /usr/bin/env -i HOME=/root LC_ALL=C.UTF-8 TERM=dumb \
    PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
    bash -c 'cd "$0" && exec "$@"' "$tree" "$@"
