#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Kills loads at random moments, and looks whether each record that was reported as stored is there afterwards.
#   minidb_kill.sh MINIDB [KILLS]    SEED in the environment repeats the moments of another run
set -euo pipefail
minidb=$1 kills=${2:-100} seed=${SEED:-$RANDOM}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
echo "seed $seed"
RANDOM=$seed

awk -v seed="$seed" 'BEGIN {
    srand(seed)
    for (i = 0; i < 50000; ++i) printf "%06d;%0*d\n", i, 1 + 90 * rand(), i
}' >text
quiet() { "$minidb" "$@" >out 2>err || { echo "$where: minidb $* ended with $?" && cat out err && exit 1; }; }
mkfifo reported
start() { # OPTION...  starts a load; what it reports goes to `reports`
    rm -f db
    cat reported >reports &
    reader=$!
    exec 3>reported # before the loader can be killed, or nobody would ever open it
    "$minidb" load --json --report --page-size 4096 text db "$@" >&3 2>err &
    loader=$!
    exec 3>&-
}
now() { date +%s%6N; }

declare -A takes # microseconds
for backing in disk mapped memory; do
    start --backing $backing
    began=$(now)
    wait $loader $reader
    takes[$backing]=$(($(now) - began))
done

echo "a load takes ${takes[*]} us"
killed=0 told=0
for ((round = 1; round <= kills; ++round)); do
    backings=(disk mapped memory)
    backing=${backings[RANDOM % 3]}
    options=(--threads $((RANDOM % 3 + 1)) --backing "$backing")
    moment=$((takes[$backing] * RANDOM / 36000))
    start "${options[@]}"
    sleep "$(printf '%d.%06d' $((moment / 1000000)) $((moment % 1000000)))"
    kill -9 $loader 2>err || true
    wait $loader 2>err && status=0 || status=$?
    wait $reader
    last=$(sed -n 's/^{"stored":\([0-9]*\)}$/\1/p' reports | tail -n 1)
    where="round $round (${options[*]}, killed after $moment us, ${last:-none} reported)"
    takes[$backing]=$((takes[$backing] * (status == 137 ? 105 : 90) / 100)) # other work comes and goes
    [ "$status" != 137 ] || killed=$((killed + 1))
    [ "$status" != 137 ] || [ -z "$last" ] || told=$((told + 1))
    stored=0
    if [ -s db ]; then
        quiet export db exported
        stored=$(wc -l <exported)
        head -n "$stored" text >kept
        [ "$stored" = 0 ] || quiet check db kept
        cmp exported kept || { echo "$where: other records than loaded" && exit 1; }
    fi
    [ "$stored" -ge "${last:-0}" ] || { echo "$where: only $stored are there" && exit 1; }
    quiet load text db
    quiet check db text
done
echo "$kills rounds, $killed killed in a load, $told of them after a report"
[ $killed -ge $((kills * 2 / 5)) ]
[ $told -ge $((kills / 7)) ]
