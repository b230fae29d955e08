#!/bin/bash
# SPDX-License-Identifier: MIT
#
# Usage: scripts/demo.sh [--port PORT] [--no-install] [ARCHIVE.zip]
#
# Installs what is missing, unless told not to, and builds everything (in build). Without an archive,
# packs the example calculator, builds and runs it with vkahost and shows a dialogue with it over its
# TCP console. With an archive, builds and runs that and leaves its console open on PORT (default
# 2323) until the program ends or Ctrl-C is pressed. Both run in the sandbox: the machine's /tmp/vkabin and /opt
# stay as they are.

set -eu
# shellcheck source-path=SCRIPTDIR source=lib.sh
. "$(dirname -- "$0")/lib.sh"

port=2323
read_options "port= ..." "$@"
[ ${#words[@]} -le 1 ] || refuse_usage "more than one archive"
archive=${words[0]-}
[ -z "$archive" ] || [ -f "$archive" ] || die "no such archive: $archive"

how_to_connect() {
    cat <<END
    nc 127.0.0.1 $port
        for programs that read lines; Ctrl-C leaves (Debian: apt-get install netcat-openbsd)
    socat -,raw,echo=0,escape=0x1d TCP:127.0.0.1:$port
        for programs that take each key; Ctrl-] leaves (Debian: apt-get install socat)
END
}

need_packages "${build_packages[@]}" "${sandbox_packages[@]}"

build=$tree/build
vkahost=$build/host/vkahost
say "building in $build"
build_tree "$build" -DCMAKE_BUILD_TYPE=Release

if [ -n "$archive" ]; then
    # Inside the sandbox the archive's own directory may be hidden.
    cp -- "$archive" "$build/demo.zip"
    say "building and running $archive; once it runs, connect from another terminal with"
    how_to_connect
    exec "$tree/scripts/sandbox.sh" -- \
        "$vkahost" --port "$port" --workdir /tmp/vka-work "$build/demo.zip"
fi

say "packing, building and running examples/calculator"
rm -f "$build/demo.zip"
zip -q -j "$build/demo.zip" "$tree"/examples/calculator/*
status=0
"$tree/scripts/sandbox.sh" -- "$(find_python socket)" "$tree/scripts/console_dialogue.py" \
    "$vkahost" "$build/demo.zip" '> ' \
    '1 + 2 * 3' 'side = 12.5' 'side * side' '1 / 0' 'vars' 'quit 7' || status=$?
[ "$status" = 7 ] || die "the dialogue failed: exit status $status instead of the program's own, 7"
say "the program's exit status, $status, became that of vkahost"
cat <<END

To talk to a program yourself, run for instance
    (cd examples/adventure && zip -q ../../build/adventure.zip *)
    scripts/demo.sh build/adventure.zip
and connect from another terminal with
END
how_to_connect
