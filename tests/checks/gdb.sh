#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Has gdb show the state that gdb_program.c makes, in the process and in a core file, with either form of the library,
# and what a load of minidb traced. Without examples MINIDB is "none".
#   gdb.sh MINIDB CC SOURCE_DIR LIB_DIR [FLAG...]
set -euo pipefail
gdb -nx -batch -iex 'set disable-randomization off' -ex run /bin/true 2>&1 | grep 'exited normally' || exit 77
minidb=$1 source=$3 libs=$4
compile=("$2" "${@:5}" -std=c11 -g -I "$source/include" "$source/tests/checks/gdb_program.c" -pthread)
cd "$(mktemp -d)"
trap 'rm -rf "$PWD"' EXIT
"${compile[@]}" -o shared -L "$libs" "-Wl,-rpath,$libs" -leko
"${compile[@]}" -o static "$libs/libeko.a"
strip -g -o stripped static
show=(-ex 'eko tags' -ex 'eko sems' -ex 'eko queues' -ex 'eko globals' -ex 'eko trace')

look() { # ARGUMENT...  what gdb says, in the form of the program's own lines, goes to `shown`
    gdb -nx -batch -iex 'set debuginfod enabled off' -iex 'set disable-randomization off' \
        -iex "set auto-load safe-path $libs" "$@" 2>&1 |
        sed -E 's/ +/ /g; s/[0-9]+ free/? free/; s/^0x\w+ thread/0x1 thread/' > shown
}
# The lines of `expected`, less what the library logs, are shown in their order and each once.
same() { diff <(grep -v Invalid expected) <(grep -Fxf expected shown) || { cat shown && exit 1; }; }

load=() # the shared library brings its script
for form in shared static; do
    look -ex 'run > expected' "${load[@]}" -ex 'thread 2' "${show[@]}" -ex 'generate-core-file core' $form
    same
    look "${load[@]}" "${show[@]}" $form core
    same
    load=(-ex "source $source/tools/gdb/eko.py")
done
grep line expected > traces # they do without debug information
mv traces expected
look "${load[@]}" "${show[@]}" stripped core
same
look "${load[@]}" -ex run -ex 'set var tag->t_next = tag' -ex 'eko tags' -ex 'set var tag->t_next = 8' -ex 'eko tags' static
[ "$(grep -c 'Stopped here: ' shown)" = 2 ] || { echo "gdb did not stop at the end of a damaged list" && cat shown && exit 1; }

# Each batch read, parsed and appended, and the commit as the newest line. A line takes 11 bytes, a batch a page.
[ "$minidb" != none ] || exit 0
seq -f '%04g;value' 3000 > text
look -ex "source $source/tools/gdb/eko.py" -ex 'break eko_term' -ex 'run --trace load --threads 2 --page-size 4096 text db' \
    -ex 'eko trace' "$minidb"
for line in {1,373,745}': '{'read',parsed,appended}; do
    grep -Eq "0x\w+: line $line" shown || { echo "no 'line $line' in" && cat shown && exit 1; }
done
grep 0x shown | tail -n 1 | grep -Eq ': committing 3000 records$' || { echo "no commit at the end of" && cat shown && exit 1; }
