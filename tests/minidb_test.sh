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
    if [ $got != "$1" ] || [[ $(cat out err) != *"$2"* ]]; then
        failed "minidb ${*:3}: ended with $got, wanted $1 and '$2'"
    fi
}
good() { expect 0 "$@"; }
# A failure leaves all files as they are, and mostly it is told in exactly one line, and nothing else.
files() { cksum ./* 2>&1 | grep -v ' ./\(out\|err\)$'; }
fails() {
    local before
    before=$(files)
    expect 1 "$@"
    [ "$before" = "$(files)" ] || failed "minidb ${*:2}: a file is changed"
}
bad() {
    fails "$@"
    if [ "$(wc -l <err)" != 1 ] || [ -s out ]; then failed "minidb ${*:2}: not exactly one line"; fi
}
# In place of minidb: without more than $limit KiB for a file; a write beyond kills it, or is refused.
killed() { (ulimit -c 0 -f "$limit" && exec "$program" "$@"); }
refused() { (trap '' XFSZ && ulimit -f "$limit" && exec "$program" "$@"); }
same() { cmp -s "$1" "$2" || failed "$3"; }
same_records() { cmp -s -i 32 "$1" "$2" || failed "$3"; } # whatever the header, which has a UUID in it
size() { stat -c %s "$1"; }
flip() { # FILE OFFSET  inverts the lowest bit of a byte
    printf '%b' "\\0$(printf %o $(($(od -An -tu1 -j"$2" -N1 "$1") ^ 1)))" |
        dd of="$1" bs=1 seek="$2" conv=notrunc status=none
}

# ---- what it is for ---------------------------------------------------------------------------------------

long=$(head -c 200000 /dev/zero | tr '\0' x)
{
    seq 4000 | awk '{ printf "k%d;value %d;%d\n", $1, $1, $1 * $1 }'
    printf 'empty;\ngrün;çá €\nlong;%s\nk7;a later line\n' "$long"
} >text
good 'loaded 4004 records' load text db
good '1 of them replace earlier ones; 4003 keys in all' load text other
grep -Eq 'index +[1-9][0-9]* bytes used' out || failed 'no figures of a tag'
good 'agree on all 4003 records' check db text
good 'grün;çá €' get db k4000 empty grün k7 long
same out <(printf 'k4000;value 4000;16000000\nempty;\ngrün;çá €\nk7;a later line\nlong;%s\n' "$long") \
    'get prints something else'
expect 1 "no record with the key 'k4001'" get db k1 k4001 k2
same out <(printf 'k1;value 1;1\nk2;value 2;4\n') 'a missing key hides others'

cp db before
for no_output in '>/dev/full 2>err' '>&- 2>err' '<&- >&- 2>&-'; do
    eval "\"\$minidb\" get db k1 $no_output" && failed "what cannot be printed is not noticed: $no_output"
    same before db 'what is printed goes into the data file'
done

# Keys whose hashes are the same, and as many keys as the first table has slots.
printf 'costarring;1\nliquid;2\ndeclinate;3\nmacallums;4\n' >twins
good 'loaded 4 ' load twins twins.db
good 'agree on all 4 ' check twins.db twins
seq -f '%g;' 1024 >full
good '1024 keys in all' load full full.db
bad 'no record' get full.db 1025

sed 's/^k1;.*/k1;changed/' text >changed
good '4004 of them replace' load changed db
good 'k1;changed' get db k1
good 'agree on all 4003 records' check db changed
cmp -s -n "$(size before)" before db || failed 'loading again changes earlier records'

# The bytes of a data file, the same on every machine.
printf 'a;b\n' >one
good 'loaded 1 ' --log log load one one.db
id=$(sed -n 's/^minidb: data file //p' out)
[[ $(od -An -v -tx1 one.db | tr -d ' \n') =~ ^6d696e6964620d0a00000002${id//-/}[0-9a-f]{8}01000000010000006d48839ef30c069c6162$ ]] ||
    failed 'the format of the data file is another'
[[ $id =~ ^[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}$ ]] || failed "no UUID: $id"
good "data file $id" load one one.db
rm one.db
good 'loaded 1 ' load one one.db
! grep -q "$id" out || failed 'two data files have one UUID'
grep -q '^\[.*\]  minidb: loaded 1 ' log || failed 'nothing in the log'

# Line ends, a missing last one, and a mark make no difference.
sed 's/$/\r/' text >crlf
sed '1s/^/\xEF\xBB\xBF/' text >mark
head -c -1 text >open_end
for form in crlf mark open_end; do
    rm db
    good 'loaded 4004 records' load $form db
    same_records before db "from $form something else is loaded"
done

# ---- check finds every kind of difference -----------------------------------------------------------------

sed -e 2d -e '5s/value/Value/' -e '6s/$/0/' text >variant
echo 'new;line' >>variant
expect 1 '1 missing, 2 different, 1 extra' check before variant
printf "minidb: %s\n" "differs: 'k5'" "differs: 'k6'" "not in the text: 'k2'" "not in the data file: 'new'" \
    'before and variant differ: 1 missing, 2 different, 1 extra' | sort >expected
same <(sort err) expected 'the differences are told in other words'

# ---- crashes ----------------------------------------------------------------------------------------------

printf 'one;1\ntwo;22\n' >two
printf 'three;333\n' >third
cat two third >three
good 'loaded 2' load two two.db
good 'loaded 3' load three three.db
kept=$(size two.db)
whole=$(size three.db)
: >nothing
head -c 70000 /dev/zero >zeros
tr '\0' x <zeros >garbage
for ((cut = kept; cut < whole; ++cut)); do
    head -c "$cut" three.db >torn
    for tail in nothing zeros garbage; do
        cat torn $tail >db
        good "$(cmp -s -i 32 db two.db && echo agree || echo cut off)" check db two
        same_records db two.db "what a crash left at $cut, $tail, is not cut off"
    done
    cp torn db
    good 'loaded 1 records' load third db
    same db three.db "loading does not go on after a crash at $cut"
done
for ((cut = 0; cut <= 32; ++cut)); do
    head -c "$cut" "$( ((cut < 32)) && echo three.db || echo zeros)" >db
    bad 'no minidb data file' get db one
    good 'loaded 3 records' load three db
    same_records db three.db "loading does not go on after a crash in the header at $cut"
done
head -c 33 zeros >db
bad 'is no minidb data file' load three db

# Killed as it writes beyond 64 KiB; and refused there, which takes the file back to what it was.
rm db
limit=64
minidb=killed expect 153 '' load text db
[ "$(size db)" = 65536 ] || failed 'the killed load left not 64 KiB'
good 'cut off' get db k1 k1000
good 'agree on all 4003' check before text
good 'loaded 4004' load text db
good 'agree on all 4003' check db text
cp two.db db
minidb=refused fails 'db: cannot be written' load text db

# While another process holds the lock nobody loads, and a torn end stays, for it may be growing.
cp torn db
exec 9<db
flock 9
bad 'in use' load three db
bad 'in use' import three db
bad 'in use' copy two.db db
good 'two;22' get db two
same db torn 'a torn end is cut off in spite of the lock'
exec 9<&-

# ---- damage -----------------------------------------------------------------------------------------------

for ((at = 0; at < whole; ++at)); do
    cp three.db db
    flip db "$at"
    if ((at < 32)); then
        bad "$( ((at < 8)) && echo 'is no minidb data file' || echo 'header is damaged')" get db one
    elif ((at < kept)); then
        bad 'damaged at byte' get db one
        bad 'damaged at byte' load three db
    else
        good 'cut off' check db two # the last record: as if never finished
        same_records db two.db "a damaged byte at $at spoils more than its record"
    fi
done

# Several records at the end can be unfinished, but not with a whole one behind them.
cp two.db db
head -c 5000 /dev/zero >>db
tail -c "$((whole - kept))" three.db >>db
bad "damaged at byte $kept" check db three

# ---- bad input --------------------------------------------------------------------------------------------

mkdir dir
cp two.db db
{ printf 'k;' && head -c 1048576 /dev/zero | tr '\0' x && echo; } >too_long
cat too_long too_long | tr -d '\n;' >no_text
while IFS='|' read -r name told bytes; do
    [ "$bytes" ] && printf %b "$bytes" >"$name"
    bad "$name$told" load "$name" db
    bad "$name$told" check db "$name"
done <<'END'
absent|: cannot be opened: No such file|
dir|: cannot be opened: Is a directory|
nothing|: is empty|
no_key|:2: a line without a key|a;1\n;2\n
blank|:2: a line without a key|a;1\n\nb;2\n
no_value|:2: a line without a ';'|a;1\nb\n
byte_ff|:2: cannot be read to its end|a;1\nb;2\xFF3\nc;4\n
line_ff|:2: cannot be read to its end|a;1\n\xFFb;2\n
end_ff|:2: cannot be read to its end|a;1\n\xFF
byte_00|:2: cannot be read to its end|a;1\nb;\x002\nc;4\n
line_00|:2: cannot be read to its end|a;1\n\x00b;2\n
utf16|: is UTF-16|\xFF\xFEa\x00;\x00b\x00\n\x00
too_long|:1: longer than 1 MiB|
no_text|:1: longer than 1 MiB|
END
sed 's/;x/;/' too_long >longest
rm db
good 'loaded 1 ' load longest db
good 'agree' check db longest
rm db
expect 1 'no_key:2' load no_key db
good 'loaded 2 records' load two db
same_records db two.db 'a first load that failed leaves something'

{ # with the check of such a header
    printf 'minidb\r\n\0\0\0\003'
    head -c 16 zeros
    printf '\xfb\x91\x6d\x61'
} >version3
while read -r name told; do
    bad "$name: $told" get "$name" one
    bad "$name: $told" check "$name" two
    [[ $name == @(absent|nothing) ]] || bad "$name: $told" load two "$name"
done <<'END'
absent    cannot be opened: No such file
dir       cannot be opened: Is a directory
nothing   is empty, no minidb data file
text      is no minidb data file
one       is no minidb data file
version3  has version 3
END
bad 'cannot be opened as the log' --log dir get two.db one
for words in '' 'load text' 'get db' 'check db text more' 'take db'; do
    # shellcheck disable=SC2086
    expect 2 usage $words
done

# ---- queries ------------------------------------------------------------------------------------------------

printf '%s\n' '1;one;odd;x' '2;two;even;y' '3;three;odd;' '4;four' '10;ten;even;y;z' '9;nine;odd;é' '4;FOUR;even' >numbers
good 'loaded 7' load numbers numbers.db
while IFS='|' read -r asked keys; do
    good '' query numbers.db "$asked"
    [ "$(sed 's/;.*//' out | tr '\n' ' ')" = "$keys" ] || failed "the query $asked finds other records than $keys"
done <<'END'
|1 2 3 10 9 4 
limit 0|
order by key|1 10 2 3 4 9 
order by key desc limit 4294967296000|9 4 3 2 10 1 
order by category asc limit 3|2 10 4 
ORDER BY category DESC|9 3 1 4 10 2 
category = 'odd' and not name like "?ne"|3 9 
category != "odd" or key = "1"|1 2 10 4 
not (category = "odd" or not key > "2")|4 
key = "1" or key = "2" and name = "x"|1 
not not key <= "10"|1 10 
key >= "4" and key < "9"|4 
name like "*t*e*e" or name like "****" and name like "FOUR*"|3 4 
value like "ten;*;z"|10 
name like ""|
END
while IFS='|' read -r column told asked; do
    asked=${asked//\~/$'\n'}
    fails "the query, column $column: $told" query numbers.db "$asked"
    [ "$(tail -n 1 err)" = "$(printf '  %*s' "$column" ^)" ] || failed "the mark is not at column $column of $asked"
done <<'END'
9|unexpected end, expected comparison|key = "1"~or~category
18|unexpected 'and', expected field name, '(' or 'not'|(name = "é" and (and
12|unexpected number, expected text in quotes|category = 7
12|unexpected field name, expected end, 'and', 'or', 'order' or 'limit'|name = "é" nor
10|no such field: there are key,value,name,category|not key = ""~and (not nmae = "é"~)
11|a text without its second quote|name like "x'
5|an unknown sign|name=>"x"
END

# ---- settings, backings, whole files ------------------------------------------------------------------------

# The first run wrote the settings; options go before them, and what makes no sense is told.
printf '\n[minidb]\npage_size=65536\ndata_directory=.\nlog_file=\nbacking=disk\nthreads=1\nprogress_after=1\nfields=name,category\n' >expected
same minidb.ini expected 'other settings are written on first use'
mkdir data
printf '[minidb]\ndata_directory = data\npage_size = 4096 ; small\nlog_file = set.log\nbacking = mapped\n' >set.ini
good 'loaded 4004' --settings set.ini load text sets.db
good 'agree on all 4003' --settings set.ini --backing memory check sets.db text
good 'agree on all 4003' check data/sets.db text
grep -q 'agree on all' set.log || failed 'nothing in the log that is set'
for wrong in page_size=5000 page_size=1048576 backing=tape threads=65 "log_file=$(printf '%5000s' '' | tr ' ' x)"; do
    printf '[minidb]\n%s\n' "$wrong" >wrong.ini
    bad "${wrong%%=*}" --settings wrong.ini get two.db one
done
bad 'a backing is' --backing tape get two.db one
bad 'a name too long' get "$(printf '%5000s' '' | tr ' ' x)" one

# Whatever the backing, the same bytes: of a new file, of one that grows over several MiB, and after a crash.
for i in 1 2 3; do sed "s/^k/$i-k/; s/^long/$i-long/; s/;x*/&&&&&/" text; done >large
good 'loaded 12012' load large large.db
good 'loaded 4004' load text large.db
limit=1500
for backing in mapped memory; do
    good 'loaded 12012' --backing $backing load large b.db
    good 'loaded 4004' --backing $backing load text b.db
    same_records b.db large.db "$backing leaves other bytes"
    good "k7;a later line" --backing $backing get b.db k7
    good 'agree on all 3 ' --backing $backing check three.db three
    bad 'no_key:2' --backing $backing load no_key b.db
    minidb=refused fails 'cannot be written' --backing $backing load large b.db
    minidb=killed expect 153 '' --backing $backing load large c.db
    good 'loaded 12012' --backing $backing load large c.db
    good 'agree on all' --backing $backing check c.db large
    rm b.db c.db
done

good 'exported 4003' export before sorted
same sorted <(LC_ALL=C sort -s -t ';' -k 1,1 text | grep -v '^k7;value') 'an export is not the records in order'
good 'loaded 4003' import sorted other
good 'agree on all 4003' check other text
good 'copied' copy other copied.db
same other copied.db 'a copy is another file'
bad 'no_key:2' import no_key db
bad 'cannot be opened' export absent.db sorted
bad 'cannot be copied' copy absent.db db
bad 'cannot be put in place' export two.db dir/none/sorted

# Many batches, in which keys come back, and lines longer than one. Pieces of a batch each go in in the text's order.
{
    seq 30000 | awk '{ printf "k%d;value %d\n", $1 % 7001, $1 }' | tee even
    printf "k1;$long%s\n" "$long" 2 3
    seq 5000 | sed 's/.*/k&;/'
    printf 'k1;last'
} >many
awk -F ';' '{ last[$1] = $0 } END { for (key in last) print last[key] }' many | LC_ALL=C sort -t ';' -k 1,1 >expected
split -l 1000 many piece.
for piece in piece.*; do good 'loaded ' load "$piece" pieces.db; done
for threads in 1 2 8; do
    for pause in 1 2; do
        "$program" --threads $threads load many killed.db >out 2>err &
        { sleep 0.0$pause && kill -9 $! && wait $!; } 2>err
        [ ! -e killed.db ] || [ "$(size killed.db)" -le 32 ] ||
            cmp -s -i 32 -n "$(($(size killed.db) - 32))" killed.db pieces.db || failed 'killed it leaves something else'
        good 'loaded 35004 ' load --threads $threads many killed.db
        good 'agree on all 7001' check killed.db many
        rm killed.db
    done
    good 'loaded 35004 ' --trace import --threads $threads many many.db
    same_records pieces.db many.db "$threads threads make another data file"
    good 'exported 7001 ' export many.db sorted
    same expected sorted "$threads threads: another export"
    while read -r script told; do
        sed "$script" many >faulty
        bad "faulty:$told" load --threads $threads faulty many.db
    done <<'END'
1s/;//;2s/k//;35004s/;// 1: a line without a ';'
1025s/k.*;/;/;1026s/;// 1025: a line without a key
20000s/.*//;20001s/;/\x00/ 20000: a line without a key
19990s/;/\x00/;19991s/.*// 19990: cannot be read to its end
35004s/;// 35004: a line without a ';'
END
done
# A load that takes a while tells of each tenth; or draws a bar on a terminal, and wipes it before it says a thing.
printf '[minidb]\nprogress_after=0\nthreads=64\n' >slow.ini
good 'loaded 30000 ' --settings slow.ini load even even.db
sed -E 's/(: .0%), [0-9]+\.[0-9] MB.s, [0-9]+:[0-9][0-9] left$/\1/' err >out
printf 'minidb: even: %s0%%\n' {1..9} | cmp -s - out || failed 'other lines than one for each tenth'
for told in even,loaded faulty,faulty:35004; do
    script -qc "'$program' --settings slow.ini load ${told%,*} even.db" /dev/null >out 2>err </dev/null
    [[ $(head -n 1 out) =~ ^($'\r'\[[#.]{30}\]' '[0-9 ]{3}'%  '[^$'\r']{34})+$'\r'' '{73}$'\r''minidb: '"${told#*,}" ]] ||
        failed "no bar, or not wiped: $told"
done

# Permissions are tried by a user whom they bind.
user=()
[ "$(id -u)" != 0 ] || user=(setpriv --reuid 65534 --regid 65534 --clear-groups)
as_user() { "${user[@]}" "$program" "$@"; }
minidb=as_user
chmod 755 .
"$minidb" >out 2>err
if [ $? = 2 ]; then
    cp torn db
    chmod 444 db
    chmod 000 one
    bad 'one: cannot be opened: Permission denied' load one two.db
    bad 'db: cannot be opened: Permission denied' load two db
    good 'two;22' get db two
    good 'agree' check db two
    same db torn 'a torn end is cut off without permission'
else
    echo 'Not tried: permissions, as another user cannot run the program'
fi

[ "$failures" = 0 ] && echo 'all as expected'
exit $((failures > 0))
