#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Fails when the public headers do not compile in each version of C and C++: each alone and twice in a row, all of them
# in several orders, in the strictest standard modes with warnings as errors, and with the options of other programs.
# Fails also when a call that formats chars is not checked by the compiler, or when that cannot be switched off.
#   headers.sh CC CXX INCLUDE_DIR [FLAG...]
set -euo pipefail
cc=$1 cxx=$2 include=$3
flags=("${@:4}" -Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wshadow -Werror -I "$include" -fsyntax-only)
foreign=(-funsigned-char -D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

program() { # NAME HEADER...
    { printf '#include "%s"\n' "${@:2}" && echo 'int main(void);'; } > "$work/$1"
}
mapfile -t headers < <(cd "$include" && find . -name '*.h' | sed 's|^\./||' | LC_ALL=C sort)
[ ${#headers[@]} -gt 0 ] || { echo "no headers in $include" && exit 1; }
for header in "${headers[@]}"; do
    program "alone-${header//\//-}.c" "$header" "$header"
done
mapfile -t order < <(printf '%s\n' "${headers[@]}" | tac)
program reversed.c "${order[@]}"
for seed in 1 2 3 4 5; do
    mapfile -t order < <(printf '%s\n' "${headers[@]}" | shuf --random-source=<(yes "$seed"))
    program "order-$seed.c" "${order[@]}"
done

compile() { # STANDARD FLAG...  the programs' compilation, if it fails, leaves a file failed-...
    local compiler=("$cc") log
    log=$(mktemp "$work/log.XXXXXX")
    case $1 in c++*) compiler=("$cxx" -x c++) ;; esac
    "${compiler[@]}" "-std=$1" "${flags[@]}" "${@:2}" "$work"/*.c > "$log" 2>&1 && return
    { echo "The headers do not compile as $*:" && head -n 30 "$log"; } > "$log.failed"
}
more=()
for standard in c99 c11 c17 c++11 c++14 c++17 c++20 c++2b; do
    [[ $standard != c++* ]] || more=(-fno-exceptions -fno-rtti)
    compile $standard &
    compile $standard "${foreign[@]}" "${more[@]}" &
done
wait
cat "$work"/*.failed 2> /dev/null && exit 1

formats() { # FLAG...  compiles a call with a wrong argument
    echo 'int f(char* s); int f(char* s) { return eko_snprintf(s, 9, "%d", s); }' |
        "$cc" "${flags[@]}" "$@" -include eko.h -x c - 2>&1
}
if formats > "$work/log" || ! formats -DEKO_NO_FORMAT_CHECKS; then
    echo "Formats are not checked, or EKO_NO_FORMAT_CHECKS does not switch that off" && exit 1
fi
unchecked=$(cat "$include"/*.h "$include"/eko/*.h | tr '\n' ' ' | grep -oE 'EKO_API[^;#]*(\.\.\.|va_list)[^;#]*;' |
    grep -vE 'EKO_PRINTF_CHECK|const wchar_t\* fmt,' || true)
[ -z "$unchecked" ] || { echo "Without EKO_PRINTF_CHECK:" && echo "$unchecked" && exit 1; }
echo "${#headers[@]} headers"
