#!/usr/bin/env bash
# The unprivileged half of "cluster": starts nodes and proxy, makes the tables, the accounts and the
# sample cluster's model, then runs the command.
set -euo pipefail
# shellcheck source=tests/cluster/servers.sh
. "$EAS_SCRATCH/tree/tests/cluster/servers.sh"
tree=$EAS_SCRATCH/tree

set_up_nodes() {
    local node
    for node in "${nodes[@]}"; do
        mkdir "$EAS_SCRATCH/$node"
        write_configuration "$node"
    done
    mariadb-install-db --no-defaults --datadir="$EAS_SCRATCH/db1/data" --skip-test-db \
        --auth-root-authentication-method=normal >"$EAS_SCRATCH/install.log" 2>&1 ||
        { cat "$EAS_SCRATCH/install.log" >&2 && exit 1; }
    mkdir "$EAS_SCRATCH"/{db2,db3}/data
    start db1 --wsrep-new-cluster
    await 60 mariadb --no-defaults --user=root --socket="$EAS_SCRATCH/db1/sock" \
        --execute='CREATE DATABASE easdb'
    await_synced db1
    start db2
    await_synced db2
    start db3
    await_synced db3
}

# Tables and accounts, as the guide makes them.
fill() {
    sql db1 "$(cat "$tree/sql/mariadb.sql")"
    sql db1 "$(sed -e s/@DATABASE@/easdb/ -e 's/@HOSTS@/127.0.0.%/' -e s/@SCHEDULER_PASSWORD@/scheduler/ \
        -e s/@NODE_PASSWORD@/node/ -e s/@ADMIN_PASSWORD@/admin/ "$tree/sql/mariadb-grants.sql")"
    sql db1 "$(sed 's/@HOSTS@/127.0.0.%/' "$tree/examples/haproxy/health-check.sql")"
}

import_model() {
    EASCTL_DB_PASSWORD="admin" easctl model import "$tree/examples/cluster/coefficients.txt" \
        --cluster sample --user eas_admin >"$EAS_SCRATCH/import.log"
}

# Of the sample, without what an unprivileged user cannot have.
start_door() {
    sed -e 's/10\.1\.0\./127.0.0./g' -e 's/maxconn 20000/maxconn 1500/' \
        -e '/^ *\(log\|option tcplog\|chroot\|user\|group\)\( \|$\)/d' \
        -e "s|stats socket .*|stats socket $EAS_SCRATCH/door.sock level admin|" \
        "$tree/examples/haproxy/haproxy.cfg" >"$EAS_SCRATCH/haproxy.cfg"
    haproxy -f "$EAS_SCRATCH/haproxy.cfg" >"$EAS_SCRATCH/haproxy.log" 2>&1 &
    echo $! >"$EAS_SCRATCH/door.pid"
}

# /etc/odbc.ini is the machine's own: the data source is named by the environment.
write_data_source() {
    cp "$tree/examples/odbc/odbcinst.ini" "$EAS_SCRATCH"
    sed -e "s/^SERVER.*/SERVER = $door/" -e 's/^PWD.*/PWD = scheduler/' \
        "$tree/examples/odbc/odbc.ini.mariadb" >"$EAS_SCRATCH/odbc.ini"
}

show_logs() {
    (($? == 0)) || tail -n 15 "$EAS_SCRATCH"/db?/server.log "$EAS_SCRATCH/haproxy.log" >&2
}
trap show_logs EXIT

export ODBCINI=$EAS_SCRATCH/odbc.ini ODBCSYSINI=$EAS_SCRATCH
export EASCTL_THRESHOLDS=$tree/examples/cluster/thresholds.conf
write_data_source
set_up_nodes
fill
start_door
await 30 writer
import_model
"$@"
