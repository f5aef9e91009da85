#!/usr/bin/env bash
# Schedulers generate, read back, select and remove while the writer is killed, while the next one
# falls silent, and while all nodes are restarted one after the other. What they were told holds on
# every node.
#
# usage: cluster BUILD_FOLDER failover.sh
set -euo pipefail
# shellcheck source=tests/cluster/servers.sh
. "$EAS_SCRATCH/tree/tests/cluster/servers.sh"
work=$EAS_SCRATCH/work
rows_of_a_tag=12
longest_call_s=40  # CONN_TIMEOUT and READ_TIMEOUT of the data source

made() {
    cat "$work"/told.* | grep -c made || true
}

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

# What a node holds: name, rows, jobs that they come from; one tag a line.
tags_of() {
    sql "$1" "SET SESSION wsrep_sync_wait = 7;
        SELECT CONCAT(user_name, '/', energy_tag_name) AS name, COUNT(*), COUNT(DISTINCT job_id)
        FROM TQVN_EnergyPolicyTag GROUP BY user_name, energy_tag_name ORDER BY name"
}

# The tags that must be there, or must not, by the last word about each.
told() {
    awk -v wanted="$1" '{ last[$1] = $2 } END { for (tag in last) if (last[tag] == wanted) print tag }' \
        "$work"/told.* | sort
}

check_node() {
    local node=$1
    tags_of "$node" >"$work/$node"
    awk -v n="$rows_of_a_tag" '$2 != n || $3 != 1 { print; bad = 1 } END { exit bad }' "$work/$node" ||
        fail "parts of tags on $node"
    cut -f1 "$work/$node" | sort >"$work/$node.names"
    told made | comm -23 - "$work/$node.names" | grep . && fail "lost on $node"
    told gone | comm -12 - "$work/$node.names" | grep . && fail "back again on $node"
    cmp "$work/db1" "$work/$node" || fail "db1 and $node differ"
    echo "$node: $(wc -l <"$work/$node") tags, all whole; $(told made | wc -l) were reported and kept"
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
