#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Builds the README's C program as the README says, as far as the paths go, against the shared and against the static
# library, with the C compiler alone. Runs both, and compares what they print with what the README says. The program is
# that of examples/hello.
# Configures the README's project, and makes the parser of the grammar in the head of eko.m4.
#   readme.sh CC SOURCE_DIR LIB_DIR [FLAG...]
set -euo pipefail
cc=$1 source=$2 libs=$3
shift 3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The first block fenced as the language $1.
block() { awk -v open="\`\`\`$1" '$0 == open { inside = 1; next } inside && /^```$/ { exit } inside' "$source/README.md"; }
block c > "$work/hello.c" # without one there is no program to link
sed -n '/^#include/,$p' "$source/examples/hello/hello.c" | diff "$work/hello.c" -
block text > "$work/expected"
mkdir "$work/static"
cp "$libs/libeko.a" "$work/static" # alone in its directory, so that -leko finds this form
ln -s "$libs" "$work/shared"
for form in shared static; do
    "$cc" "$@" -std=c11 -Wall -Wextra -Wpedantic -Werror -I "$source/include" "$work/hello.c" -o "$work/hello" \
        -L "$work/$form" "-Wl,-rpath,$libs" -leko -pthread
    "$work/hello" | diff "$work/expected" -
    needed=$(readelf -d "$work/hello" | grep NEEDED)
    case $form:$needed in
        *libstdc++* | static:*libeko*) ;;
        static:* | *libeko.so.12*) continue ;;
    esac
    printf 'The %s program needs\n%s\n' "$form" "$needed"
    exit 1
done

cd "$work"
block cmake > CMakeLists.txt
ln -s "$source" eko
cmake -S . -B b > log 2>&1 || { cat log && exit 1; }
sed -n '/api\.prefix {/,/^#   sum:/ { s/^#   //; s/   .*//; p }' eko/tools/bison/eko.m4 > query.y
bison -Werror --skeleton=./eko/tools/bison/eko.m4 --header --output=query.tab.c query.y
"$cc" "$@" -std=c11 -Wall -Wextra -Werror -I eko/include -c query.tab.c
