#!/usr/bin/env bash
# A node that the majority does not hear refuses to write, and the proxy leads past it; one of three
# that is left alone refuses, too, until the administrator says that it is all there is.
#
# usage: cluster BUILD_FOLDER split_brain.sh
set -euo pipefail
# shellcheck source=tests/cluster/servers.sh
. "$EAS_SCRATCH/tree/tests/cluster/servers.sh"

store() {
    ODBCINI=$EAS_SCRATCH/${2:-}odbc.ini easctl tag generate --user anna --tag "$1" --job-id 1 \
        --cycles 2.4e12 --instructions 1.9e12 --memory-bytes 1.1e13 --elapsed 1200 --power 270
}

expect_refused() {
    if store "$@" >"$EAS_SCRATCH/refused" 2>&1; then
        fail "tag $1 was stored by a minority"
    fi
}

# expect_no_writes NODE: neither the library nor the server's own client; and easctl says why.
expect_no_writes() {
    expect_refused minority "$1."
    ODBCINI=$EAS_SCRATCH/$1.odbc.ini easctl doctor >"$EAS_SCRATCH/said" 2>&1 || true
    grep -q "without the majority" "$EAS_SCRATCH/said" || fail "doctor: $(cat "$EAS_SCRATCH/said")"
    if sql "$1" "INSERT INTO TQVN_EnergyPolicyTag SELECT 'minority', user_name, default_frequency,
        cluster_name, frequency, job_id, 1, 1, 1, 1, 1 FROM TQVN_EnergyPolicyTag" 2>/dev/null; then
        fail "$1 writes in a minority"
    fi
}

# Data sources that lead straight to a node: db1.odbc.ini ...
for node in "${nodes[@]}"; do
    sed "s/^SERVER.*/SERVER = $(address "$node")/" "$EAS_SCRATCH/odbc.ini" \
        >"$EAS_SCRATCH/$node.odbc.ini"
done

# The writer hears nobody, and nobody hears it.
isolated=$(writer)
store before
sql "$isolated" "SET GLOBAL wsrep_provider_options = 'gmcast.isolate=1'"
await 60 is "$isolated" wsrep_cluster_status non-Primary
expect_no_writes "$isolated"
another_writer() {
    local now
    now=$(writer) && [ "$now" != "$isolated" ]
}
await 60 another_writer
echo "$isolated hears nobody and writes nothing; the writer is $(writer)"
store majority
sql "$isolated" "SET GLOBAL wsrep_provider_options = 'gmcast.isolate=0'"
await_synced "$isolated"

# Two crash: the third cannot know that the others do not work on without it.
left=$(writer)
for node in "${nodes[@]}"; do
    [ "$node" = "$left" ] || stop "$node" KILL
done
await 60 is "$left" wsrep_cluster_status non-Primary
expect_no_writes "$left"
expect_refused alone
echo "$left, alone of three, writes nothing"
sql "$left" "SET GLOBAL wsrep_provider_options = 'pc.bootstrap=true'"
await 60 writer
store told_to_go_on
for node in "${nodes[@]}"; do
    [ "$node" != "$left" ] || continue
    start "$node"
    await_synced "$node"
done

for node in "${nodes[@]}"; do
    held=$(sql "$node" "SET SESSION wsrep_sync_wait = 7; SELECT GROUP_CONCAT(name ORDER BY name)
        FROM (SELECT energy_tag_name AS name FROM TQVN_EnergyPolicyTag
        GROUP BY energy_tag_name HAVING COUNT(*) = 12) AS whole")
    [ "$held" = before,majority,told_to_go_on ] || fail "$node holds $held"
done
echo "all nodes hold the three tags that were not refused, and no other"
