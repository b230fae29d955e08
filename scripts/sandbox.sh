#!/bin/bash
# SPDX-License-Identifier: MIT
#
# Usage: scripts/sandbox.sh [--keep DIR]... [--] COMMAND [ARG]...
#
# Runs COMMAND where it may build into /tmp/vkabin and read /opt/quorvel without touching the
# machine's own: in a mount and a process namespace in which /tmp and /opt are private and empty,
# but for /opt/quorvel with this tree's share/vka. The tree stays visible under its own path, even
# below /tmp or /opt; so does every DIR. TCP ports are shared with the machine. Nothing that COMMAND
# starts outlives it, and its exit status, or the signal that killed it, becomes the script's.
#
# Needs root, or a kernel that lets ordinary users create namespaces.

set -eu
# shellcheck source-path=SCRIPTDIR source=lib.sh
. "$(dirname -- "$0")/lib.sh"

# hidden PATH: whether a private directory will cover PATH.
hidden() { [[ $1 == /tmp/* || $1 == /opt/* ]]; }

refuse() {
    cat >&2 <<END
sandbox.sh: cannot create a mount namespace here: $1
sandbox.sh: run it as root or, for ordinary users, allow unprivileged user namespaces
sandbox.sh: (sysctl user.max_user_namespaces, kernel.unprivileged_userns_clone,
sandbox.sh: kernel.apparmor_restrict_unprivileged_userns); in a container, give it CAP_SYS_ADMIN.
sandbox.sh: "$2" was not started.
END
    exit 1
}

# Only a real mount shows what is allowed: a user namespace can be had without rights in it.
probe() { unshare "$@" --mount -- mount -t tmpfs tmpfs /tmp 2>&1; }

enter() {
    local keep=("$tree") dir reason namespaces=()
    while [ $# -gt 0 ]; do
        case $1 in
        --keep)
            option_value "$1" $#
            dir=$(cd -- "$2" && pwd -P) || die "cannot keep $2"
            keep+=("$dir")
            shift 2
            ;;
        -h | --help)
            print_usage
            exit
            ;;
        --)
            shift
            break
            ;;
        -*) refuse_usage "unknown option $1" ;;
        *) break ;;
        esac
    done
    [ $# -gt 0 ] || refuse_usage "no command"
    for dir in "${keep[@]}"; do
        case $dir in
        / | /tmp | /opt) die "cannot keep $dir visible: it is or holds what has to be private" ;;
        esac
    done
    python=$(find_python ctypes)
    if ! probe >/dev/null; then
        namespaces=(--user --map-root-user)
        reason=$(probe "${namespaces[@]}") || refuse "$reason" "$1"
    fi
    exec unshare "${namespaces[@]}" --mount -- "$0" --set-up "$python" "$(id -u):$(id -g)" \
        ${#keep[@]} "${keep[@]}" "$@"
}

# Runs inside the new mount namespace: makes the private directories, then runs the command.
set_up() {
    local python=$1 owner=$2 count=$3 dir fd
    local -A opened=()
    shift 3
    # Opened while still visible; the bind mount finds them through their descriptors.
    for dir in "${@:1:count}"; do
        if hidden "$dir"; then
            exec {fd}<"$dir"
            opened[$dir]=$fd
        fi
    done
    shift "$count"
    mount -t tmpfs -o mode=1777 tmpfs /tmp
    mount -t tmpfs -o mode=0755 tmpfs /opt
    for dir in "${!opened[@]}"; do
        fd=${opened[$dir]}
        mkdir -p "$dir"
        mount --no-canonicalize --rbind "/proc/self/fd/$fd" "$dir"
        exec {fd}<&-
    done
    mkdir -p /opt/quorvel/share /opt/quorvel/include /opt/quorvel/lib
    cp -R "$tree/share/vka" /opt/quorvel/share/
    cd -- "$PWD" 2>/dev/null || die "the current directory is not visible inside; use --keep"
    hidden "${TMPDIR:-}" && unset TMPDIR
    export VKA_SANDBOX=1 # tests that use the fixed paths refuse to run without it
    exec "$python" "$tree/scripts/sandbox_init.py" "$owner" "$@"
}

if [ "${1-}" = --set-up ]; then
    shift
    set_up "$@"
else
    enter "$@"
fi
