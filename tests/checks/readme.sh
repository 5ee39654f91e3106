#!/usr/bin/env bash
# Builds and runs the README's C program with the command that the README gives, as far as the paths go, and
# compares what it prints with what the README says.
#   readme.sh CC SOURCE_DIR LIB_DIR [FLAG...]
set -euo pipefail
cc=$1 source=$2 libs=$3
shift 3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The first block fenced as the language $1.
block() { awk -v open="\`\`\`$1" '$0 == open { inside = 1; next } inside && /^```$/ { exit } inside' "$source/README.md"; }
block c > "$work/hello.c" # without one there is no program to link
block text > "$work/expected"
"$cc" "$@" -std=c11 -Wall -Wextra -Wpedantic -Werror -I "$source/include" "$work/hello.c" -o "$work/hello" \
    -L "$libs" "-Wl,-rpath,$libs" -leko -pthread
"$work/hello" | diff "$work/expected" -
