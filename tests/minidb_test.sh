#!/bin/bash
# SPDX-License-Identifier: MIT
# Runs minidb, whose path is the first argument, as a user would: good files, bad files, crashes, damage.
# shellcheck disable=SC2317 # functions that are called in place of minidb
set -u

minidb=$1 program=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
failures=0

failed() {
    echo "FAILED: $1"
    head -c 1000 out err | sed 's/^/    /'
    failures=$((failures + 1))
}
# expect RESULT TEXT ARGUMENT...  runs minidb; its output holds TEXT.
expect() {
    "$minidb" "${@:3}" >out 2>err
    local got=$?
    [[ $got = "$1" && $(cat out err) = *"$2"* ]] || failed "minidb ${*:3}: ended with $got, wanted $1 and '$2'"
}
good() { expect 0 "$@"; }
loaded() { good "\"records\":$1," load --json "${@:2}"; }                                        # RECORDS FILE DB
agree() { good "\"keys\":$1,\"missing\":0,\"different\":0,\"extra\":0," check --json "${@:2}"; } # KEYS DB FILE
# A failure leaves all files as they are, is told in exactly one line, and nothing else is.
files() { cksum ./* 2>&1 | grep -v ' ./\(out\|err\)$'; }
bad() {
    local before
    before=$(files)
    expect 3 "$@"
    [[ $before = "$(files)" && $(wc -l <err) = 1 && ! -s out ]] || failed "minidb ${*:2}: more lines, or a file is changed"
}
# In place of minidb: without more than $limit KiB for a file; a write beyond kills it, or is refused.
killed() { (ulimit -c 0 -f "$limit" && exec "$program" "$@"); }
refused() { (trap '' XFSZ && ulimit -f "$limit" && exec "$program" "$@"); }
same() { cmp -s "$1" "$2" || failed "$3"; }
same_records() { cmp -s -i 32 "$1" "$2" || failed "$3"; } # whatever the header, which has a UUID in it

for words in '' 'load text' 'get db' 'check db text more' 'take db' '--no get db k' 'get db k --threads'; do
    # shellcheck disable=SC2086
    expect 2 minidb: $words
done
good 'order by key' help
[ ! -e minidb.ini ] || failed 'settings are written before there is need'

long=$(head -c 60000 /dev/zero | tr '\0' x)
{
    seq 4000 | awk '{ printf "k%d;value %d;%d\n", $1, $1, $1 * $1 }'
    printf 'empty;\ngrün;çá €\nlong;%s\nk7;a later line\n' "$long"
} >text
good 'records        4004' load text db
grep -Eq 'memory of batches +[1-9][0-9]* bytes' out || failed 'no figures of a tag'
[ "$(xargs <minidb.ini)" = "[minidb] data-directory=. log-file= fields=key,name,category backing=disk page-size=65536 \
threads=1 progress-after=1 json=0 report=0 trace=0" ] || failed 'other settings are written on first use'
expect 1 "no record with the key 'k4001'" get db k1 k4001 empty grün k7 long
same out <(printf 'k1;value 1;1\nempty;\ngrün;çá €\nk7;a later line\nlong;%s\n' "$long") 'get prints other records'
agree 4003 db text
[[ $(<out) =~ ^'{"command":"check","uuid":"'[0-9a-f-]{36}\"(,\"[a-z_]+\":[0-9]+)+'}'$ ]] || failed 'no JSON'
cp db before
for command in 'get db k1' 'load text db'; do
    # shellcheck disable=SC2086
    "$minidb" $command >/dev/full 2>err && failed "what cannot be printed is not noticed: $command"
    # shellcheck disable=SC2086
    "$minidb" $command <&- >&- 2>&- && failed "nor that nothing can: $command"
done
cmp -s -n "$(stat -c %s before)" before db || failed 'what is printed goes into the data file'

# The bytes of a data file, the same on every machine.
printf 'a;b\n' >one
loaded 1 one other.db
loaded 1 one one.db
id=$(sed 's/.*"uuid":"\([^"]*\).*/\1/' out)
[[ $(od -An -v -tx1 one.db | tr -d ' \n') =~ ^6d696e6964620d0a00000003${id//-/}[0-9a-f]{8}0400000069f56400613b620a$ ]] ||
    failed 'the format of the data file is another'
cmp -s one.db other.db && failed 'two data files have one UUID'

for form in 's/$/\r/' '1s/^/\xEF\xBB\xBF/' ''; do
    if [ "$form" ]; then sed "$form" text >formed; else head -c -1 text >formed; fi
    rm db
    loaded 4004 formed db
    same_records before db "from a text with $form something else is loaded"
done

sed -e '2d; 5s/value/Value/; 6s/$/0/; $a new;line' text >variant
expect 1 '"keys":4003,"missing":1,"different":2,"extra":1,' check --json before variant
[ "$(sed 's/minidb: //' err | sort | xargs)" = 'differs: k5 differs: k6 not in the data file: new' ] || failed 'told otherwise'

printf 'three;333\n' >third
printf 'one;1\ntwo;22\n' | tee two | cat - third >three
loaded 2 two two.db
cp two.db three.db
loaded 1 third three.db
kept=$(stat -c %s two.db) whole=$(stat -c %s three.db)
: >nothing
head -c 70000 /dev/zero | tee zeros | tr '\0' x >garbage
for ((cut = kept; cut < whole; ++cut)); do
    head -c "$cut" three.db >torn
    for tail in nothing zeros garbage; do
        cat torn $tail >db
        good "$(cmp -s -i 32 db two.db || echo cut off)" check db two
        same_records db two.db "what a crash left at $cut, $tail, is not cut off"
    done
    cp torn db
    loaded 1 third db
    same db three.db "loading does not go on after a crash at $cut"
done
for ((at = 0; at < whole; ++at)); do
    cp three.db db
    printf '%b' "\\0$(printf %o $(($(od -An -tu1 -j$at -N1 db) ^ 1)))" | dd of=db bs=1 seek=$at conv=notrunc status=none
    if ((at < 32)); then
        told=('is no' 'has version' 'is damaged' 'is damaged' 'is damaged')
        bad "${told[at / 8 + (at > 11)]}" get db one
    elif ((at < kept)); then
        bad 'damaged at byte' load three db
    else
        good 'cut off' check db two # the last record: as if never finished
        same_records db two.db "a damaged byte at $at spoils more than its record"
    fi
done
{ cat two.db && head -c 5000 /dev/zero && tail -c "$((whole - kept))" three.db; } >db
bad "damaged at byte $kept" check db three # several can be unfinished, but not with a whole one behind them

# While another process holds the lock nobody loads or replaces, and a torn end stays, for it may be growing.
cp torn db
exec 9<db
flock 9
bad 'in use' load three db
bad 'in use' import three db
bad 'in use' copy two.db db
good 'two;22' get db two
same db torn 'a torn end is cut off in spite of the lock'
exec 9<&-

mkdir dir data
head -c 31 three.db >start
printf 'minidb\r\n\0\0\0\002%20s' '' >version2
{ printf 'k;' && head -c 65536 /dev/zero | tr '\0' x && echo; } >too_long
while IFS='|' read -r name told bytes; do
    [ "$bytes" ] && printf %b "$bytes" >"$name"
    cp two.db db
    expect 3 "$name$told" load "$name" db
    [[ $told != :2* ]] || good 'a;1' get db a two # the lines before it are stored
    bad "$name$told" check db "$name"
    bad "$name$told" import "$name" two.db
done <<'END'
absent|: cannot be opened: No such file|
dir|: cannot be opened: Is a directory|
nothing|: is empty|
no_key|:2: has no key, or no ';'|a;1\n;2\n
byte_ff|:2: cannot be read to its end|a;1\nb;2\xFF3\nc;4\n
end_ff|:2: cannot be read to its end|a;1\n\xFF
line_00|:2: cannot be read to its end|a;1\n\x00b;2\n
utf16|: cannot be opened as UTF-8|\xFF\xFEa\x00;\x00b\x00\n\x00
too_long|:1: is longer than 64 KiB|
END
sed 's/;xx/;/' too_long >longest
loaded 1 longest longest.db
agree 1 longest.db longest
bad 'nothing: is no minidb data file' get nothing one
bad 'start: is no minidb data file' load two start
bad 'version2: has version 2, this program reads 3' check version2 two
bad 'absent: cannot be opened: No such file' export absent two
loaded 3 three nothing # as a load that was killed at once leaves it

printf '%s\n' '1;one;odd;x' '2;two;even;y' '3;three;odd;' '4;four' '10;ten;even;y;z' '9;nine;odd;é' '4;FOUR;even' >numbers
loaded 7 numbers numbers.db
while IFS='|' read -r asked keys; do
    good '' query numbers.db "$asked"
    [ "$(sed 's/;.*//' out | tr '\n' ' ')" = "$keys" ] || failed "the query $asked finds other records than $keys"
done <<'END'
|1 10 2 3 4 9 
ORDER BY category DESC limit 4294967299|9 3 1 4 10 2 
category = 'odd' and not name like "?ne"|3 9 
category != "odd" or key < "10"|1 10 2 4 
not (category = "odd" or not key > "2")|4 
key = "1" or key = "2" and name = "x"|1 
name like "*t*e*e" or name like "****" and name like "FOUR*"|3 4 
END
while IFS='|' read -r column told asked; do
    expect 2 "the query, column $column: $told" query numbers.db "$asked"
    [ "$(tail -n 1 err)" = "$(printf '  %*s' "$column" ^)" ] || failed "the mark is not at column $column of $asked"
done <<'END'
22|unexpected end, expected =, !=, <, <=, >, >= or like|key = "1" or category
18|unexpected and, expected not, ( or field|(name = "é" and (and
12|unexpected number, expected text in quotes|category = 7
5|unexpected unknown word|name=>"x"
END

printf '[minidb]\ndata-directory = data\npage-size = 4096 ; small\nlog-file = set.log\nbacking = mapped\n' >set.ini
loaded 4004 --settings set.ini text sets.db
agree 4003 --settings set.ini --backing memory sets.db text
expect 1 no --settings set.ini get sets.db absent
grep -q '^\[.*\]  minidb: data/sets.db: no record' set.log || failed 'nothing in the log that is set'
for wrong in page-size=4095 page-size=524289 page-size=65536x backing=tape threads=65; do
    printf '[minidb]\n%s\n' "$wrong" >wrong.ini
    bad "${wrong%%=*}" --settings wrong.ini get two.db one
done
expect 3 'dir: cannot be read' --settings dir get two.db one
bad 'cannot be opened as the log' --log-file dir get two.db one

# Whatever the backing, the same bytes: of a new file, of one that grows over several MiB, and after a crash.
for i in 1 2 3; do sed "s/^k/$i-k/; s/^long/$i-long/" text && printf "$i-%s;$long\n" {1..30}; done >large
loaded 12102 large large.db
loaded 4004 text large.db
limit=1500
for backing in disk mapped memory; do
    loaded 12102 --backing $backing large b.db
    loaded 4004 --backing $backing text b.db
    same_records b.db large.db "$backing leaves other bytes"
    agree 3 --backing $backing three.db three
    minidb=refused expect 3 'b.db: cannot be' --backing $backing load large b.db
    minidb=killed expect 153 '' --backing $backing load large c.db
    [ $backing != disk ] || good 'cut off' get c.db 1-k1 1-k4000
    loaded 12102 --backing $backing large c.db
    good '"missing":0,"different":0' check --json c.db large
    rm b.db c.db
done
good '"records":4004,' import --json --report text other
[ "$(wc -l <out)" = 1 ] || failed 'an import reports what is not in place'
good '' copy other copied.db
agree 4003 copied.db text
bad 'cannot be copied' copy absent.db db
bad 'cannot be written' export two.db dir/none/sorted
[ -z "$(find . -name '*.tmp')" ] || failed 'temporary files are left'

# Many batches, in which keys come back, and lines longer than one: in the text's order, by any number of threads.
{
    seq 30000 | awk '{ printf "k%d;value %d\n", $1 % 7001, $1 }' | tee even
    printf "k1;$long%s\n" 1 2 3
    seq 5000 | sed 's/.*/k&;/'
    printf 'k1;last'
} >many
awk -F ';' '{ last[$1] = $0 } END { for (key in last) print last[key] }' many | LC_ALL=C sort -t ';' -k 1,1 >expected
for threads in 1 2 8; do
    good '"records":35004,' --trace import --json --threads $threads many many.db
    good '' export many.db sorted
    same expected sorted "$threads threads: another export"
    while read -r script line told; do # a fault: the lines before it are stored
        sed "$script" many >faulty
        head -n $((line - 1)) faulty >kept
        rm many.db
        expect 3 "faulty:$line: $told" load --threads $threads faulty many.db
        good '"missing":0,"different":0,"extra":0,' check --json many.db kept
    done <<'END'
20000s/.*//;20001s/;/\x00/ 20000 has no key
19990s/;/\x00/;19991s/.*// 19990 cannot be read to its end
35004s/;// 35004 has no key
END
done

# A load that takes a while draws a bar on a terminal, and wipes it before it says a thing; elsewhere it tells lines.
printf '[minidb]\nprogress-after=0\nthreads=64\npage-size=4096\n' >slow.ini
good 'records        30000' --settings slow.ini load even even.db
[[ $(grep -Ec '^[0-9 ]{3}%, [0-9]+ KB/s, [0-9:]+ left$' err) = "$(wc -l <err)" && $(wc -l <err) == @([5-9]|10) ]] ||
    failed 'other lines of progress'
bar='\[#* *\] [0-9 ]{3}%, [0-9]+ KB/s, [0-9:]+ left    '
for told in even,load faulty,faulty:35004; do
    script -qc "'$program' --settings slow.ini load ${told%,*} even.db" /dev/null >out 2>err </dev/null
    head -n 1 out | grep -Eq $'^(\r'"$bar"$')+\r {72}\rminidb: '"${told#*,}" || failed "no bar, or not wiped: $told"
done

# Permissions are tried by a user whom they bind.
user=()
[ "$(id -u)" != 0 ] || user=(setpriv --reuid 65534 --regid 65534 --clear-groups)
as_user() { "${user[@]}" "$program" "$@"; }
minidb=as_user
chmod 755 .
if as_user help >out 2>err; then
    cp torn db
    chmod 444 db
    chmod 000 one
    bad 'one: cannot be opened: Permission denied' load one two.db
    bad 'db: cannot be opened: Permission denied' load two db
    agree 2 db two
    same db torn 'a torn end is cut off without permission'
else
    echo 'Not tried: permissions, as another user cannot run the program'
fi

[ "$failures" = 0 ] && echo 'all as expected'
exit $((failures > 0))
