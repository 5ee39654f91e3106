#!/usr/bin/env bash
# Has gdb show what a load traced: each batch read, parsed and appended, and the commit as the newest line.
#   gdb_minidb.sh MINIDB SOURCE_DIR
set -euo pipefail
gdb -nx -batch -iex 'set disable-randomization off' -ex run /bin/true 2>&1 | grep 'exited normally' || exit 77
cd "$(mktemp -d)"
trap 'rm -rf "$PWD"' EXIT
seq -f '%g;value' 3000 > text
gdb -nx -batch -iex 'set debuginfod enabled off' -iex 'set disable-randomization off' -ex "source $2/tools/gdb/eko.py" \
    -ex 'break eko_term' -ex 'run --trace load --threads 2 text db' -ex 'eko trace' "$1" > shown 2>&1
for line in 1 1025 2049; do
    for step in 'read' parsed appended; do
        grep -Eq "0x\w+: line $line: $step" shown || { echo "no 'line $line: $step' in" && cat shown && exit 1; }
    done
done
grep 0x shown | tail -n 1 | grep -Eq ': committing 3000 records$' || { echo "no commit at the end of" && cat shown && exit 1; }
