#!/bin/sh
# Holds what falls through the holes whose boots take long against known.txt. Sweep.Holes* has the shorter ones.
#
#   tests/holes/check.sh FIXTURE    a build for use: under sanitizers this takes minutes
set -eu
here=$(cd "$(dirname "$0")" && pwd)
fixture=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# holes OPTION...: what one sweep has of them
holes() {
    "$fixture" sweep "$@" >"$work/sweep" || {
        cat "$work/sweep"
        exit 1
    }
    sed -n '/^hole: /,/^$/p' "$work/sweep" >>"$work/found"
}

# Cuts are sampled, with all those of an update's first and last two operations.
holes holes/tail-into-slot-1 holes/tail-into-rescue holes/head-on-tail dataflash-edge/slot-1-2097152
# A mark is torn too often by several losses in a row.
holes --closure nand-worn/erase-first

diff -u "$here/known.txt" "$work/found" || {
    echo "the holes take other cases than is known; where that is meant, change tests/holes/known.txt" >&2
    exit 1
}
echo "$(grep -c '^hole: ' "$here/known.txt") holes take as many cases as is known"
