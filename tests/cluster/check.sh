#!/usr/bin/env bash
# doctor says what answers, db check refuses what would lose tags, and a writer stays the writer.
#
# usage: cluster BUILD_FOLDER check.sh
set -euo pipefail
# shellcheck source=tests/cluster/servers.sh
. "$EAS_SCRATCH/tree/tests/cluster/servers.sh"
said=$EAS_SCRATCH/said

# check CODE TEXT [NODE]: of db check, through the door or at a node.
check() {
    local code=0
    sed "s/^SERVER.*/SERVER = ${3:-$door}/" "$EAS_SCRATCH/odbc.ini" >"$EAS_SCRATCH/check.ini"
    ODBCINI=$EAS_SCRATCH/check.ini easctl db check >"$said" 2>&1 || code=$?
    if [ "$code" -ne "$1" ] || ! grep -qF -- "$2" "$said"; then
        fail "db check: $code, not $1 with \"$2\": $(cat "$said")"
    fi
}

# with GLOBAL_SETTING FORMER CODE TEXT: while the node db1 is set so.
with() {
    sql db1 "SET GLOBAL $1"
    check "$3" "$4" "$(address db1)"
    sql db1 "SET GLOBAL $2"
}

easctl doctor >"$said" || fail "doctor: $(cat "$said")"
grep 'connection: MariaDB .*, Galera node db. of 3, Synced, through a proxy (127.0.0.10 leads to' "$said" ||
    fail "doctor: $(cat "$said")"
check 0 "Galera node db3 of 3, Synced" "$(address db3)"
easctl db check --json | grep -q '"server": "Galera node' || fail "the document tells no server"
! grep -q proxy "$said" || fail "a proxy where there is none"

with "tx_isolation = 'READ-UNCOMMITTED'" "tx_isolation = 'REPEATABLE-READ'" 1 "half stored"
with "wsrep_on = OFF" "wsrep_on = ON" 1 "the others never get its tags"
with "wsrep_provider_options = 'pc.ignore_sb=true'" "wsrep_provider_options = 'pc.ignore_sb=false'" 1 \
    "nodes that lose each other write apart"
with "read_only = ON" "read_only = OFF" 1 "read-only"
with "wsrep_sync_wait = 0" "wsrep_sync_wait = 1" 0 "the last tags are not found"
sed -i 's/^READ_TIMEOUT.*/READ_TIMEOUT = 5/' "$EAS_SCRATCH/odbc.ini"
check 0 "READ_TIMEOUT = 5: a commit takes longer"

# A door that leads to all.
sed -e 's/ backup$//' -e '/^ *stick/d' -e 's/^backend galera/&\n    balance roundrobin/' \
    -e "s/bind $door/bind 127.0.0.20/" -e '/stats socket/d' "$EAS_SCRATCH/haproxy.cfg" >"$EAS_SCRATCH/all.cfg"
haproxy -f "$EAS_SCRATCH/all.cfg" >"$EAS_SCRATCH/all.log" 2>&1 &
await 30 mariadb --no-defaults --user=eas_scheduler --password=scheduler --host=127.0.0.20 \
    --execute='SELECT 1'
check 1 "connections lead to several servers at once" 127.0.0.20

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
check 0 "there are two nodes"
