#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Fails unless the public headers, the linker's map and the shared library say the same:
#   - a public header declares with EKO_API what the library exports, and nothing else;
#   - the map has these names, each once and none by a pattern, and the library exports them in the map's version;
#   - each declaration has a contract: the run of declarations it stands in opens with a /** comment.
#   exports.sh NM LIBEKO_SO INCLUDE_DIR MAP
set -euo pipefail
export LC_ALL=C
nm=$1 library=$2 include=$3 map=$4
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# One line per declaration: its name, "documented" or "bare", and where it is. A declaration begins a line with EKO_API,
# or with other marks in capitals and EKO_API; its name is the word in front of the first parenthesis, or of the
# semicolon. An empty line, or anything else, ends a run of declarations.
find "$include" -name '*.h' -exec awk '
    BEGIN { RS = "" }
    {
        found = /^\/\*\*/ ? "documented" : "bare"
        gsub(/\/\*([^*]|\*+[^*\/])*\*+\//, "") # comments
        count = split($0, statements, ";")
        for (i = 1; i <= count; ++i) {
            name = statements[i]
            if (name !~ /(^|\n)([A-Z_]+ )*EKO_API[ \t\n]/) {
                found = "bare"
                continue
            }
            sub(/\(.*/, "", name)
            sub(/[ \t\n]+$/, "", name)
            sub(/.*[^A-Za-z0-9_]/, "", name)
            print name, found, FILENAME
        }
    }
' {} + | sort > "$work/declared"
cut -d' ' -f1 "$work/declared" | sort -u > "$work/names"
"$nm" -D --defined-only --extern-only "$library" | awk '$(NF - 1) != "A" { print $NF }' | sort > "$work/versioned"
sed 's/@.*//' "$work/versioned" | sort -u > "$work/exported"
# NAME@@VERSION for each name of the map, as the library should have it.
sed 's|/\*.*\*/||' "$map" | awk '
    /{/ { version = $1 }
    /local:/ { global = 0 }
    global && sub(/;/, "") { print $1 "@@" version }
    /global:/ { global = 1 }
' | sort > "$work/mapped"

status=0
complain() { # TITLE, lines from standard input
    awk -v title="$1" 'NR == 1 { print title } { print "    " $0 } END { exit NR > 0 }' || status=1
}
complain "Exported, but not declared in a public header:" < <(comm -13 "$work/names" "$work/exported")
complain "Declared with EKO_API, but not exported:" < <(comm -23 "$work/names" "$work/exported")
complain "Exported, but not in the map:" < <(comm -13 "$work/mapped" "$work/versioned")
complain "In the map, but not exported in its version:" < <(comm -23 "$work/mapped" "$work/versioned")
complain "Declared without a /** comment:" < <(awk '$2 == "bare" { print $1, $3 }' "$work/declared")
complain "Declared twice:" < <(cut -d' ' -f1 "$work/declared" | uniq -d)
complain "Twice in the map:" < <(uniq -d "$work/mapped")

[ -s "$work/names" ] && [ -s "$work/exported" ] || status=1 # a scan that finds nothing must not pass
echo "$(wc -l < "$work/names") declared, $(wc -l < "$work/mapped") in the map, $(wc -l < "$work/exported") exported"
exit $status
