#!/bin/bash
# SPDX-License-Identifier: MIT
#
# Usage: scripts/check-docs.sh [OPTION]...
#
# Checks the documentation: links, the commands and the host of README.md, the options and messages
# of vkahost, man pages, the reference of the libraries, pictures. Ends with status 0 only if all of
# it is in order. Runs with a network of its own, where README.md's port is free.
#
#   --build-dir DIR       where to build (default build/docs); one of scripts/test.sh will do
#   --no-install          install nothing
#   -h, --help            show this text

set -eu -o pipefail
# shellcheck source-path=SCRIPTDIR source=lib.sh
. "$(dirname -- "$0")/lib.sh"

build_dir=$tree/build/docs
read_options "build-dir=" "$@"
need_packages "${build_packages[@]}" "${sandbox_packages[@]}" doxygen \
    git graphviz iproute2 man-db mandoc netcat-openbsd pkgconf python3-markdown-it \
    python3-pytest shellcheck

build_tree "$build_dir" -DCMAKE_BUILD_TYPE=Release
build_dir=$(cd -- "$build_dir" && pwd -P)

# A page that is not understood is shown all the same, so that a word about it is a failure.
man_pages() {
    local page complaints failed=0
    for page in "$tree"/doc/man/*.[1-8]; do
        complaints=$(
            mandoc -T lint -W warning "$page" 2>&1 || :
            MANWIDTH=80 man --warnings=all -l "$page" 2>&1 >/dev/null || :
        )
        [ -z "$complaints" ] || {
            echo "$complaints"
            failed=1
        }
    done
    return $failed
}

reference() { (cd "$tree" && mkdir -p build && doxygen doc/Doxyfile); }

# shellcheck disable=SC2016 # for the shell inside
pages() {
    local python namespaces=(--net --mount)
    python=$(find_python pytest markdown_it) || return
    [ "$(id -u)" = 0 ] || namespaces+=(--user --map-root-user)
    unshare "${namespaces[@]}" -- bash -eu -c '
        ip link set lo up
        mount -t tmpfs tmpfs /usr/local
        exec "$1/scripts/sandbox.sh" --keep "$2" -- bash -eu -c "
            cmake --install \"\$1\" --prefix /usr/local >/dev/null
            export VKAHOST=/usr/local/bin/vkahost PYTHONDONTWRITEBYTECODE=1
            exec \"\$2\" -m pytest -p no:cacheprovider \"\$3/tests/docs\"
        " bash "$2" "$3" "$1"
    ' bash "$tree" "$build_dir" "$python"
}

failed=()
for part in man_pages reference pages; do
    say "${part//_/ }"
    "$part" || failed+=("${part//_/ }")
done
[ ${#failed[@]} = 0 ] || die "failed: ${failed[*]}"
say "the documentation is in order"
