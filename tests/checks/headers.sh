#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Fails when a public header does not compile alone, and twice in a row, as C11 and as C++11, 17 and 20, with the
# strictest standard modes and warnings as errors.
#   headers.sh CC CXX INCLUDE_DIR [FLAG...]
set -euo pipefail
cc=$1 cxx=$2 include=$3
shift 3

status=0 count=0
while read -r header; do
    program=$(printf '#include "%s"\n' "$header" "$header"; echo 'int main(void);')
    for language in c:c11 c++:c++11 c++:c++17 c++:c++20; do
        case $language in c:*) compiler=$cc ;; *) compiler=$cxx ;; esac
        count=$((count + 1))
        if ! printf '%s\n' "$program" | "$compiler" "$@" -x "${language%%:*}" "-std=${language##*:}" \
                -Wall -Wextra -Wpedantic -Wconversion -Werror -I "$include" -fsyntax-only -; then
            echo "$header does not compile alone as ${language##*:}"
            status=1
        fi
    done
done < <(cd "$include" && find . -name '*.h' | sed 's|^\./||' | LC_ALL=C sort)

[ "$count" -gt 0 ] || { echo "no headers in $include"; exit 1; }
echo "$count compilations"
exit $status
