#!/bin/bash
# SPDX-License-Identifier: MIT
#
# Takes over in the emulated machine: sets up what a system's init does, then runs commands that
# arrive on the console, one a line, "NUMBER COMMAND", and says how each ended.

export HOME=/root PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mkdir -p /dev/pts /dev/shm
mount -t devpts -o ptmxmode=0666 devpts /dev/pts
mount -t tmpfs tmpfs /dev/shm
mount -t tmpfs tmpfs /run
ip link set lo up
ip address add 10.0.2.15/24 dev eth0 && ip link set eth0 up && ip route add default via 10.0.2.2
echo vka-device >/proc/sys/kernel/hostname

# The tree has to have the path under which it was built.
tree=$(sed 's/.*vka_tree=\([^ ]*\).*/\1/' /proc/cmdline)
mkdir -p "$tree"
mount --bind /mnt/tree "$tree"
cd "$tree" || echo o >/proc/sysrq-trigger

exec </dev/ttyAMA0 >/dev/ttyAMA0 2>&1
stty raw -echo -echoe -echok
dmesg -n 1 # the console belongs to the commands from here on
printf 'vka-ready\n'
while read -r number command; do
    setsid --wait bash -c "$command" </dev/null
    printf '\nvka-end %s %s\n' "$number" $?
done
