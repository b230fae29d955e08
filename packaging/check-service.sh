#!/bin/bash
# SPDX-License-Identifier: MIT
#
# Usage: packaging/check-service.sh [--installed DIR]
#
# Fails unless systemd takes vkahost.service without a word, and rates what it leaves open at most
# 1.5 of 10. Looks at the tree's unit, or at the one that is installed in the system below DIR. Needs
# systemd-analyze (package systemd) and no running systemd.

set -eu -o pipefail
# shellcheck source-path=SCRIPTDIR source=../scripts/lib.sh
. "$(dirname -- "$0")/../scripts/lib.sh"
unit=vkahost.service
highest=15 # tenths

installed=''
read_options "installed=" "$@"

command -v systemd-analyze >/dev/null || die "systemd-analyze is missing: apt-get install systemd"
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT

# A system in which the program is installed; systemd's own units are needed as dependencies.
units=$root/usr/lib/systemd/system
if [ -n "$installed" ]; then
    cp -R "$installed/." "$root"
else
    install -D -m 644 "$tree/packaging/$unit" "$units/$unit"
    install -D -m 755 /dev/null "$root/usr/local/bin/vkahost"
fi
for dir in /usr/lib/systemd/system /lib/systemd/system; do
    [ ! -d "$dir" ] || cp -R -n "$dir/." "$units"
done

verify() { systemd-analyze verify --man=no --root="$root" "$unit" 2>&1; }

output=$(verify) || die "$unit is refused: $output"
[ -z "$output" ] || die "systemd complains about $unit: $output"

rating=$(systemd-analyze security --offline=true --no-pager --threshold=$highest \
    "$units/$unit") || die "more is open than $highest tenths: $rating"

# A check that passes everything would be none.
echo 'NoSuchOption=yes' >>"$units/$unit"
[ -n "$(verify)" ] || die "systemd-analyze does not find a mistake"
tail -n 1 <<<"$rating"
