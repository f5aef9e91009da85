# The three nodes db1, db2, db3 (127.0.0.11 to .13) and the proxy (127.0.0.10), each on port 3306.
# Sourced by what runs beside them. Needs EAS_SCRATCH; each node has a folder there.
#
# Every wait is a poll with a limit that a busy machine keeps, too.
# shellcheck shell=bash

nodes=(db1 db2 db3)
door=127.0.0.10

fail() {
    echo "FAILED: $*" >&2
    exit 1
}

# await SECONDS COMMAND...: until the command succeeds.
await() {
    local limit=$((SECONDS + $1))
    shift
    until "$@" >/dev/null 2>&1; do
        ((SECONDS < limit)) || fail "in vain waited for: $*"
        sleep 0.05
    done
}

address() {
    echo "127.0.0.1${1#db}"
}

# sql NODE STATEMENT: past the proxy, as the administrator; one row a line, tabs between columns.
sql() {
    mariadb --no-defaults --batch --skip-column-names --user=root --connect-timeout=5 \
        --socket="$EAS_SCRATCH/$1/sock" easdb --execute="$2"
}

# status NODE VARIABLE: of Galera, such as wsrep_cluster_size.
status() {
    sql "$1" "SHOW GLOBAL STATUS LIKE '$2'" | cut -f2
}

# is NODE VARIABLE VALUE
is() {
    [ "$(status "$1" "$2" 2>/dev/null)" = "$3" ]
}

write_configuration() {
    local node=$1 folder=$EAS_SCRATCH/$1
    sed -e 's/10\.1\.0\./127.0.0./g' -e "s/^wsrep_node_name.*/wsrep_node_name = $node/" \
        -e "s/^\(wsrep_node_address\|bind_address\).*/\1 = $(address "$node")/" \
        "$EAS_SCRATCH/tree/examples/galera/61-eas-galera.cnf" >"$folder/server.cnf"
    # What several servers on one machine must not share, and what keeps them small.
    cat >>"$folder/server.cnf" <<EOF
port = 3306
socket = $folder/sock
datadir = $folder/data
tmpdir = $folder
log_error = $folder/server.log
wsrep_provider_options = "gmcast.listen_addr=tcp://$(address "$node"):4567;gcache.size=16M"
performance_schema = OFF
innodb_buffer_pool_size = 32M
innodb_log_file_size = 16M
innodb_flush_method = fsync
EOF
}

# start NODE [OPTION...]: does not wait. A node that crashed says first how far it had come, as
# Debian's service has it do.
start() {
    local node=$1 folder=$EAS_SCRATCH/$1 position=
    shift
    if grep -qs '^seqno: *-1' "$folder/data/grastate.dat"; then
        mariadbd --defaults-file="$folder/server.cnf" --wsrep-recover \
            --log-error="$folder/recovery.log" >/dev/null 2>&1 || fail "recovery of $node"
        position=$(sed -n 's/.*WSREP: Recovered position: *//p' "$folder/recovery.log" | tail -n1)
    fi
    mariadbd --defaults-file="$folder/server.cnf" ${position:+--wsrep-start-position="$position"} \
        "$@" >/dev/null 2>&1 </dev/null &
    echo $! >"$folder/pid"
    disown
}

gone() {
    ! grep -qs mariadbd "/proc/$1/cmdline"
}

# stop NODE [SIGNAL]: waits for its end; KILL is a crash.
stop() {
    local pid
    pid=$(cat "$EAS_SCRATCH/$1/pid")
    kill "-${2:-TERM}" "$pid"
    await 60 gone "$pid"
}

await_synced() {
    local node
    for node in "$@"; do
        await 60 is "$node" wsrep_local_state_comment Synced
    done
}

# door COMMAND: to the proxy, by its administrator's socket.
door() {
    echo "$1" | socat - "UNIX:$EAS_SCRATCH/door.sock" | grep . || true
}

# The node to which the proxy leads a new connection.
writer() {
    mariadb --no-defaults --batch --skip-column-names --user=eas_scheduler --password=scheduler \
        --connect-timeout=20 --host="$door" --execute='SELECT @@wsrep_node_name' 2>/dev/null
}
