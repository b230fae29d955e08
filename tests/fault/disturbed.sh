#!/bin/bash
# SPDX-License-Identifier: MIT
#
# Usage: tests/fault/disturbed.sh [OPTION]...
#
# Runs the tests while system calls do what they may do any time and hardly ever do: in one run each
# transfer ends after one byte, in another a signal interrupts every call that waits, 1,000 times a
# second. See shim.cc beside. Ends with status 0 only if every test passed and was disturbed.
#
#   --mode MODE           bytes or signals (default: both, one after the other)
#   --build-dir DIR       where to build (default build/disturbed); one of scripts/test.sh will do
#   --only KIND           unit or integration
#   --all                 all integration tests that have to do with transfers and waiting; without
#                         this, a selection that takes a minute
#   --no-install          install nothing
#   -h, --help            show this text

set -eu
# shellcheck source-path=SCRIPTDIR source=../../scripts/lib.sh
. "$(dirname -- "$0")/../../scripts/lib.sh"

build_dir=$tree/build/disturbed mode='' only='' all=''
read_options "build-dir= mode= only= all" "$@"
case $mode in '') modes=(bytes signals) ;; bytes | signals) modes=("$mode") ;;
*) die "--mode takes bytes or signals" ;; esac
case $only in '' | unit | integration) ;; *) die "--only takes unit or integration" ;; esac

# About make, the archive's paths, scripts and compilers: nothing there is transferred or awaited. And
# about clients, others' programs that need not live through this.
elsewhere=(arm compile_helpers lua makefile makefile_compilers makefile_install makefile_names
    makefile_rebuild makefile_state paths sandbox client_telnet client_tmux real_clients)
selection=(child_view clients exit_status export log_file signals transfer watch)

# Options for pytest that leave out the tests which mean nothing in a mode.
deselected() { # MODE
    local test tests flood=leave_while_the_program_floods
    if [ "$1" = bytes ]; then # megabytes, one byte at a time
        tests=(backpressure.py::test_{program_that_reads_late_gets_all,client_that_never_reads}
            backpressure.py::test_without_client_the_newest_output_is_kept
            last_output.py::test_{slow_client_gets_all,client_that_stopped_reading_is_given_up}
            last_output.py::test_{signal_ends_the_wait_for_a_slow_client,unfetched_output_is_printed}
            last_output.py::test_much_output_of_a_program_that_ends_at_once
            last_output.py::test_client_that_sends_meanwhile_gets_all
            reconnect.py::test_part_of_a_chunk_that_one_client_got_is_not_sent_again
            "reconnect.py::test_fifty_clients_that_reset_the_connection[$flood]"
            transfer.py::test_eight_mebibytes_pass_both_ways
            system_failures.py::test_transfers_are_tried_again
            # and what the host gives a second or less to, or the test
            transfer.py::test_{nothing_is_added_to_the_stream,answers_of_two_chunks_come_at_once}
            watch.py::test_unfetched_output_of_the_old_program_comes_first
            last_output.py::test_output_when_the_end_comes_while_the_host_looks_for_it
            # and what shows how much is read at a time
            debug.py::test_dump_holds_every_byte_of_both_directions)
    else # about the processor time that waiting takes, or the number of waits
        tests=(backpressure.py::test_program_that_never_reads
            backpressure.py::test_waiting_takes_no_processor_time
            backpressure.py::test_waiting_takes_no_processor_time_when_the_program_closed_its_terminal
            child_view.py::test_program_goes_on_when_its_terminal_was_hung_up
            log_file.py::test_waiting_takes_no_processor_time
            system_failures.py::test_failing_wait)
    fi
    for test in "${tests[@]}"; do
        echo "--deselect=tests/integration/test_$test"
    done
}

run_tests() { # MODE KIND
    local file name ignored=() counts=$build_dir/disturbed-$1-$2.counts
    for file in "$tree"/tests/integration/test_*.py; do
        name=$(basename "${file#"$tree"/tests/integration/test_}" .py)
        if [[ " ${elsewhere[*]} " == *" $name "* ]] ||
            { [ -z "$all" ] && [[ " ${selection[*]} " != *" $name "* ]]; }; then
            ignored+=("--ignore=$file")
        fi
    done
    rm -f "$counts"
    LD_PRELOAD=$build_dir/tests/fault/shim.so VKA_SHIM=$1 VKA_SHIM_BELOW=$build_dir \
        VKA_SHIM_COUNT=$counts PYTEST_ADDOPTS="${ignored[*]} $(deselected "$1" | tr '\n' ' ')" \
        "$tree/scripts/test.sh" --no-install --build-dir "$build_dir" --only "$2" || return
    check_disturbance "$1" "$2" "$counts"
}

# A program that was not disturbed has passed for nothing.
check_disturbance() { # MODE KIND COUNTS
    local program field=2 total
    [ "$1" = bytes ] || field=3
    # "PROGRAM: N transfers cut, N calls interrupted"
    total=$(sed 's/: / /; s/ transfers cut,//' "$3" |
        awk -v field=$field '{ sum += $field } END { print sum + 0 }')
    if [ "$2" = unit ]; then
        while read -r program; do
            grep -q "^$program: " "$3" || {
                say "$program was not below the shim"
                return 1
            }
        done < <(find "$build_dir/tests" -name '*_test' -type f -perm -u+x -printf '%f\n')
    fi
    say "$1, $2: $(count_tests "$2") tests; $(wc -l <"$3") programs with $total $(
        [ "$1" = bytes ] && echo "transfers cut" || echo "calls interrupted"
    )"
    [ "$total" -gt 0 ] || {
        say "nothing was disturbed"
        return 1
    }
}

# How many tests the last run of that kind has passed.
count_tests() { # KIND
    if [ "$1" = unit ]; then
        sed -n 's/^\[  PASSED  \] \([0-9]*\) tests\{0,1\}\..*/\1/p' \
            "$build_dir/Testing/Temporary/LastTest.log" | awk '{ sum += $1 } END { print sum + 0 }'
    else
        sed -n 's/.* tests="\([0-9]*\)".*/\1/p' "$build_dir/integration.xml"
    fi
}

need_packages "${build_packages[@]}" "${sandbox_packages[@]}" "${test_packages[@]}"
say "building in $build_dir"
mkdir -p "$build_dir"
build_dir=$(cd -- "$build_dir" && pwd -P)
build_tree "$build_dir" -DVKA_BUILD_TESTS=ON -DCMAKE_BUILD_TYPE=Release
failed=()
for mode in "${modes[@]}"; do
    for kind in unit integration; do
        [ "${only:-$kind}" = "$kind" ] || continue
        run_tests "$mode" "$kind" || failed+=("$kind tests ($mode)")
    done
done
[ ${#failed[@]} -eq 0 ] || die "failed: ${failed[*]}"
say "all tests passed, disturbed by ${modes[*]}"
