#!/bin/sh
# Lists the symbols that a library of modules needs from elsewhere:  needed_symbols.sh NM LIBRARY
set -eu
defined=$(mktemp)
trap 'rm -f "$defined"' EXIT
"$1" --defined-only --extern-only "$2" | awk 'NF == 3 { print $3 }' | sort -u > "$defined"
"$1" --undefined-only "$2" | awk '$1 == "U" { print $2 }' | sort -u | comm -23 - "$defined"
