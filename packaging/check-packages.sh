#!/bin/bash
# SPDX-License-Identifier: MIT
#
# Usage: packaging/check-packages.sh [OPTION]...
#
# Builds the Debian packages for this machine and for armhf, has lintian look at them, and installs,
# uses and removes them: in a root that holds nothing but what they depend on, and in the armhf root
# of tests/device, under qemu's user-mode emulation. Both roots stay in the cache; what happens in
# them is thrown away. Builds this machine's packages a second time to the same bytes. Needs root, or
# sudo.
#
#   --build-dir DIR   where to build, in the tree (default build/packages)
#   --cache DIR       default ${XDG_CACHE_HOME:-~/.cache}/vka-device
#   --no-install      install nothing
#   -h, --help        show this text

set -eu -o pipefail
# shellcheck source-path=SCRIPTDIR source=../tests/device/lib.sh
. "$(dirname -- "$0")/../tests/device/lib.sh"

build_dir=$tree/build/packages cache=${XDG_CACHE_HOME:-$HOME/.cache}/vka-device
read_options "build-dir= cache=" "$@"

native=$(dpkg --print-architecture)
packages=(dpkg-dev file lintian pkgconf systemd mmdebstrap arch-test qemu-user-static zip mount)
packages+=(g++ make cmake g++-arm-linux-gnueabihf)
need_packages "${packages[@]}"
mkdir -p "$cache" "$build_dir"
cache=$(cd -- "$cache" && pwd -P)
build_dir=$(cd -- "$build_dir" && pwd -P)

work=$(mktemp -d "$build_dir/run.XXXXXX")
clean_up() {
    local job
    for job in $(jobs -p); do
        as_root kill "$job" || [ ! -e "/proc/$job" ]
    done
    wait
    forget_emulator
    as_root rm -rf --one-file-system "$work"
}
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP

build() { # ARCH DIR
    "$tree/packaging/build-packages.sh" --no-install --arch "$1" --build-dir "$build_dir/$2" \
        >/dev/null
}
sums() { (cd "$build_dir/$1" && sha256sum -- *.deb); }

# Neither directory nor umask nor hour are in the packages.
check_again() { # ARCH
    rm -rf "$build_dir/second"
    (umask 077 && build "$1" second)
    diff <(sums "$1") <(sums second) || die "the same sources gave two different packages"
}

check_lintian() { # ARCH
    lintian --allow-root --fail-on error,warning "$build_dir/$1"/*.deb
}

# What a consumer's compiler is called with. Asked here, of the packages unpacked in DIR: the roots
# have no pkg-config.
consumer_flags() { # DIR MULTIARCH
    PKG_CONFIG_LIBDIR=$1/usr/lib/$2/pkgconfig pkg-config --cflags --libs vka | sed "s|$1||g"
}

# The packages that the packages in DIR name in Depends, but for each other.
depends() { # DIR
    local package
    for package in "$1"/*.deb; do
        dpkg-deb -f "$package" Depends
    done | tr ',' '\n' | sed 's/^ *//; s/ .*//' | grep -v '^libvka' | sort -u
}

make_plain() {
    local line
    line=$(archive_line)
    retry plain_once "$1" "$line"
}

plain_once() {
    as_root rm -rf --one-file-system "$1"
    as_root mmdebstrap --quiet --architectures="$native" --variant=apt --format=directory \
        --include="$(depends "$build_dir/$native" | paste -s -d,)" $release "$1" "$2"
}

# In the background and waited for, so that a signal is heeded at once. unshare ignores all but
# SIGKILL; what it has started ends with it.
use() { # ARCH ROOT
    local arch=$1 root=$2 multiarch dir=$work/$1 package flags sudo=()
    [ "$(id -u)" = 0 ] || sudo=(sudo) # not by a function, whose process would stand between
    multiarch=$(dpkg-architecture -a "$arch" -q DEB_HOST_MULTIARCH 2>/dev/null)
    mkdir "$dir" "$dir/unpacked"
    cp "$build_dir/$arch"/*.deb "$dir/"
    zip -q -j "$dir/calculator.zip" "$tree"/examples/calculator/*
    for package in "$dir"/*.deb; do
        dpkg-deb -x "$package" "$dir/unpacked"
    done
    "$tree/packaging/check-service.sh" --installed "$dir/unpacked"
    flags=$(consumer_flags "$dir/unpacked" "$multiarch")
    "${sudo[@]}" timeout --kill-after=1 1800 unshare --mount --pid --fork --kill-child -- \
        "$tree/tests/device/in_root.sh" "$root" "$dir" \
        packaging/use-packages.sh "$dir" "$multiarch" "$flags" &
    wait $!
}

cd "$tree"
register_emulator
for arch in "$native" armhf; do
    say "$arch: building"
    build "$arch" "$arch"
    say "$arch: lintian"
    check_lintian "$arch"
    if [ "$arch" = "$native" ]; then
        cached plain "$(depends "$build_dir/$native")"
    else
        cached root "${root_packages[*]}"
    fi
    say "$arch: installing, using and removing in $made"
    use "$arch" "$made"
done
say "$native: building again"
check_again "$native"
say "packages: built, installed, used and removed for $native and armhf"
