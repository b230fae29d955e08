#!/bin/bash
# SPDX-License-Identifier: MIT
#
# Usage: scripts/test.sh [OPTION]...
#
# Installs what is missing, builds everything and runs all tests in the sandbox. Ends with status 0
# only if every test ran and passed: a skipped or disabled test is a failure.
#
#   --build-dir DIR       where to build (default build/test, or build/test-SANITIZERS)
#   --build-type TYPE     Release (default) or Debug
#   --sanitize LIST       address,undefined or thread: build and run under these sanitizers
#   --only KIND           unit or integration
#   --filter REGEX        only unit tests whose name matches
#   --no-install          install nothing
#   -h, --help            show this text

set -eu
# shellcheck source-path=SCRIPTDIR source=lib.sh
. "$(dirname -- "$0")/lib.sh"

build_dir='' build_type=Release sanitize='' only='' filter=''
read_options "build-dir= build-type= sanitize= only= filter=" "$@"
case $only in '' | unit | integration) ;; *) refuse_usage "--only takes unit or integration" ;; esac

need_packages "${build_packages[@]}" "${sandbox_packages[@]}" "${test_packages[@]}"

: "${build_dir:=$tree/build/test${sanitize:+-${sanitize//,/-}}}"
[ "$only" = integration ] && unit=OFF || unit=ON
arguments=("-DVKA_BUILD_TESTS=$unit" "-DCMAKE_BUILD_TYPE=$build_type")
runner=()
if [ -n "$sanitize" ]; then
    arguments+=("-DCMAKE_CXX_FLAGS=-fsanitize=$sanitize -fno-sanitize-recover=all -fno-omit-frame-pointer")
    export ASAN_OPTIONS=detect_stack_use_after_return=1:strict_string_checks=1
    export UBSAN_OPTIONS=print_stacktrace=1 TSAN_OPTIONS=halt_on_error=1
fi
# The thread sanitizer's shadow memory does not fit every randomised address layout.
[[ $sanitize != *thread* ]] || runner=(setarch -R)

say "building in $build_dir ($build_type${sanitize:+, $sanitize})"
mkdir -p "$build_dir"
build_dir=$(cd -- "$build_dir" && pwd -P)
build_tree "$build_dir" "${arguments[@]}"

# A background job starts with SIGINT ignored and would pass that on; the tests expect the usual.
in_sandbox() { env --default-signal "$tree/scripts/sandbox.sh" --keep "$build_dir" -- "${runner[@]}" "$@"; }

# ctest shows nothing of a program that passed, so a test skipped inside one is looked up in its log.
run_unit_tests() {
    local log=$build_dir/Testing/Temporary/LastTest.log
    rm -rf "$build_dir/Testing"
    in_sandbox ctest --test-dir "$build_dir" --output-on-failure --no-tests=error \
        --parallel "$(nproc)" ${filter:+-R "$filter"} || return
    if grep -n -E '\[  SKIPPED \]|DISABLED TEST|Test Skipped' "$log" ||
        [ -s "$build_dir/Testing/Temporary/LastTestsDisabled.log" ]; then
        say "some unit tests were skipped or are disabled"
        return 1
    fi
}

run_integration_tests() {
    local python options junit=$build_dir/integration.xml
    python=$(find_python pytest xdist pexpect) || return
    mapfile -t options < <(integration_options "$build_dir" "$python")
    "$tree/tests/integration/fetch_lua.sh" "$build_dir/lua" || return
    rm -f "$junit"
    VKAHOST=$build_dir/host/vkahost VKA_LUA_ZIP=$build_dir/lua/lua.zip PYTHONDONTWRITEBYTECODE=1 \
        in_sandbox "$python" -m pytest "${options[@]}" -ra --junitxml="$junit" \
        "$tree/tests/integration" || return
    rm -rf "$build_dir/tmp"
    # Also counts tests that were expected to fail.
    if ! grep -q ' skipped="0"' "$junit"; then
        say "some integration tests were not run"
        return 1
    fi
}

failed=()
if [ "$only" != integration ]; then
    say "unit tests"
    run_unit_tests || failed+=("unit tests")
fi
if [ "$only" != unit ]; then
    say "integration tests"
    run_integration_tests || failed+=("integration tests")
fi
[ ${#failed[@]} -eq 0 ] || die "failed: ${failed[*]}"
say "all tests passed ($build_type${sanitize:+, $sanitize})"
