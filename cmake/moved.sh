#!/bin/sh
# Starts build directories anew that were made in another place: a copied or moved tree brings them along, and they
# would build the tree that they were made for, or nothing.
set -eu
cd "$(dirname "$0")/.."
for cache in build/*/CMakeCache.txt; do
    [ -f "$cache" ] || continue
    home=$(sed -n 's/^CMAKE_HOME_DIRECTORY:INTERNAL=//p' "$cache")
    [ "$home" != "$(pwd -P)" ] && [ "$home" != "$(pwd)" ] || continue
    echo "$(dirname "$cache") was made in $home: starting it anew"
    rm -rf "$(dirname "$cache")"
done
