#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Describes the interface of a shared library that has debug information, and fails unless that is what abi/ says, by
# names, signatures, records and enumerations; additions count too. With --renew writes the description to abi/.
#   abi.sh LIBEKO_SO [--renew]
set -euo pipefail
library=$1 renew=${2-}
cd "$(dirname "$0")/../.."
export LC_ALL=C
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Nothing of the machine or of the library's inside: no paths, no places, no types that are not in the public headers.
abidw --headers-dir include --drop-private-types --exported-interfaces-only --drop-undefined-syms --no-corpus-path \
    --no-comp-dir-path --no-show-locs --no-parameter-names --no-elf-needed --out-file "$work/new" "$library"

symbols=$(sed -n "s/.*<elf-symbol name='\([^']*\)'.*/\1/p" "$work/new" | sort)
undescribed=$(comm -23 <(echo "$symbols") <(sed -n "s/.*elf-symbol-id='\([^@']*\).*/\1/p" "$work/new" | sort))
[ -n "$symbols" ] || undescribed='all of it'
[ -z "$undescribed" ] || { echo "$library has no debug information for" && echo "$undescribed" && exit 1; }

case $(sed -n "1s/.* architecture='\([^']*\)'.*/\1/p" "$work/new") in
    elf-amd-x86_64) kept=abi/libeko-x86_64.abi ;;
    elf-intel-80386) kept=abi/libeko-i386.abi ;;
    *) echo "No description is kept for this architecture" && exit 1 ;;
esac
if [ "$renew" = --renew ]; then
    sed '1a <!-- SPDX-License-Identifier: MIT -->' "$work/new" > "$kept"
elif ! abidiff --harmless "$kept" "$work/new"; then
    echo "The interface differs from $kept. On purpose? ./dev abi --renew"
    exit 1
fi
echo "$kept: $(echo "$symbols" | wc -l) names"
