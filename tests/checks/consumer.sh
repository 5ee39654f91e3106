#!/usr/bin/env bash
# Builds tests/consumer/consumer.c with the C compiler alone, against the shared and against the static library,
# and runs both.
#   consumer.sh CC SOURCE_DIR LIB_DIR [FLAG...]
set -euo pipefail
cc=$1 source=$2 libs=$3
shift 3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

mkdir "$work/static" "$work/in-shared" "$work/in-static"
cp "$libs/libeko.a" "$work/static" # alone in its directory, so that -leko finds this form

compile=("$cc" "$@" -std=c11 -D_GNU_SOURCE -Wall -Wextra -Wpedantic -Werror -I "$source/include"
    "$source/tests/consumer/consumer.c")
"${compile[@]}" -o "$work/shared-consumer" -L "$libs" "-Wl,-rpath,$libs" -leko -pthread
"${compile[@]}" -o "$work/static-consumer" -L "$work/static" -leko -pthread

for form in shared static; do
    needed=$(readelf -d "$work/$form-consumer" | grep NEEDED)
    case $form:$needed in
        *libstdc++* | static:*libeko*) wrong=yes ;;
        static:* | shared:*libeko.so.12*) wrong=no ;;
        *) wrong=yes ;;
    esac
    if [ $wrong = yes ]; then
        printf 'The %s consumer needs the wrong libraries:\n%s\n' "$form" "$needed"
        exit 1
    fi
    "$work/$form-consumer" "$work/in-$form" > "$work/output"
    if [ "$(cat "$work/output")" != "0 failures so far" ]; then
        printf 'The %s consumer printed something else:\n' "$form"
        cat "$work/output"
        exit 1
    fi
    echo "$form: passed"
done
