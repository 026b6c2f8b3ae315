#!/bin/sh
# A campaign on a real Slurm of this one machine: controller, node and munge from packages. An array of 8, one task
# killed half-way and run again; what is merged has to be what one run gives. Needs root. Ends what it started, and
# nothing else.
set -eu
cd "$(dirname "$0")/.."
[ "$(id -u)" = 0 ] || { echo "a controller and a node are started as root" >&2; exit 2; }
./setup.sh --cluster
fixture=$PWD/build/host/fixture
campaign="--closure nand-rescue nand-both nand-factory-bad" # of which each part takes some seconds
here=$(mktemp -d)
mkdir "$here/state" "$here/spool" "$here/parts"
munge=

finish() {
    # One after the other: each writes its state before it ends, and the node tells the controller that it goes.
    for file in "$here/d.pid" "$here/ctld.pid"; do
        pid=$(cat "$file" 2>/dev/null) || continue
        kill "$pid" 2>/dev/null || continue
        for _ in $(seq 100); do
            kill -0 "$pid" 2>/dev/null || break
            sleep 0.1
        done
    done
    [ -z "$munge" ] || kill "$munge" 2>/dev/null || true
    rm -rf "$here"
}
trap finish EXIT INT TERM

host=$(hostname -s)
cat >"$here/slurm.conf" <<END
ClusterName=local
SlurmctldHost=$host
SlurmUser=root
SlurmdUser=root
AuthType=auth/munge
StateSaveLocation=$here/state
SlurmdSpoolDir=$here/spool
SlurmctldPidFile=$here/ctld.pid
SlurmdPidFile=$here/d.pid
SlurmctldLogFile=$here/ctld.log
SlurmdLogFile=$here/d.log
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
SelectType=select/cons_tres
SelectTypeParameters=CR_CPU
ReturnToService=2
NodeName=$host CPUs=2 RealMemory=1000 State=UNKNOWN
PartitionName=all Nodes=ALL Default=YES MaxTime=INFINITE State=UP
END
export SLURM_CONF="$here/slurm.conf"

if ! munge -n </dev/null >/dev/null 2>&1; then
    mkdir -p /run/munge
    chown munge: /run/munge
    su -s /bin/sh munge -c "exec /usr/sbin/munged --foreground" >"$here/munged.log" 2>&1 &
    munge=$!
fi
within() { # SECONDS COMMAND...: until it succeeds
    seconds=$1
    shift
    tries=$((5 * seconds))
    until "$@" >/dev/null 2>&1; do
        tries=$((tries - 1))
        [ "$tries" -gt 0 ] || { echo "in vain: $*" >&2; cat "$here"/*.log >&2; exit 1; }
        sleep 0.2
    done
}
node_is_idle() { sinfo -h -o %T | grep -q '^idle'; }
within 30 munge -n
slurmctld
slurmd
within 60 node_is_idle

echo "one run of everything"
# shellcheck disable=SC2086
"$fixture" sweep $campaign --json >"$here/one.json"

echo "an array of 8"
# shellcheck disable=SC2086
PROGRAM="$fixture sweep" MERGE=--json ./cluster/campaign.sh slurm 8 "$here/parts" $campaign >"$here/array.log" &
array=$!
task() { squeue -h -r -t R -o '%A %K %F' | awk '$2 == 2 { print $1 }'; }
task_runs() { [ -n "$(task)" ]; }
within 60 task_runs
killed=$(task)
scancel --signal=KILL --full "$killed"
echo "task 2 killed in the middle"
wait "$array"

grep -q '^round 2: parts 2$' "$here/array.log" || {
    echo "the killed task was not run again:" >&2; cat "$here/array.log" >&2; exit 1; }
sed -n '/^{/,$p' "$here/array.log" >"$here/merged.json"
for one in one merged; do
    grep -v 'processor_seconds\|peak_kilobytes\|"command"' "$here/$one.json" >"$here/$one.same"
done
cmp "$here/one.same" "$here/merged.same"
echo "what was merged from 8 parts is what one run gives: $(grep -c . "$here/one.same") lines but for the seconds"
