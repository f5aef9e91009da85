#!/usr/bin/env bash
# Jobs that start and end while the database's writer dies, second by second.
#
# usage: cluster BUILD_FOLDER demo.sh
set -euo pipefail
# shellcheck source=tests/cluster/servers.sh
. "$EAS_SCRATCH/tree/tests/cluster/servers.sh"
# shellcheck source=tests/cluster/told.sh
. "$EAS_SCRATCH/tree/tests/cluster/told.sh"

# As the proxy sees them: whom it sends calls to, and which servers it takes for healthy.
door_leads_to() {
    door "show table galera" | sed -nE 's/.*server_id=([0-9]).*/db\1/p'
}

healthy() {
    door "show stat" | awk -F, '$1 == "galera" && $2 ~ /^db/ { printf "%s", $18 ~ /^UP/ ? " " $2 : " ---" }'
}

# second NUMBER EVENT: what the schedulers had done in it.
second() {
    local now
    sleep 1
    now=$(made)
    printf '%4d  %-8s  %-12s  %6d  %s\n' "$1" "$(door_leads_to)" "$(healthy)" $((now - before)) "$2"
    before=$now
}

echo '$ easctl doctor'
easctl doctor | grep connection
echo
echo "600 jobs start at once, the door lets 20 connections through:"
for node in "${nodes[@]}"; do
    door "set maxconn server galera/$node 20"
done
cluster_client storm 600

mkdir "$work"
cluster_client work 4 "$work" >"$work/report" &
workers=$!
echo
echo "4 schedulers store, read back, select by and remove tags:"
echo "   s  door to   healthy        tags"
before=0
for ((i = 1; i <= 22; i++)); do
    event=
    case $i in
    3) event="db1 is killed (-9)" && stop db1 KILL ;;
    14) event="db1 is started" && start db1 ;;
    esac
    second "$i" "$event"
done
touch "$work/stop"
wait "$workers" || { cat "$work/report" && fail "the schedulers"; }
await_synced db1
sed 's/; longest/;\nlongest/' "$work/report"
for node in "${nodes[@]}"; do
    check_node "$node"
done
