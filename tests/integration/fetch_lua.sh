#!/bin/bash
# SPDX-License-Identifier: MIT
#
# Usage: tests/integration/fetch_lua.sh DIR
#
# Makes DIR/lua.zip, unless it is there: the unchanged sources of the Lua 5.4 interpreter as a flat
# archive, taken from the source packages of the distribution. DIR also holds a package index of
# its own, read from the machine's configured sources; the machine's configuration and index stay as
# they are, and neither root nor dpkg-dev is needed.

set -eu
# shellcheck source-path=SCRIPTDIR source=../../scripts/lib.sh
. "$(dirname -- "$0")/../../scripts/lib.sh"

package=lua5.4

# The machine's sources, in either format, as entries for source packages.
derive_sources() {
    local file name
    for file in /etc/apt/sources.list /etc/apt/sources.list.d/*; do
        [ -f "$file" ] || continue
        name=${file##*/}
        case $name in
        *.list) sed 's/^[[:blank:]]*deb[[:blank:]]/deb-src /' "$file" ;;
        *.sources) sed 's/^Types:.*/Types: deb-src/I' "$file" ;;
        *) continue ;;
        esac >"$private/sources.d/$name"
    done
}

write_configuration() {
    cat >"$private/apt.conf" <<END
#clear APT::Update::Pre-Invoke;
#clear APT::Update::Post-Invoke;
#clear APT::Update::Post-Invoke-Success;
Dir::Etc::sourcelist "/dev/null";
Dir::Etc::sourceparts "$private/sources.d";
Dir::State::lists "$private/lists";
Dir::Cache "$private/cache";
APT::Sandbox::User "$(id -un)";
Acquire::Languages "none";
END
}

download() {
    # Not every configured source has source packages; what counts is whether ours arrives. An index
    # read in the middle of its update does not match its sums: the caller tries again.
    apt-get -q -c "$private/apt.conf" update ||
        say "not every index was read"
    (cd "$private" && apt-get -q -c "$private/apt.conf" source --download-only "$package")
}

pack() {
    local archive
    archive=$(find "$private" -maxdepth 1 -name "${package}_*.orig.tar.*" ! -name '*.asc')
    [ -f "$archive" ] || die "the source package $package holds no single upstream archive"
    mkdir "$private/tree"
    tar -xf "$archive" -C "$private/tree" --strip-components=1
    # luac.c is another program, with a main of its own.
    rm "$private/tree/src/luac.c"
    # Without POSIX the interpreter only assumes that its input is a terminal; with it, it asks.
    # shellcheck disable=SC2016 # make expands this
    echo 'CC := $(or $(CC),cc) -DLUA_USE_POSIX' >"$private/tree/src/vka.mk"
    (cd "$private/tree/src" && zip -q "$private/lua.zip" ./*.c ./*.h vka.mk)
}

[ $# = 1 ] || die "usage: fetch_lua.sh DIR"
mkdir -p "$1"
dir=$(cd -- "$1" && pwd -P)
[ -f "$dir/lua.zip" ] && exit
private=$dir/fetch
rm -rf "$private"
mkdir -p "$private/sources.d" "$private/lists/partial" "$private/cache/archives/partial"
derive_sources
write_configuration
retry download >"$dir/fetch.log" 2>&1 || {
    cat "$dir/fetch.log" >&2
    die "cannot fetch the source package $package"
}
pack
mv "$private/lua.zip" "$dir/lua.zip"
rm -rf "$private"
