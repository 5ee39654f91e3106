#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Fails when a type or a signature of the interface depends on options with which other programs are compiled: a
# program that uses everything that is exported, and every record, is described with and without them, and compared.
#   consumer_flags.sh CXX INCLUDE_DIR MAP [FLAG...]
set -euo pipefail
compile=("$1" "${@:4}" -std=c++20 -g -shared -fPIC -I "$2")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

{
    echo '#include <eko.h>'
    echo 'static_assert(sizeof(DB_ADDR) == 8 && offsetof(DB_ADDR, slot) == 4);' # in no signature, and so not in abi/
    sed -n 's/^ *\([a-z_A-Z0-9]*\);$/decltype(\&\1) use_\1;/p' "$3"
    cat "$2"/*.h "$2"/eko/*.h | sed -n 's/^} \([A-Za-z_]*\);$/\1 record_\1;/p'
} > "$work/all.cpp"
grep -q use_ "$work/all.cpp" && grep -q record_ "$work/all.cpp"

"${compile[@]}" "$work/all.cpp" -o "$work/plain.so"
for flags in -fno-exceptions -fno-rtti -funsigned-char -D_FILE_OFFSET_BITS=64 '-D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64' \
    -D_GNU_SOURCE '-O2 -D_FORTIFY_SOURCE=2' -DEKO_NO_FORMAT_CHECKS; do
    # shellcheck disable=SC2086 # some are two
    "${compile[@]}" $flags "$work/all.cpp" -o "$work/flags.so"
    abidiff --harmless "$work/plain.so" "$work/flags.so" || { echo "The interface depends on $flags" && exit 1; }
done
