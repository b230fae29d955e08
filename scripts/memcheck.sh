#!/bin/bash
# SPDX-License-Identifier: MIT
#
# Usage: scripts/memcheck.sh [OPTION]...
#
# Runs the unit tests below valgrind's memcheck, in the sandbox and without a suppression. Ends with
# status 0 only if every program passed, none of its processes used memory wrongly, and the program
# itself leaked no memory and left no descriptor open. (A child ends where a test wants it to, with
# what it holds by then.)
#
#   --build-dir DIR       where to build (default build/test); one of scripts/test.sh will do
#   --filter REGEX        only programs whose name matches
#   --no-install          install nothing
#   -h, --help            show this text

set -eu
# shellcheck source-path=SCRIPTDIR source=lib.sh
. "$(dirname -- "$0")/lib.sh"

build_dir=$tree/build/test filter=''
read_options "build-dir= filter=" "$@"

# valgrind shows in /proc as itself; takes its libraries out of what is executed; has descriptors of
# its own, in each child others; reads an address beyond its length; needs more stack and descriptors
# than four tests leave; and a fork takes it a second, of which the last test makes hundreds.
excluded=(ProcPrivate.StatusLineByEachKindOfId VKAClientProgram.runsUnderItsNameWithoutArguments
    GetCmdCallOutput.CommandSeesOnlyInheritableDescriptors
    VKAClientChild.inheritsEveryDescriptorOfTheAgent
    BindSocket.ThrowsForAnAddressItCannotPrint
    VKAClientChild.withoutMemoryForItsNameThrowsBadAllocAndKeepsTheConsole
    GetCmdCallOutput.ReportsARealLackOfDescriptors RmDir.NeedsFourDescriptorsAtMost
    RmDir.StackAndDescriptorsDoNotGrowWithTheDepth
    VKAClientRun.leavesNothingOpenAfterManyRuns)

need_packages "${build_packages[@]}" "${sandbox_packages[@]}" \
    "${test_packages[@]}" valgrind
say "building in $build_dir"
mkdir -p "$build_dir"
build_dir=$(cd -- "$build_dir" && pwd -P)
build_tree "$build_dir" -DVKA_BUILD_TESTS=ON -DCMAKE_BUILD_TYPE=Release
logs=$build_dir/memcheck
rm -rf "$logs"
mkdir "$logs"

# The random sequences take fifty times as long here, so there are fewer.
export RC_PARAMS=max_success=100

# A replaced operator new is the tests' own way of running out of memory. What a shell starts in the
# background would ignore SIGINT. /tmp is the sandbox's.
# shellcheck disable=SC2016 # expands in the shell that xargs starts
run='name=${1##*/}
env --default-signal valgrind --track-fds=yes --leak-check=full --errors-for-leak-kinds=none \
    --num-callers=30 --soname-synonyms=somalloc=nouserintercepts --log-file="$0/$name.%p" "$1" \
    >"$0/$name.out" 2>&1 &
wait $!
echo "$? $! $name" >>"$0/results"'
mapfile -t programs < <(find "$build_dir/tests/unit" -name '*_test' -type f -perm -u+x |
    grep -E -- "${filter:-.}" | sort)
[ ${#programs[@]} -gt 0 ] || die "no program matches"
excluded_filter=$(IFS=: && echo "${excluded[*]}")
printf '%s\0' "${programs[@]}" | GTEST_FILTER=-$excluded_filter \
    "$tree/scripts/sandbox.sh" --keep "$build_dir" -- \
    xargs -0 -n 1 -P "$(nproc)" bash -c "$run" "$logs" 2>/dev/null

# complaints LOG: what the program's own process left behind
complaints() {
    grep -E '(definitely|indirectly|possibly) lost: [1-9]' "$1" || [ $? = 1 ]
    grep -A 1 'Open file descriptor' "$1" | grep -v -e '^--$' | paste - - |
        grep -v '<inherited from parent>' || [ $? = 1 ]
}

failures=0
complain() { # TEXT FILE
    say "$1"
    cat "$2"
    failures=$((failures + 1))
}
while read -r status pid name; do
    log=$logs/$name.$pid
    [ "$status" = 0 ] || complain "$name ended with status $status" "$logs/$name.out"
    grep -q 'FILE DESCRIPTORS: ' "$log" || complain "$name: no account of descriptors" "$log"
    [ -z "$(complaints "$log")" ] || complain "$name left something behind" "$log"
    while read -r log; do
        complain "$name used memory wrongly" "$log"
    done < <(grep -l 'ERROR SUMMARY: [1-9]' "$logs/$name".[0-9]* || [ $? = 1 ])
done <"$logs/results"
[ "$(wc -l <"$logs/results")" = ${#programs[@]} ] || die "not every program was run"
tests=$(sed -n 's/^\[  PASSED  \] \([0-9]*\) tests\{0,1\}\..*/\1/p' "$logs"/*.out |
    awk '{ sum += $1 } END { print sum + 0 }')
[ "$failures" = 0 ] || die "$failures complaints"
say "memcheck: ${#programs[@]} programs, $tests tests, ${#excluded[@]} left out," \
    "$(find "$logs" -name '*_test.[0-9]*' | wc -l) processes: nothing found"
