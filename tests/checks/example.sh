#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Runs an example in a directory of its own and compares what it prints, to both outputs, with the first text block of
# its README. It must leave no file behind.
#   example.sh PROGRAM README
set -euo pipefail
program=$1 readme=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/here"
cd "$work/here"
export TMPDIR=$PWD
unset TOV_TMPDIR

awk '$0 == "```text" { inside = 1; next } inside && /^```$/ { exit } inside' "$readme" > ../expected
[ -s ../expected ] || { echo "$readme says nothing of what is printed" && exit 1; }
result=0
"$program" > ../printed 2>&1 || result=$?
diff ../expected ../printed
left=$(ls -A)
[ "$result:$left" = 0: ] || { echo "ended with $result, left '$left'" && exit 1; }
