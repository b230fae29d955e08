#!/bin/bash
# SPDX-License-Identifier: MIT
#
# Usage: packaging/check-symbols.sh [--update] DIR
#
# Compares what the shared libraries in DIR (64 bits) export with the lists in packaging/symbols and
# fails when anything was added or is missing. A symbol less, or changed, breaks programs that are
# installed: it needs another SONAME. --update writes the lists.
#
# Not listed: weak functions, which are inline ones that every user has a copy of, and what comes
# from templates of the standard library.

set -eu -o pipefail
# shellcheck source-path=SCRIPTDIR source=../scripts/lib.sh
. "$(dirname -- "$0")/../scripts/lib.sh"

update=''
read_options "update ..." "$@"
[ ${#words[@]} = 1 ] || refuse_usage "one directory has to be named"
dir=${words[0]}

of='((construction )?vtable|VTT|typeinfo|typeinfo name|guard variable)'
exported() { # FILE
    nm --dynamic --defined-only --demangle "$1" |
        sed -n -E 's/^[0-9a-f]+ [TDBRV] //p' |
        grep -v -E "^($of for )?(std|__gnu_cxx)::" |
        sort -u
}

failed=0 count=0
for library in qvutil qvio qvproc vka; do
    list=$tree/packaging/symbols/$library.txt
    symbols=$(exported "$dir/lib$library.so") || die "cannot read the symbols of lib$library.so"
    count=$((count + $(wc -l <<<"$symbols")))
    [ -z "$update" ] || cat >"$list" <<<"$symbols"
    diff -U 0 --label "$library.txt" --label "lib$library.so" "$list" - <<<"$symbols" || failed=1
done
[ "$failed" = 0 ] || die "other symbols than listed; if that is meant, run with --update"
say "four libraries export the $count symbols of the lists"
