#!/usr/bin/env bash
# Builds tests/consumer/consumer.c with the C compiler alone, against the shared and against the static library,
# and runs both.
#   consumer.sh CC SOURCE_DIR LIB_DIR [FLAG...]
set -euo pipefail
cc=$1 source=$2 libs=$3
shift 3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/lib-static" "$work/in-shared" "$work/in-static"
cp "$libs/libeko.a" "$work/lib-static" # alone in its directory, so that -leko finds this form
ln -s "$libs" "$work/lib-shared"
for form in shared static; do
    "$cc" "$@" -std=c11 -D_GNU_SOURCE -Wall -Wextra -Wpedantic -Werror -I "$source/include" \
        "$source/tests/consumer/consumer.c" -o "$work/$form" -L "$work/lib-$form" "-Wl,-rpath,$libs" -leko -pthread
    needed=$(readelf -d "$work/$form" | grep NEEDED)
    printed=$("$work/$form" "$work/in-$form")
    case $form:$printed:$needed in
        *libstdc++* | static:*libeko*) ;;
        "static:0 failures so far:"* | "shared:0 failures so far:"*libeko.so.12*) continue ;;
    esac
    printf 'The %s consumer printed %s, and needs\n%s\n' "$form" "$printed" "$needed"
    exit 1
done
