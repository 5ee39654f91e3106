#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Fails unless every piece of C in the pages of docs/ compiles, as the body of a function, without warnings, and every
# link in them leads to a file.
#   pages.sh CC SOURCE_DIR [FLAG...]
set -euo pipefail
cc=$1 source=$2
shift 2

status=0 pieces=0 links=0
for page in "$source"/docs/*.md; do
    # The pieces of a page one after the other, each ended by a byte 0.
    while IFS= read -r -d '' piece; do
        pieces=$((pieces + 1))
        if ! printf '#include <eko.h>\nint page(void);\nint page(void)\n{\n%s\nreturn 0;\n}\n' "$piece" |
            "$cc" "$@" -std=c11 -Wall -Wextra -Wno-unused-variable -Wno-unused-but-set-variable -Werror \
                -I "$source/include" -fsyntax-only -x c -; then
            printf 'in %s:\n%s\n' "$page" "$piece"
            status=1
        fi
    done < <(awk '/^```c$/ { inside = 1; next } /^```$/ && inside { inside = 0; printf "%c", 0 } inside' "$page")
    while IFS= read -r link; do
        links=$((links + 1))
        [ -e "$source/docs/${link%%#*}" ] || { echo "$page: no $link" && status=1; }
    done < <(grep -oE '\]\([^)#:][^):]*\)' "$page" | sed 's/^](//; s/)$//')
done

[ $pieces -gt 0 ] && [ $links -gt 0 ] || status=1
echo "$pieces pieces, $links links"
exit $status
