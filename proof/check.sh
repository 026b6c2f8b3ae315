#!/bin/sh
# Checks the protocol model with Spin: what must hold holds, each mistake is refuted, each hole is found. Leaves in
# OUT the edges of both media (what one power-up can make of what the regions hold), for the comparison with the
# program's own, and the trail of every refutation.
#
#   proof/check.sh OUT
set -eu
source=$(cd "$(dirname "$0")" && pwd)
mkdir -p "$1"
cd "$1"

# make NAME OPTION...: the verifier NAME/pan
make_verifier() {
    name=$1
    shift
    rm -rf "$name"
    mkdir "$name"
    cp "$source/update.pml" "$name"
    (cd "$name" && spin -a "$@" update.pml >spin.log && cc -O0 -w -DVECTORSZ=2048 -DCOLLAPSE -DNOFAIR -o pan pan.c) || {
        cat "$name/spin.log"
        exit 1
    }
}

# Bits of what is asked, as the model names them: 1 brick, 2 launch, 4 others, 8 neighbour, 16 rescue.
cat >table <<'END'
nand      7  -                          holds   a bootloader always, the new one in the end, nothing else changed
dataflash 7  -                          holds   a bootloader always, the new one in the end, nothing else changed

# mistakes
nand      1  retires_before_writing     refuted the old copy retired before the new one is written
dataflash 1  retires_before_writing     refuted the old copy retired before the new one is written
dataflash 1  retires_before_verifying   refuted the old copy retired before the new one is read back
nand      1  writes_over_the_good_slot  refuted the new image written over the good one
dataflash 1  writes_over_the_good_slot  refuted the new image written over the good one
nand      1  trusts_two_headers         refuted two headers trusted without their bodies
dataflash 1  trusts_two_headers         refuted two headers trusted without their bodies
dataflash 1  verifies_the_header_alone  refuted a body that nobody reads back
nand      1  no_bound_of_the_slot       refuted an image longer than its slot
dataflash 1  no_bound_of_the_slot       refuted an image longer than its slot
nand      2  retires_the_new_slot       refuted the wrong copy retired
dataflash 2  retires_the_new_slot       refuted the wrong copy retired
nand      2  launches_before_updating   refuted the application launched first
nand      2  no_mark_on_bad_blocks      refuted a block that failed and looks good
nand      2  no_verify_of_pages         refuted pages that nobody reads back
nand      2  reads_bad_blocks           refuted marks that the reader does not know
nand      2  record_before_image        refuted the version recorded before its image
dataflash 2  record_before_image        refuted the version recorded before its image
dataflash 2  rescue_not_verified        refuted a rescue image that nobody reads back

# holes
nand      1  pushed_on                  refuted bad blocks inside a slot push an image into what follows
nand      1  no_good_block              refuted an image pushed on, as slot 0 has no good block
nand      1  worn_record                refuted block 1 wears out: the version record goes to bootloader slot 0
nand      2  dead_rescue                refuted a rescue block so worn that it cannot even be marked bad
nand      16 -                          refuted a rescue image cut half-way
dataflash 16 -                          refuted a rescue image cut half-way
dataflash 1  shared_page                refuted slots that share a DataFlash page
dataflash 8  -                          refuted the neighbours in a DataFlash page that is rewritten
dataflash 2  fits_one_slot              refuted an image that fits DataFlash slot 1 alone
nand      2  wrong_text                 refuted a bank whose version text is not its bootloader's
dataflash 2  wrong_text                 refuted a bank whose version text is not its bootloader's
nand      1  unsure                     refuted bits that read either way, and two losses
dataflash 1  unsure                     refuted bits that read either way, and two losses

# what looks like a hole and is none
nand      5  too_long                   holds   an image longer than its slot is refused
dataflash 5  too_long                   holds   an image longer than its slot is refused
nand      1  dead_slot                  holds   a bootloader block that takes no mark keeps the update out
nand      3  unsure_once                holds   bits that read either way, and one loss
dataflash 3  unsure_once                holds   bits that read either way, and one loss
nand      1  wrong_text                 holds   updates without end
END

# check MEDIUM OPTION...: what the table has of it
check() {
    medium=$1
    failed=0
    make_verifier "$@"
    grep "^$medium " table >"$medium/table"
    while read -r medium asked experiment expected what; do
        [ "$experiment" != - ] || experiment=
        log=$medium-${experiment:-plain}-$asked
        rm -f "$medium/update.pml.trail"
        export EDGES=1 EXPERIMENT="$experiment" ASKED="$asked"
        (cd "$medium" && ./pan -a -m100000 -w20) >"$log.log"
        [ "$asked$experiment" != 7 ] || grep '^edge' "$log.log" | sort >"$medium.edges"
        case $(grep -o 'errors: [0-9]*' "$log.log") in
        'errors: 0') found=holds ;;
        *) found=refuted ;;
        esac
        ! grep -q 'search depth too small\|out of memory' "$log.log" || found=unknown
        states=$(sed -n 's/^ *\([0-9]*\) states, stored.*/\1/p' "$log.log")
        [ "$found" != refuted ] ||
            (cd "$medium" && TRAIL=1 ./pan -S -r update.pml.trail) |
                grep '^power-up\|^loss\|^edge\|^launched\|^no boot' >"$log.trail"
        verdict=ok
        [ "$found" = "$expected" ] || { verdict=WRONG; failed=1; }
        printf '%-5s %-9s %-7s %8s states  %s\n' \
            "$verdict" "$medium" "$found" "$states" "$what${experiment:+ ($experiment)}"
    done <"$medium/table"
    return $failed
}

check nand &
nand=$!
check dataflash -DDATAFLASH || failed=1
wait $nand || failed=1
exit ${failed:-0}
