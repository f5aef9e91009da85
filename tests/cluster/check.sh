#!/usr/bin/env bash
# doctor says what answers, db check refuses what would lose tags, and a writer stays the writer. All that
# they say is in check.transcript.
#
# usage: cluster BUILD_FOLDER check.sh
set -euo pipefail
# shellcheck source=tests/cluster/servers.sh
. "$EAS_SCRATCH/tree/tests/cluster/servers.sh"
said=$EAS_SCRATCH/said

# check WHAT SERVER [SED_OF_ODBC_INI]: what db check says, and its exit status, into the transcript.
check() {
    local code=0
    sed -e "s/^SERVER.*/SERVER = $2/" -e "${3:-}" "$EAS_SCRATCH/odbc.ini" >"$EAS_SCRATCH/check.ini"
    echo "\$ $1"
    ODBCINI=$EAS_SCRATCH/check.ini easctl db check 2>&1 || code=$?
    echo "[$code]"
} >>"$said"

# with GLOBAL_SETTING FORMER: while the node db1 is set so.
with() {
    sql db1 "SET GLOBAL $1"
    check "$1" "$(address db1)"
    sql db1 "SET GLOBAL $2"
}

easctl doctor | grep ' connection: ' >"$said"
check door $door
check "a node" "$(address db3)"
easctl db check --json | grep '"server": ' >>"$said"
with "tx_isolation = 'READ-UNCOMMITTED'" "tx_isolation = 'REPEATABLE-READ'"
with "wsrep_on = OFF" "wsrep_on = ON"
for option in pc.ignore_sb pc.ignore_quorum; do
    with "wsrep_provider_options = '$option=true'" "wsrep_provider_options = '$option=false'"
done
with "read_only = ON" "read_only = OFF"
with "wsrep_sync_wait = 6" "wsrep_sync_wait = 1"
with "wsrep_dirty_reads = ON" "wsrep_dirty_reads = OFF"
with "innodb_flush_log_at_trx_commit = 0" "innodb_flush_log_at_trx_commit = 1"  # the others keep it
for format in STATEMENT MIXED; do
    check "binlog_format = $format" "" "s|^SERVER.*|SOCKET = $EAS_SCRATCH/db1/sock|; s/^UID.*/UID = root/
        s/^PWD.*//; s/^INITSTMT.*/&, binlog_format=$format/"
done
check "READ_TIMEOUT = 9, WRITE_TIMEOUT = 10" $door "s/^READ_TIMEOUT.*/READ_TIMEOUT = 9/
    s/^WRITE_TIMEOUT.*/WRITE_TIMEOUT = 10/"
check "READ_TIMEOUT = 0, WRITE_TIMEOUT = 1" $door "s/^READ_TIMEOUT.*/READ_TIMEOUT = 0/
    s/^WRITE_TIMEOUT.*/WRITE_TIMEOUT = 1/"

# A door that leads to all.
sed -e 's/ backup$//' -e '/^ *stick/d' -e 's/^backend galera/&\n    balance roundrobin/' \
    -e "s/bind $door:3306/&,127.0.0.20:3307/; s/bind $door/bind 127.0.0.20/" -e '/stats socket/d' "$EAS_SCRATCH/haproxy.cfg" >"$EAS_SCRATCH/all.cfg"
haproxy -f "$EAS_SCRATCH/all.cfg" >"$EAS_SCRATCH/all.log" 2>&1 &
await 30 mariadb --no-defaults --user=eas_scheduler --password=scheduler --host=127.0.0.20 \
    --execute='SELECT 1'
check "a door to all" 127.0.0.20
check "another port" 127.0.0.20 "s/^PORT.*/PORT = 3307/"
ODBCINI=$EAS_SCRATCH/check.ini easctl db check --json | grep '"server": ' >>"$said" || true

# A node that was away and comes back does not take the work from the one that does it now: for a
# moment both would write.
takes_for_healthy() {
    door "show stat" | grep -q "^galera,$1,.*,UP"
}
stop db1
await 30 writer
[ "$(writer)" = db2 ] || fail "$(writer) took over from db1, not db2"
start db1
await_synced db1
await 30 takes_for_healthy db1
[ "$(writer)" = db2 ] || fail "$(writer) took the work from db2"

stop db3
check "two nodes" $door
for flush in 0 2; do
    with "innodb_flush_log_at_trx_commit = $flush" "innodb_flush_log_at_trx_commit = 1"
done
stop db2
await 30 writer
check "one node" $door
sed -i -e 's/MariaDB [0-9.]*/MariaDB/' -e 's/(db., db., db.)/(db1, db2, db3)/' \
    -e '/port 3307/s/db[123] of/dbN of/' "$said"
diff -u "$EAS_SCRATCH/tree/tests/cluster/check.transcript" "$said" || fail "that is not its transcript"
