#!/bin/bash
# SPDX-License-Identifier: MIT
#
# Usage: scripts/coverage.sh [OPTION]...
#
# Counts which lines and branches of the libraries the tests reach: builds with counters, runs the
# tests in the sandbox, prints a table of each and writes DIR/report/index.html, which shows every
# line. Ends with status 0 only if all tests passed and reached all lines and 95 % of the branches.
#
# Branches that the compiler made for exceptions and destructors are left out where gcov knows them.
# It does not in an instance of a template or inline function whose line never ran in some test
# program; the table lists those as missing, too.
#
#   --build-dir DIR   where to build (default build/coverage)
#   --no-run          only report what was counted there before
#   --no-install      install nothing
#   -h, --help        show this text

set -eu
# shellcheck source-path=SCRIPTDIR source=lib.sh
. "$(dirname -- "$0")/lib.sh"

min_lines=100 min_branches=95
libraries='(libqvutil|libqvio|libqvproc|libvka)/' # headers have no suffix

build_dir=$tree/build/coverage no_run=''
read_options "build-dir= no-run" "$@"

need_packages "${build_packages[@]}" "${sandbox_packages[@]}" "${test_packages[@]}" gcovr

mkdir -p "$build_dir"
build_dir=$(cd -- "$build_dir" && pwd -P)

# The kinds of tests whose reach counts, each a function below.
counted=(unit_tests injected_faults)

in_sandbox() { env --default-signal "$tree/scripts/sandbox.sh" --keep "$build_dir" -- "$@"; }

unit_tests() {
    in_sandbox ctest --test-dir "$build_dir" --output-on-failure --no-tests=error \
        --parallel "$(nproc)"
}

# Every fifth failing call reaches the same lines as all. Writing the counters down needs memory, so
# allocations do not fail here.
injected_faults() {
    "$tree/tests/fault/run" --no-install --build-dir "$build_dir" --calls --sample 5
}

if [ -z "$no_run" ]; then
    # Without optimisation each branch is one of the source; Debug leaves out fortification.
    say "building in $build_dir (with counters)"
    build_tree "$build_dir" -DVKA_BUILD_TESTS=ON -DCMAKE_BUILD_TYPE=Debug \
        "-DCMAKE_CXX_FLAGS=--coverage -O0 -fprofile-update=atomic"
    find "$build_dir" -name '*.gcda' -delete
    for tests in "${counted[@]}"; do
        say "${tests//_/ }"
        "$tests" || die "failed: ${tests//_/ }"
    done
fi

report=$build_dir/report
rm -rf "$report"
mkdir "$report"
say "counting"
gcovr --root "$tree" --filter "$libraries" --exclude-throw-branches --exclude-unreachable-branches \
    --exclude-directories '.*/CMakeFiles/[0-9.]+$' --json "$report/coverage.json" "$build_dir"
tables=(gcovr --root "$tree" --add-tracefile "$report/coverage.json")
"${tables[@]}" --html-details "$report/index.html"
"${tables[@]}" --txt "$report/lines.txt"
"${tables[@]}" --txt "$report/branches.txt" --branches
cat "$report/lines.txt" "$report/branches.txt"
"${tables[@]}" --fail-under-line "$min_lines" --fail-under-branch "$min_branches" >/dev/null ||
    die "not enough is reached: $min_lines % of lines, $min_branches % of branches are asked for"
say "reached: at least $min_lines % of the lines, $min_branches % of the branches"
