#!/usr/bin/env bash
# Many more jobs start at once than the servers take connections: they wait in the proxy's queue, and
# none fails.
#
# usage: cluster BUILD_FOLDER storm.sh [STARTS [CONNECTIONS]]
set -euo pipefail
# shellcheck source=tests/cluster/servers.sh
. "$EAS_SCRATCH/tree/tests/cluster/servers.sh"
connections=${2:-20}

for node in "${nodes[@]}"; do
    sql "$node" "SET GLOBAL max_connections = $((connections + 10))"
    door "set maxconn server galera/$node $connections"
done
cluster_client storm "${1:-400}"
# 4: the most that waited at once
waited=$(door "show stat" | awk -F, '$1 == "galera" && $4 > most { most = $4 } END { print most + 0 }')
echo "$connections connections, up to $waited waited for one"
((waited > 0)) || fail "nobody had to wait"
