#!/bin/sh
# Runs every fuzz target, one after the other, with the fuzzer's own options, and prints what each came to. Corpora grow
# in build/fuzz/corpus/; a finding is left as build/fuzz/TARGET-crash-... (or -timeout-, -oom-), its report in
# build/fuzz/TARGET.log.
#
#   fuzz/run.sh -max_total_time=60          a minute each
#   fuzz/run.sh -runs=1000 -seed=1          a fixed number of runs
set -u
cd "$(dirname "$0")/.."
result=0
# Files in memory; short stacks and a short memory of what was freed take half the time. A replay has all of them.
[ -w /dev/shm ] && export TMPDIR=/dev/shm
export ASAN_OPTIONS=malloc_context_size=4:quarantine_size_mb=16
printf '%-12s %10s %8s %8s %8s\n' target runs seconds covered corpus
for committed in fuzz/corpus/*; do
    name=$(basename "$committed")
    grown=build/fuzz/corpus/$name
    log=build/fuzz/$name.log
    mkdir -p "$grown"
    if build/fuzz/$name-fuzz -timeout=20 -rss_limit_mb=2048 -len_control=0 -max_len=2048 -close_fd_mask=1 \
        -artifact_prefix=build/fuzz/$name- "$@" "$grown" "$committed" 2>"$log"; then
        awk -v name="$name" '/cov: /{covered = $4; for (i = 1; i < NF; i++) if ($i == "corp:") corpus = $(i + 1)}
            /^Done/{printf "%-12s %10s %8s %8s %8s\n", name, $2, $5, covered, corpus}' "$log"
    else
        result=1
        echo "$name: FOUND something, see $log; replay: build/fuzz/$name-fuzz FILE"
        ls build/fuzz/$name-crash-* build/fuzz/$name-timeout-* build/fuzz/$name-oom-* 2>/dev/null
    fi
done
exit $result
