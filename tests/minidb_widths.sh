#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# What the program of one word size has written that of the other reads, and adds to. Skipped when the other one is
# not there: `./dev test` builds it first.
#   minidb_widths.sh MINIDB OTHER_MINIDB
set -euo pipefail
mine=$1 other=$2
[ -x "$other" ] || exit 77
width() { od -An -tu1 -j4 -N1 "$1"; } # as an executable file tells it
[ "$(width "$mine")" != "$(width "$other")" ]
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

id() { sed -n 's/^  uuid  *//p'; }
seq 3000 | sed 's/.*/k&;name &;even/' >first
seq 2000 4000 | sed 's/.*/k&;name &;odd/' >second
cat first second >both
for pair in "$mine $other" "$other $mine"; do
    read -r one two <<<"$pair"
    made=$("$one" load first db | id)
    [ ${#made} = 36 ]
    "$two" check db first
    [ "$("$two" load second db | id)" = "$made" ]
    "$one" check db both
    asked='category = "odd" and name like "*99" order by key desc limit 2'
    [ "$("$one" query db "$asked")" = $'k3999;name 3999;odd\nk3899;name 3899;odd' ]
    cmp <("$one" query db "$asked") <("$two" query db "$asked")
    rm db
done
