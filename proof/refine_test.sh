#!/bin/sh
# Holds the program against the model, and shows that the comparison can fail: builds with a planted mistake have
# edges that the model has not, and the history by which the model refutes a mistake is a case of the build that has
# it.
#
#   proof/refine_test.sh FIXTURE OUT PLANTED    OUT: what check.sh left; PLANTED: the folder of the planted builds
set -eu
here=$(dirname "$0")
fixture=$1
out=$2
planted=$3

# Small images show the same steps as large ones. A whole campaign's edges are held by refines.sh.
"$fixture" sweep --closure --ways 2 nand-update/running-erased nand-update/running-broken nand-rescue/broken \
    dataflash-edge/slot-1-1633 dataflash-edge/slot-0-1025 --edges "$out/program" >"$out/program.log"
"$here/refines.sh" "$out" "$out/program"

while read -r mistake variant; do
    "$fixture" sweep --closure --processor arm --most-states 1 --near 2 "$variant" --firmware "$planted/$mistake" \
        --edges "$out/$mistake" >/dev/null || true
    if "$here/refines.sh" "$out" "$out/$mistake" >"$out/$mistake.log"; then
        echo "$mistake: all its edges are in the model"
        exit 1
    fi
    echo "$mistake: $(grep -c 'not in the model' "$out/$mistake.log") edges that the model has not"
done <<END
retires_before_writing nand-update/running-erased
writes_over_the_good_slot nand-update/running-erased
retires_the_new_slot nand-update/running-erased
trusts_two_headers nand-update/running-broken
record_before_image nand-rescue/good
END

for mistake in retires_before_writing writes_over_the_good_slot; do
    if case=$("$fixture" sweep --follow "$out/nand-$mistake-1.trail" --processor arm --near 2 nand-update \
        --firmware "$planted/$mistake"); then
        echo "$mistake: no case is like the model's history: $case"
        exit 1
    fi
    echo "$mistake: $case"
done
