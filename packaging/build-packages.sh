#!/bin/bash
# SPDX-License-Identifier: MIT
#
# Usage: packaging/build-packages.sh [OPTION]...
#
# Builds the Debian packages libvka0, libvka-dev and vkahost, and prints their names.
#
#   --arch ARCH       this machine's architecture (default), or armhf, by the cross compiler
#   --build-dir DIR   where to build and to leave the packages (default build/packages/ARCH)
#   --no-install      install nothing
#   -h, --help        show this text

set -eu -o pipefail
# shellcheck source-path=SCRIPTDIR source=../scripts/lib.sh
. "$(dirname -- "$0")/../scripts/lib.sh"

arch='' build_dir=''
read_options "arch= build-dir=" "$@"

native=$(dpkg --print-architecture)
: "${arch:=$native}"
: "${build_dir:=$tree/build/packages/$arch}"
packages=(g++ make cmake dpkg-dev file)
cross=()
if [ "$arch" != "$native" ]; then
    [ "$arch" = armhf ] || die "no cross compiler is set up for $arch"
    packages+=(g++-arm-linux-gnueabihf)
    cross=(-DCMAKE_TOOLCHAIN_FILE="$tree/cmake/armhf.cmake")
fi
need_packages "${packages[@]}" >&2
mkdir -p "$build_dir"
build_dir=$(cd -- "$build_dir" && pwd -P)

# The same packages from the same sources: dates are the changelog's, the packages' directories do
# not follow the caller's umask, and of paths nothing is kept.
umask 022
SOURCE_DATE_EPOCH=$(dpkg-parsechangelog -l "$tree/packaging/debian/changelog" -S Timestamp)
export SOURCE_DATE_EPOCH
# The flags of Debian's own packages, but for the debugging information.
flags() { DEB_BUILD_MAINT_OPTIONS=hardening=+all dpkg-buildflags --get "$1"; }
cd "$tree"
CXXFLAGS="$(flags CPPFLAGS) $(flags CXXFLAGS) -g0" LDFLAGS=$(flags LDFLAGS) \
    build_tree "$build_dir" "${cross[@]}" -DCMAKE_BUILD_TYPE=Release -DVKA_DEBIAN_PACKAGES=ON \
    -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_SKIP_RPATH=ON \
    -DCMAKE_INSTALL_LIBDIR="lib/$(dpkg-architecture -a "$arch" -q DEB_HOST_MULTIARCH)" >&2
rm -f "$build_dir"/*.deb
(cd "$build_dir" && cpack) >"$build_dir/cpack.log" 2>&1 || {
    cat "$build_dir/cpack.log" >&2
    die "cpack failed"
}
printf '%s\n' "$build_dir"/*.deb
