#!/bin/sh
# Has a solver check a file of lemmas and compares its answers with those that the file expects:  check.sh FILE
set -eu
expected=$(sed -n 's/.*(check-sat) ; expect //p' "$1")
found=$(z3 -T:60 "$1") || true
[ -n "$expected" ] && [ "$found" = "$expected" ] && exit 0
printf '%s: the solver says\n%s\nexpected\n%s\n' "$1" "$found" "$expected" >&2
exit 1
