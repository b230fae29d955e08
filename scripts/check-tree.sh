#!/bin/bash
# SPDX-License-Identifier: MIT
#
# Usage: scripts/check-tree.sh
#
# Fails when a file of the tree, by its name or its text, refers to something that its readers do
# not have: a tracker, somebody's home directory, or the host of a package registry.

set -eu
# shellcheck source-path=SCRIPTDIR source=lib.sh
. "$(dirname -- "$0")/lib.sh"
read_options "" "$@"
cd "$tree"

# In two pieces each, so that this file does not match.
patterns=(
    '\biss''ue #?[0-9]+\b'
    '(?<![\w.}-])/ho''me/\w'
    '\b(deb|ftp|security|packages|snapshot)\.deb''ian\.org\b'
)

list_files() {
    git -c safe.directory="$tree" ls-files -z --cached --others --exclude-standard
}

found=0
matches() { # LABEL COMMAND...: reports what the command prints, as one finding each
    local label=$1 text
    shift
    text=$("$@" || true)
    [ -n "$text" ] || return 0
    printf '%s:\n%s\n' "$label" "$text"
    found=$((found + $(wc -l <<<"$text")))
}
in_text() { list_files | xargs -0 grep -s -I -n -i -P -e "$1" --; }
in_names() { list_files | tr '\0' '\n' | grep -i -P -e "$1"; }

count=$(list_files | tr -dc '\0' | wc -c)
[ "$count" -gt 0 ] || die "no files found: is this a clone?"
for pattern in "${patterns[@]}"; do
    # A pattern that grep refuses would find nothing, ever.
    grep -q -P -e "$pattern" </dev/null || [ $? = 1 ] || die "bad pattern: $pattern"
    matches "text matches $pattern" in_text "$pattern"
    matches "name matches $pattern" in_names "$pattern"
done
[ "$found" = 0 ] || die "$found forbidden references"
say "no forbidden reference in $count files"
