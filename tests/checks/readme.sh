#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Builds the README's C program, which is that of examples/hello, in the clone as the README says, and compares what it
# prints with what the README says. check/consumers does so with what is installed. Configures the README's project, and
# makes the parser of the grammar in the head of eko.m4.
#   readme.sh CC SOURCE_DIR LIB_DIR [FLAG...]
set -euo pipefail
cc=$1 source=$2 libs=$3
shift 3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

# The first block fenced as the language $1.
block() { awk -v open="\`\`\`$1" '$0 == open { inside = 1; next } inside && /^```$/ { exit } inside' "$source/README.md"; }
block c > hello.c # without one there is no program to link
sed -n '/^#include/,$p' "$source/examples/hello/hello.c" | diff hello.c -
"$cc" "$@" -std=c11 -Wall -Wextra -Wpedantic -Werror -I "$source/include" hello.c -o hello -L "$libs" -leko -pthread \
    "-Wl,-rpath,$libs"
./hello | diff <(block text) -

block cmake > CMakeLists.txt
ln -s "$source" eko
cmake -G Ninja -S . -B b > log 2>&1 || { cat log && exit 1; }
sed -n '/api\.prefix {/,/^#   sum:/ { s/^#   //; s/   .*//; p }' eko/tools/bison/eko.m4 > query.y
bison -Werror --skeleton=./eko/tools/bison/eko.m4 --header --output=query.tab.c query.y
"$cc" "$@" -std=c11 -Wall -Wextra -Werror -I eko/include -c query.tab.c
