#!/usr/bin/env bash
# How many jobs start in a second and how long the slowest waits, by the number of connections that
# the proxy lets through: of one server, and of the writer of three. docs/performance.md has a run.
#
# usage: cluster BUILD_FOLDER capacity.sh [STARTS]
#
# A start is what a node does: initialise, select; two connections. "Server" and "proxy" are the
# processor time that a start costs them.
set -euo pipefail
# shellcheck source=tests/cluster/servers.sh
. "$EAS_SCRATCH/tree/tests/cluster/servers.sh"
starts=${1:-400}
rounds=5

# Processor time that a process has had, in hundredths of a second.
ticks() {
    awk '{ print $14 + $15 }' "/proc/$1/stat"
}

per_start() {
    awk -v t="$1" -v n=$((starts * rounds)) 'BEGIN { printf "%.2f ms", t * 10 / n }'
}

# row NAME CONNECTIONS: the median of the rates, the longest of all waits.
row() {
    local server=0 proxy=0 pid round
    pid=$(cat "$EAS_SCRATCH/db1/pid")
    server=$(ticks "$pid") proxy=$(ticks "$door_pid")
    for ((round = 0; round < rounds; round++)); do
        cluster_client storm "$starts" || true
        sql db1 "DELETE FROM TQVN_EnergyPolicyTag"
    done >"$EAS_SCRATCH/rounds"
    server=$(per_start $(($(ticks "$pid") - server))) proxy=$(per_start $(($(ticks "$door_pid") - proxy)))
    sed -E 's/.*, ([0-9]+) failed, ([0-9]+) a second.*longest ([0-9.]+) s/\2 \1 \3/' "$EAS_SCRATCH/rounds" |
        sort -n | awk -v name="$1" -v connections="$2" -v server="$server" -v proxy="$proxy" '
            { rate[NR] = $1; failed += $2; if ($3 > longest) longest = $3 }
            END { printf "| %s | %s | %d | %.2f s | %d | %s | %s |\n", name, connections,
                  rate[int((NR + 1) / 2)], longest, failed, server, proxy }'
}

rows() {
    local connections
    for connections in 5 20 100; do
        for node in $2; do
            door "set maxconn server galera/$node $connections"
        done
        row "$1" "$connections"
    done
}

# The sample without what asks for a majority, and without the other two.
single_server() {
    local node
    for node in db3 db2 db1; do
        stop "$node"
    done
    kill "$door_pid"
    await 10 door_gone
    sed -i -e '/tcp-check/d' -e '/server db[23]/d' "$EAS_SCRATCH/haproxy.cfg"
    start db1 --wsrep-on=OFF
    await 60 sql db1 "SELECT 1"
    haproxy -f "$EAS_SCRATCH/haproxy.cfg" >"$EAS_SCRATCH/haproxy.log" 2>&1 &
    door_pid=$!
    await 30 writer
}

door_gone() {
    ! kill -0 "$door_pid"
}

door_pid=$(cat "$EAS_SCRATCH/door.pid")
echo "$(date -u +%F), $(nproc) processors, load $(cut -d' ' -f1-3 /proc/loadavg), $starts starts at once," \
    "$rounds times"
echo "| Servers | Connections | Starts a second | Longest wait | Failed | Server | Proxy |"
echo "|---|---|---|---|---|---|---|"
rows "three behind the proxy" "${nodes[*]}"
single_server
rows "one behind the proxy" db1
sed -i "s/^SERVER.*/SERVER = $(address db1)/" "$EAS_SCRATCH/odbc.ini"
for connections in 20 120; do
    sql db1 "SET GLOBAL max_connections = $connections"
    row "one, without a proxy" "$connections"
done
