#!/bin/sh
# SPDX-License-Identifier: MIT
#
# Usage: redirect.sh NM OBJCOPY LD CALLS-OBJECT OUTPUT INPUT...
#
# Joins the product's objects and archives into one object whose calls to a function NAME of the C
# library go to inject_NAME instead, for each inject_NAME that CALLS-OBJECT defines. Its main()
# becomes vkahost_main().

set -eu
nm=$1 objcopy=$2 ld=$3 calls=$4 output=$5
shift 5

"$nm" --defined-only "$calls" | sed -n 's/.* T inject_\(.*\)/\1 inject_\1/p' >"$output.names"
[ -s "$output.names" ]
echo main vkahost_main >>"$output.names"
"$ld" -r -o "$output.joined" --whole-archive "$@"
"$objcopy" --redefine-syms="$output.names" "$output.joined" "$output"
rm "$output.joined"
