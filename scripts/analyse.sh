#!/bin/bash
# SPDX-License-Identifier: MIT
#
# Usage: scripts/analyse.sh [OPTION]...
#
# Runs three static analysers over libraries and host: clang-tidy with the checks of .clang-tidy,
# cppcheck and Clang's own analyser. Ends with status 0 only if none found anything.
#
#   --build-dir DIR       where to configure (default build/analyse)
#   --no-install          install nothing
#   -h, --help            show this text

set -eu -o pipefail
# shellcheck source-path=SCRIPTDIR source=lib.sh
. "$(dirname -- "$0")/lib.sh"

build_dir=$tree/build/analyse
read_options "build-dir=" "$@"
need_packages make cmake clang clang-tidy cppcheck python3

mkdir -p "$build_dir"
build_dir=$(cd -- "$build_dir" && pwd -P)
cmake -S "$tree" -B "$build_dir" -DCMAKE_CXX_COMPILER=clang++ \
    -DCMAKE_EXPORT_COMPILE_COMMANDS=ON >"$build_dir/configure.log" 2>&1 || {
    cat "$build_dir/configure.log"
    die "cannot configure in $build_dir"
}

# FILE and the words of its compiler call behind it, without output and dependency files.
calls=$build_dir/calls
python3 - "$build_dir/compile_commands.json" >"$calls" <<'END'
import json
import shlex
import sys

for entry in json.load(open(sys.argv[1])):
    words = shlex.split(entry["command"])
    out = words.index("-o")
    words[out : out + 2] = []
    words.remove("-c")
    words.remove(entry["file"])
    print(entry["file"], shlex.join(words[1:]))
END
files=$(cut -d ' ' -f 1 "$calls" | sort -u)
count=$(wc -l <<<"$files")
[ -n "$files" ] || die "no files found"

failed=0
# analyse NAME COMMAND...: findings are what the log has in the form FILE:LINE:COLUMN: KIND: TEXT.
analyse() {
    local name=$1 log=$build_dir/$1.log status=0 findings
    shift
    "$@" >"$log" 2>&1 || status=$?
    findings=$(sort -u "$log" |
        grep -c -E '^[^ ]+:[0-9]+:[0-9]+: (error|warning|performance|portability|style):') ||
        [ $? = 1 ] # there are none
    if [ "$status" != 0 ] || [ "$findings" != 0 ]; then
        cat "$log"
        failed=1
    fi
    say "$name: $count files, $findings findings$([ "$status" = 0 ] || echo ", status $status")"
}

run_tidy() { xargs -P "$(nproc)" -n 1 clang-tidy --quiet -p "$build_dir" <<<"$files"; }
run_cppcheck() {
    cppcheck --project="$build_dir/compile_commands.json" --quiet -j "$(nproc)" --std=c++11 \
        --enable=warning,performance,portability --inline-suppr --error-exitcode=1
}
run_clang() {
    # shellcheck disable=SC2016 # for the shell that xargs starts
    xargs -P "$(nproc)" -d '\n' -n 1 sh -c '
        eval "set -- $0"
        clang++ --analyze --analyzer-output text -Xclang -analyzer-werror "$@"' <"$calls"
}

cd "$build_dir" # where the calls belong
analyse clang-tidy run_tidy
analyse cppcheck run_cppcheck
analyse clang-analyzer run_clang
[ "$failed" = 0 ] || die "there are findings"
say "no findings"
