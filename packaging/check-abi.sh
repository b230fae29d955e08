#!/bin/bash
# SPDX-License-Identifier: MIT
#
# Usage: packaging/check-abi.sh [--build-dir DIR] [--no-install] [BASE]
#
# Fails if programs linked to the shared libraries of BASE (a tag or commit; default: the last tag
# v*) may not work with those of this tree, unless the libraries that changed have another
# SOVERSION. Builds both in DIR (default build/abi). What is new, or not in a public header, is no
# change.

set -eu -o pipefail
# shellcheck source-path=SCRIPTDIR source=../scripts/lib.sh
. "$(dirname -- "$0")/../scripts/lib.sh"

build_dir=$tree/build/abi
read_options "build-dir= ..." "$@"
[ ${#words[@]} -le 1 ] || refuse_usage "more than one base"
base=${words[0]-}
need_packages g++ make cmake git abigail-tools binutils
mkdir -p "$build_dir"
build_dir=$(cd -- "$build_dir" && pwd -P)
libraries=(qvutil qvio qvproc vka)

in_git() { git -c safe.directory="$tree" -C "$tree" "$@"; }

soname() { readelf -d "$1" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p'; }

# public_types HEADER...: writes down for abidiff which types may be used outside. Its own options
# for that take headers by their suffix, which ours do not have.
public_types() {
    printf '[suppress_type]\nsource_location_not_in = %s\n' \
        "$(basename -a -- "$@" | sort -u | paste -s -d,)" >"$build_dir/types"
}

# compare LIBRARY NEW-LIBRARY: whether the new one does for programs that are linked to the other.
compare() {
    local old new status=0
    old=$(soname "$1")
    new=$(soname "$2")
    if [ "$old" != "$new" ]; then
        say "$old is $new now: programs have to be linked again"
        return
    fi
    abidiff --fail-no-debug-info --no-added-syms --suppr "$build_dir/types" "$1" "$2" || status=$?
    # Bit 2: something changed, bit 3: certainly not compatible; the lower ones: nothing compared.
    [ $((status & 3)) = 0 ] || die "abidiff failed with status $status"
    [ "$status" = 0 ]
}

# A check that passes everything would be none, nor one that stops every change.
try() { # NAME VERSION MEMBERS-OF-A-PUBLIC-STRUCT MEMBERS-OF-A-PRIVATE-ONE MORE
    local dir=$build_dir/proof/$1
    mkdir -p "$dir"
    echo "struct Open { $3 }; int use(const Open&); $5" >"$dir/proof"
    cat >"$dir/proof.cc" <<END
#include "proof"
struct Closed { $4 };
int hidden(const Closed& closed) { return closed.first; }
int use(const Open& open) { return open.first; }
END
    [ -z "$5" ] || echo "void more() {}" >>"$dir/proof.cc"
    g++ -g -shared -fPIC -Wl,-soname="libproof.so.$2" -o "$dir/libproof.so" "$dir/proof.cc"
}
passes() { # NAME
    compare "$build_dir/proof/"{old,"$1"}/libproof.so \
        >"$build_dir/proof/$1.log" 2>&1
}
prove() {
    rm -rf "$build_dir/proof"
    try old 0 'int first;' 'int first;' ''
    try changed 0 'int zeroth, first;' 'int first;' ''
    try renamed 1 'int zeroth, first;' 'int first;' ''
    try more 0 'int first;' 'int zeroth, first;' 'void more();'
    public_types proof
    ! passes changed || die "a changed library is not noticed"
    passes renamed || die "a changed library with another SOVERSION is refused"
    passes more || die "a function more, or a private type, is refused"
    say "a changed library is noticed; another SOVERSION, more functions, private types may be"
}

prove
[ -n "$base" ] || base=$(in_git describe --tags --match 'v*' --abbrev=0 2>/dev/null) || {
    say "no tag v* yet: there is nothing to compare with"
    exit
}
in_git rev-parse -q --verify "$base^{commit}" >/dev/null || die "there is no commit $base"

rm -rf "$build_dir/base" "$build_dir/source"
mkdir "$build_dir/source"
in_git archive "$base" | tar -x -C "$build_dir/source"
options=(-DCMAKE_BUILD_TYPE=Debug -DVKA_BUILD_HOST=OFF)
tree=$build_dir/source build_tree "$build_dir/base" "${options[@]}"
build_tree "$build_dir/new" "${options[@]}"
mapfile -t headers < <(cd "$tree" &&
    find libqvutil libqvio libqvproc libvka "$build_dir"/source/lib* -type f ! -name '*.*')
public_types "${headers[@]}"
failed=()
for library in "${libraries[@]}"; do
    compare "$build_dir"/{base,new}/"lib$library.so" || failed+=("lib$library")
done
[ ${#failed[@]} -eq 0 ] ||
    die "programs linked to $base may not work with: ${failed[*]} (change the SOVERSION)"
say "programs linked to $base work with these libraries"
