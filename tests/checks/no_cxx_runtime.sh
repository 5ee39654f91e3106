#!/usr/bin/env bash
# Fails when a form of the library needs a symbol that only the C++ run-time has: C programs link it with
# nothing but the C library. Fails also when objects are constructed before main, or on first use: calls must work
# at any time, and from any thread.
#   no_cxx_runtime.sh NM LIBEKO_SO LIBEKO_A
set -euo pipefail
nm=$1 shared=$2 archive=$3

# Symbols that FILE, listed with the options, uses and does not define.
undefined() { # FILE OPTION...
    "$nm" "$@" | awk '
        NF >= 2 && $(NF - 1) == "U" { used[$NF] = 1 }
        NF >= 3 && $(NF - 1) != "U" { defined[$NF] = 1 }
        END { for (name in used) if (!(name in defined)) print name }' | sort
}

status=0
complain() { # TITLE, lines from standard input
    awk -v title="$1" 'NR == 1 { print title } { print "    " $0 } END { exit NR > 0 }' || status=1
}

# Mangled names are C++ by themselves; those of the library's own are defined in it.
runtime='^(_Z|__cxa_(allocate|throw|begin|end|rethrow|guard|pure|deleted|bad|demangle|get_)|__gxx_|__dynamic_cast'
runtime+='|_Unwind_Resume|__cxa_thread_atexit$)'
for file in "$shared" "$archive"; do
    options=()
    [[ $file == *.a ]] || options=(-D)
    symbols=$(undefined "$file" "${options[@]}")
    [ -n "$symbols" ] || complain "Nothing was checked, as no undefined symbols were found:" <<< "$file"
    complain "$file needs the C++ run-time:" < <(grep -E "$runtime" <<< "$symbols")
done
complain "$archive constructs objects at run time, in:" < <("$nm" "$archive" | grep -E ' (_GLOBAL__sub_I_|_ZGV)')
exit $status
