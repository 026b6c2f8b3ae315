#!/bin/sh
# Holds the program against the model: each edge of a closure has to be one of the model's.
#
#   proof/check.sh OUT                                      OUT/nand.edges, OUT/dataflash.edges
#   fixture sweep --closure --edges FILE
#   proof/refines.sh OUT FILE
#
# A line of FILE is "MEDIUM edge-kind FROM TO". Prints what the model does not have, and the share of the model's
# edges that the program shows.
set -eu
status=0
for medium in nand dataflash; do
    sed -n "s/^$medium /edge /p" "$2" | sort -u >"$1/$medium.seen"
    [ -s "$1/$medium.seen" ] || continue
    comm -23 "$1/$medium.seen" "$1/$medium.edges" >"$1/$medium.foreign"
    if [ -s "$1/$medium.foreign" ]; then
        sed "s/^/$medium: not in the model: /" "$1/$medium.foreign"
        status=1
    fi
    echo "$medium: $(wc -l <"$1/$medium.seen") edges of the program," \
        "$(wc -l <"$1/$medium.foreign") of them not among the $(wc -l <"$1/$medium.edges") of the model"
done
exit $status
