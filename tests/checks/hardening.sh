#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Fails unless the shared library is hardened: its relocations are done when it is loaded and read-only afterwards, no
# stack is executable and nothing both writable and executable, frames are guarded and calls fortified.
#   hardening.sh NM READELF LIBEKO_SO
set -euo pipefail
nm=$1 readelf=$2 library=$3

status=0
expect() { # WHAT PATTERN TEXT
    grep -qE "$2" <<< "$3" || { echo "$library has no $1" && status=1; }
}
segments=$("$readelf" -lW "$library")
symbols=$("$nm" -D --undefined-only "$library")
expect 'read-only relocations' '^ *GNU_RELRO' "$segments"
expect 'stack that is only data' '^ *GNU_STACK .* RW ' "$segments"
expect 'immediate binding' 'BIND_NOW' "$("$readelf" -dW "$library")"
expect 'guarded frames' ' __stack_chk_fail' "$symbols"
expect 'fortified calls' '_chk(@|$)' "$(grep -v __stack_chk <<< "$symbols")"
if grep -E ' (RWE|WE) ' <<< "$segments"; then
    echo "$library has segments to write and to execute" && status=1
fi
exit $status
