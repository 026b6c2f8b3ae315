#!/bin/sh
# Runs a campaign in parts, and merges them.
#
#   cluster/campaign.sh local|slurm PARTS DIRECTORY ARGUMENT...
#
# Part K is DIRECTORY/K.part. A part that is there is not run again, so a campaign that was interrupted goes on where
# it was; parts of another build or another call are refused by the merge, by name. `slurm` runs the parts as one
# array job, whatever nodes they fall to: DIRECTORY and this tree have to be where all nodes see them. Tasks that are
# lost are submitted again, twice. The arguments are those of PROGRAM [build/host/fixture sweep]; MERGE has more for
# the merge (--json, --report FILE).
set -eu
cd "$(dirname "$0")/.."
engine=$1
parts=$2
directory=$3
shift 3
program=${PROGRAM:-build/host/fixture sweep}
mkdir -p "$directory"

missing() {
    k=1
    while [ "$k" -le "$parts" ]; do
        [ -f "$directory/$k.part" ] || printf '%s ' "$k"
        k=$((k + 1))
    done
}

case "$engine" in
local)
    for k in $(missing); do
        # shellcheck disable=SC2086
        $program "$@" --shard "$k/$parts" --out "$directory/$k.part"
    done
    ;;
slurm)
    for round in 1 2 3; do
        lost=$(missing | sed 's/ $//; s/ /,/g')
        [ -n "$lost" ] || break
        echo "round $round: parts $lost"
        PROGRAM=$program PARTS=$parts DIRECTORY=$directory \
            sbatch --wait --requeue --array="$lost" --chdir="$PWD" \
                --output="$directory/%a.log" --export=ALL cluster/part.sbatch "$@" || true
    done
    ;;
*)
    echo "$engine: no engine; local or slurm" >&2
    exit 2
    ;;
esac

lost=$(missing)
if [ -n "$lost" ]; then
    echo "parts without a result: $lost(see $directory/K.log)" >&2
    exit 1
fi
k=1
set --
while [ "$k" -le "$parts" ]; do
    set -- "$@" "$directory/$k.part"
    k=$((k + 1))
done
# shellcheck disable=SC2086
exec $program merge "$@" ${MERGE:-}
