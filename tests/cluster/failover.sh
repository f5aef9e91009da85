#!/usr/bin/env bash
# Schedulers generate, read back, select and remove while the writer is killed, while the next one
# falls silent, and while all nodes are restarted one after the other. What they were told holds on
# every node.
#
# usage: cluster BUILD_FOLDER failover.sh
set -euo pipefail
# shellcheck source=tests/cluster/servers.sh
. "$EAS_SCRATCH/tree/tests/cluster/servers.sh"
# shellcheck source=tests/cluster/told.sh
. "$EAS_SCRATCH/tree/tests/cluster/told.sh"
longest_call_s=40  # CONN_TIMEOUT and READ_TIMEOUT of the data source

more_than() {
    (($(made) > $1))
}

# The schedulers go on: as many tags again.
await_progress() {
    await 60 more_than $(($(made) + 20))
}

another_writer_than() {
    local now
    now=$(writer) && [ "$now" != "$1" ]
}

# await_work_without NODE HOW: the work goes on, whether or not it was the writer.
await_work_without() {
    [ "$1" != "$writer" ] || await 60 another_writer_than "$1"
    await_progress
    echo "$1 $2: writer was $writer, is $(writer)"
}

# take_away NODE SIGNAL: and start it again.
take_away() {
    writer=$(writer)
    stop "$1" "$2"
    await_work_without "$1" "ended by $2"
    start "$1"
    await_synced "$1"
}

# As if its machine were gone: nothing is closed, nothing answers. It comes back as if nothing had
# been, and must notice.
silence() {
    writer=$(writer)
    kill -STOP "$(cat "$EAS_SCRATCH/$1/pid")"
    await_work_without "$1" "silent"
    kill -CONT "$(cat "$EAS_SCRATCH/$1/pid")"
    await 60 is "$1" wsrep_cluster_size 3
    await_synced "$1"
}

mkdir "$work"
cluster_client work 6 "$work" >"$work/report" &
workers=$!
await 60 more_than 20
take_away "$(writer)" KILL
silence "$(writer)"
for node in "${nodes[@]}"; do
    take_away "$node" TERM
done
touch "$work/stop"
wait "$workers" || { cat "$work/report" && fail "the schedulers"; }
cat "$work/report"
for node in "${nodes[@]}"; do
    check_node "$node"
done
sed 's/.*longest call \([0-9.]*\).*/\1/' "$work/report" |
    awk -v most="$longest_call_s" '{ exit $1 > most }' || fail "a call took too long"
