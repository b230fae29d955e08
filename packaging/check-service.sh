#!/bin/bash
# SPDX-License-Identifier: MIT
#
# Usage: packaging/check-service.sh
#
# Fails unless systemd takes vkahost.service without a word, and rates what it leaves open at most
# 1.5 of 10. Needs systemd-analyze (package systemd) and no running systemd.

set -eu -o pipefail
# shellcheck source-path=SCRIPTDIR source=../scripts/lib.sh
. "$(dirname -- "$0")/../scripts/lib.sh"
unit=vkahost.service
highest=15 # tenths

command -v systemd-analyze >/dev/null || die "systemd-analyze is missing: apt-get install systemd"
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT

# A system in which the program is installed; systemd's own units are needed as dependencies.
install -D -m 644 "$tree/packaging/$unit" "$root/etc/systemd/system/$unit"
install -D -m 755 /dev/null "$root/usr/local/bin/vkahost"
mkdir -p "$root/usr/lib/systemd"
for units in /usr/lib/systemd/system /lib/systemd/system; do
    [ ! -d "$units" ] || cp -R "$units" "$root/usr/lib/systemd/"
done

verify() { systemd-analyze verify --man=no --root="$root" "$unit" 2>&1; }

output=$(verify) || die "$unit is refused: $output"
[ -z "$output" ] || die "systemd complains about $unit: $output"

# A check that passes everything would be none.
echo 'NoSuchOption=yes' >>"$root/etc/systemd/system/$unit"
[ -n "$(verify)" ] || die "systemd-analyze does not find a mistake"

rating=$(systemd-analyze security --offline=true --no-pager --threshold=$highest \
    "$tree/packaging/$unit") || die "more is open than $highest tenths: $rating"
tail -n 1 <<<"$rating"
