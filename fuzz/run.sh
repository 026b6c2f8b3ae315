#!/bin/sh
# Runs every fuzz target, one after the other, with the fuzzer's own options, and prints what each came to. Corpora grow
# in build/fuzz/corpus/; a finding is left as build/fuzz/TARGET-crash-... (or -timeout-, -oom-), its report in
# build/fuzz/TARGET.log.
#
#   fuzz/run.sh -max_total_time=60          a minute each
#   fuzz/run.sh -runs=1000 -seed=1          a fixed number of runs
#
# A campaign is each target with each of SEEDS seeds, from the committed corpora alone. A part of it takes every Nth of
# these runs, on any machine with this build; all of them merged make one table, the same from any split but for the
# seconds. What is covered stands in the parts alone: it depends a little on the names of temporary files.
#
#   fuzz/run.sh --seeds 8 --shard 3/4 --out 3.part -runs=20000
#   fuzz/run.sh merge 1.part 2.part 3.part 4.part
#   PROGRAM=fuzz/run.sh cluster/campaign.sh slurm 100 build/fuzz/parts --seeds 50 -runs=100000      all of it
set -u
cd "$(dirname "$0")/.."
# Files in memory; short stacks and a short memory of what was freed take half the time. A replay has all of them.
[ -w /dev/shm ] && export TMPDIR=/dev/shm
export ASAN_OPTIONS=malloc_context_size=4:quarantine_size_mb=16

# run TARGET NAME GROWN OPTION... prints "NAME runs seconds covered corpus", or "NAME FOUND FILE..."
run() {
    target=$1 name=$2 grown=$3
    shift 3
    log=build/fuzz/$name.log
    mkdir -p "$grown"
    if build/fuzz/$target-fuzz -timeout=20 -rss_limit_mb=2048 -len_control=0 -max_len=2048 -close_fd_mask=1 \
        -artifact_prefix=build/fuzz/$name- "$@" "$grown" "fuzz/corpus/$target" 2>"$log"; then
        awk -v name="$name" '/cov: /{covered = $4; for (i = 1; i < NF; i++) if ($i == "corp:") corpus = $(i + 1)}
            /^Done/{sub("/.*", "", corpus); print name, $2, $5, covered, corpus}' "$log"
    else
        echo "$name FOUND" build/fuzz/$name-crash-* build/fuzz/$name-timeout-* build/fuzz/$name-oom-* |
            sed 's| [^ ]*-\*||g'
    fi
}

heads() {
    case "$1" in
    5) printf '%-12s %10s %8s %8s %8s\n' target runs seconds covered corpus ;;
    3) printf '%-12s %10s %8s\n' target runs seconds ;;
    esac
}

# Reads such lines, those of one target after each other, and prints COLUMNS of their rows. Ends with 1 where one has
# found something.
rows() {
    awk -v columns="$1" '
        function print_row(a, b, c, d, e) {
            if (columns == 5) printf "%-12s %10s %8s %8s %8s\n", a, b, c, d, e
            else printf "%-12s %10s %8s\n", a, b, c
        }
        { name = $1; sub("@.*", "", name) }
        name != target { if (target != "" && runs) print_row(target, runs, seconds, covered, corpus)
                         target = name; runs = seconds = covered = corpus = 0 }
        $2 == "FOUND" { found = 1; print "FOUND " $0 "; replay: build/fuzz/" name "-fuzz FILE"; next }
        { runs += $2; seconds += $3; if ($4 > covered) covered = $4; if ($5 > corpus) corpus = $5 }
        END { if (runs) print_row(target, runs, seconds, covered, corpus); exit found }'
}

# What parts have to agree in: the program, the corpora, the seeds and the options.
origin() {
    { cksum <build/fuzz/fixture-fuzz; cat $(find fuzz/corpus -type f | LC_ALL=C sort) | cksum; } | tr '\n' ' '
    echo "seeds $seeds $*"
}

part() {
    k=${shard%/*} n=${shard#*/}
    [ "$k" -ge 1 ] && [ "$k" -le "$n" ] && [ -n "$out" ] || { echo "--shard $shard: K/N, with --out PART" >&2; exit 2; }
    {
        echo "fuzz part $k/$n"
        origin "$@"
        unit=0
        for corpus in fuzz/corpus/*; do
            for seed in $(seq "$seeds"); do
                unit=$((unit + 1))
                [ $(((unit - k) % n)) = 0 ] || continue
                name=$(basename "$corpus")@$seed
                rm -rf "build/fuzz/units/$name"
                run "$(basename "$corpus")" "$name" "build/fuzz/units/$name" "$@" -seed="$seed"
            done
        done
        echo end
    } >"$out.new"
    mv "$out.new" "$out"
}

refuse() { echo "$*" >&2; exit 1; }

merge() {
    n= first= seen=
    for file; do
        [ "$(tail -n 1 "$file" 2>/dev/null)" = end ] || refuse "$file: not a whole part"
        shard=$(sed -n '1s/^fuzz part //p' "$file")
        [ -n "$shard" ] || refuse "$file: no part of a fuzz campaign"
        [ -n "$n" ] || { n=${shard#*/} first=$file; }
        [ "${shard#*/}" = "$n" ] && [ "$(sed -n 2p "$file")" = "$(sed -n 2p "$first")" ] ||
            refuse "$file: of another build or campaign than $first"
        case " $seen " in *" ${shard%/*} "*) refuse "$file: part $shard is there twice" ;; esac
        seen="$seen ${shard%/*}"
    done
    for k in $(seq "${n:-0}"); do
        case " $seen " in *" $k "*) ;; *) refuse "part $k/$n is missing" ;; esac
    done
    heads 3
    for file; do sed '1,2d;/^end$/d' "$file"; done | LC_ALL=C sort -V | rows 3
}

shard= out= seeds=1
[ "${1:-}" = merge ] && { shift; [ $# -gt 0 ] || refuse "merge: no parts"; merge "$@"; exit; }
options=
while [ $# -gt 0 ]; do
    case "$1" in
    --shard | --out | --seeds)
        [ $# -gt 1 ] || { echo "$1: no value" >&2; exit 2; }
        case "$1" in --shard) shard=$2 ;; --out) out=$2 ;; *) seeds=$2 ;; esac
        shift
        ;;
    *) options="$options $1" ;;
    esac
    shift
done
# shellcheck disable=SC2086
set -- $options
[ -z "$shard" ] || { part "$@"; exit; }
heads 5
result=0
for corpus in fuzz/corpus/*; do # a row as soon as its target is done
    name=$(basename "$corpus")
    run "$name" "$name" "build/fuzz/corpus/$name" "$@" | rows 5 || result=1
done
exit $result
