#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Fails unless the public headers and the shared library say the same:
#   - what the library exports is declared in a public header;
#   - what a public header declares with EKO_API is exported;
#   - each such declaration has a contract: the run of declarations it stands in opens with a /** comment.
#   exports.sh NM LIBEKO_SO INCLUDE_DIR
set -euo pipefail
export LC_ALL=C
nm=$1 library=$2 include=$3
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
"$nm" -D --defined-only --extern-only "$library" |
    awk '$(NF - 1) != "A" { sub(/@.*/, "", $NF); print $NF }' | sort -u > "$work/exported"
cut -d' ' -f1 "$work/declared" | sort -u > "$work/names"

status=0
complain() { # TITLE, lines from standard input
    awk -v title="$1" 'NR == 1 { print title } { print "    " $0 } END { exit NR > 0 }' || status=1
}
complain "Exported, but not declared in a public header:" < <(comm -13 "$work/names" "$work/exported")
complain "Declared with EKO_API, but not exported:" < <(comm -23 "$work/names" "$work/exported")
complain "Declared without a /** comment:" < <(awk '$2 == "bare" { print $1, $3 }' "$work/declared")
complain "Declared twice:" < <(cut -d' ' -f1 "$work/declared" | uniq -d)

[ -s "$work/names" ] && [ -s "$work/exported" ] || status=1 # a scan that finds nothing must not pass
echo "$(wc -l < "$work/names") declared, $(wc -l < "$work/exported") exported"
exit $status
