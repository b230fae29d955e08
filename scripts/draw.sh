#!/bin/bash
# SPDX-License-Identifier: MIT
#
# Usage: scripts/draw.sh
#
# Draws each doc/NAME.dot as doc/NAME.svg by Graphviz, with the text's checksum in it.

set -eu -o pipefail
# shellcheck source-path=SCRIPTDIR source=lib.sh
. "$(dirname -- "$0")/lib.sh"
read_options "" "$@"

for text in "$tree"/doc/*.dot; do
    picture=${text%.dot}.svg
    dot -Tsvg "$text" >"$picture.new"
    echo "<!-- of ${text##*/}, sha256 $(sha256sum <"$text" | cut -d ' ' -f 1) -->" >>"$picture.new"
    mv "$picture.new" "$picture"
done
