#!/usr/bin/env bash
# Carries many tags from SQLite to MariaDB and back, then removes them on each while another process
# goes on as jobs do: it selects frequencies, and makes tags.
#
# usage: bench/tag_removal.sh BUILD_FOLDER [TAGS]
#
# TAGS is 100000 where it is not given. The databases are scratch ones, and gone at the end; the files
# of an export must be equal to what was imported.
set -euo pipefail
export LC_ALL=C

build=$(cd "$1" && pwd)
tags=${2:-100000}
cd "$(dirname "$0")/.."
folder=$(mktemp -d /var/tmp/eas-removal.XXXXXX)
server=tests/support/mariadb-server.sh
trap 'rm -f "$folder/go-on"; wait; "$server" stop "$folder/server"; rm -rf "$folder"' EXIT
export PYTHONPATH=$PWD/python LD_LIBRARY_PATH=$build/lib
export EASCTL_THRESHOLDS=$PWD/examples/cluster/thresholds.conf

# Both databases have the sample cluster's model and nothing else; the accounts are the guide's.
make_sqlite() {
    examples/cluster/load-sqlite "$folder/sqlite" easdb
}
make_mariadb() {
    local account socket
    "$server" start "$folder/server" >/dev/null
    socket=$(cat "$folder/server/socket")
    {
        echo "create database easdb; use easdb;"
        cat sql/mariadb.sql
        sqlite3 "$folder/sqlite/eas.db" '.mode insert TQVN_EnergyCoEfficients' \
            'select * from TQVN_EnergyCoEfficients'
        sed -e 's/@DATABASE@/easdb/g; s/@HOSTS@/localhost/g; s/@[A-Z]*_PASSWORD@/secret/g' sql/mariadb-grants.sql
    } | mariadb --no-defaults -uroot -S "$socket"
    for account in node admin; do
        mkdir "$folder/$account"
        sed "s|^SERVER.*|SOCKET = $socket|; s/^PORT.*//; s/^UID.*/UID = eas_$account/; s/^PWD.*/PWD = secret/" \
            examples/odbc/odbc.ini.mariadb >"$folder/$account/odbc.ini"
        cp examples/odbc/odbcinst.ini "$folder/$account"
    done
}
# as FOLDER COMMAND...: with the data source of that folder
as() {
    env ODBCINI="$folder/$1/odbc.ini" ODBCSYSINI="$folder/$1" "${@:2}"
}
easctl() { # FOLDER ARGUMENT...
    as "$1" "$build/bin/easctl" --quiet "${@:2}"
}

# Copies of one job's tag: as many old ones of four users, and a hundred of today that stay.
make_tags() {
    easctl sqlite tag generate --jobs <(head -n 2 examples/cluster/jobs.csv) >/dev/null
    sqlite3 -bail "$folder/sqlite/eas.db" "
        create temp table one as select * from TQVN_EnergyPolicyTag;
        delete from TQVN_EnergyPolicyTag;
        with recursive
            number(n) as (select 0 union all select n + 1 from number where n + 1 < $tags / 4),
            owner(user) as (values ('anna'), ('bert'), ('carla'), ('dora')),
            copy(tag, user, made) as (
                select printf('old%06d', n), user, unixepoch('now', '-2 years') from owner, number
                union all
                select printf('kept%02d', n), user, unixepoch() from owner, number where n < 25)
        insert into TQVN_EnergyPolicyTag
            select tag, user, default_frequency, cluster_name, frequency, job_id, predict_power,
                energy_saving_pct, predict_elapse_time, perf_degrad_pct, made from copy, one;"
    easctl sqlite tag export -o "$folder/tags.csv"
}

timed() { # WHAT COMMAND...
    local begin=${EPOCHREALTIME/./}
    "${@:2}"
    awk -v what="$1" -v us=$((${EPOCHREALTIME/./} - begin)) 'BEGIN { printf "%-24s %8.1f s\n", what, us / 1e6 }'
}
# carry ENGINE ADMINISTRATOR FILE: into that engine and out again
carry() {
    timed "$1: import" easctl "$2" tag import "$folder/$3"
    timed "$1: export" easctl "$2" tag export -o "$folder/$1.csv"
    cmp "$folder/tags.csv" "$folder/$1.csv"
}
remove_old() { # ADMINISTRATOR
    easctl "$1" tag remove --older-than 1y --yes >"$folder/removed"
}
# remove ENGINE NODE ADMINISTRATOR: what is young must be there afterwards
remove() {
    local jobs
    as "$2" python3 bench/tag_jobs.py "$folder/go-on" &
    jobs=$!
    until [ -e "$folder/go-on" ]; do
        kill -0 "$jobs"
        sleep 0.1
    done
    timed "$1: removal" remove_old "$3"
    rm "$folder/go-on"
    wait "$jobs"
    [ "$(wc -l <"$folder/removed")" -eq $((tags / 4 * 4)) ]
    easctl "$3" tag export | grep -v '^[a-z]*,new' | cmp - <(grep -v '^[a-z]*,old' "$folder/tags.csv")
    easctl "$3" tag remove --all --yes >/dev/null
}

make_sqlite
make_mariadb
make_tags
remove sqlite sqlite sqlite
carry mariadb admin tags.csv
carry sqlite sqlite mariadb.csv
remove mariadb node admin
echo "$tags tags of four users: all files are equal"
