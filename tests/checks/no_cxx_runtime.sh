#!/bin/sh
# SPDX-License-Identifier: MIT
# Fails when a form of the library needs a symbol that only the C++ run-time has: C programs link it with
# nothing but the C library. Fails also when objects are constructed before main, or on first use: calls must work
# at any time, and from any thread.
# Every build of the library runs it, so any shell must do.
#   no_cxx_runtime.sh NM LIBEKO_SO LIBEKO_A
set -eu
nm=$1 shared=$2 archive=$3

# Symbols that FILE, listed with the options, uses and does not define.
undefined() { # FILE OPTION...
    "$nm" "$@" | awk '
        NF >= 2 && $(NF - 1) == "U" { used[$NF] = 1 }
        NF >= 3 && $(NF - 1) != "U" { defined[$NF] = 1 }
        END { for (name in used) if (!(name in defined)) print name }' | sort
}

status=0
complain() { # TITLE LINES  fails, if there are lines
    [ -n "$2" ] || return 0
    echo "$1"
    printf '%s\n' "$2" | sed 's/^/    /'
    status=1
}

# Mangled names are C++ by themselves; those of the library's own are defined in it.
for file in "$shared" "$archive"; do
    case $file in
        *.a) symbols=$(undefined "$file") ;;
        *) symbols=$(undefined "$file" -D) ;;
    esac
    [ -n "$symbols" ] || complain "$file: nothing was checked" 'no undefined symbols found'
    complain "$file needs the C++ run-time:" "$(printf '%s\n' "$symbols" | grep -E '^(_Z|__cxa_(allocate|throw|begin|end|rethrow|guard|pure|deleted|bad|demangle|get_)|__gxx_|__dynamic_cast|_Unwind_Resume|__cxa_thread_atexit$)')"
done
complain "$archive constructs objects at run time, in:" "$("$nm" "$archive" | grep -E ' (_GLOBAL__sub_I_|_ZGV)')"
exit $status
