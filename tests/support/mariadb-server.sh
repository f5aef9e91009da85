#!/bin/sh
# A private MariaDB server for the tests: on a socket only, in a scratch folder, gone at the end.
#
#   mariadb-server.sh start DIR   starts it; DIR/socket then holds the path of its socket
#   mariadb-server.sh stop DIR    ends it and removes what it wrote
#   mariadb-server.sh crash DIR   ends it without notice, its data stay
#   mariadb-server.sh resume DIR  starts it again on its data
#
# Where the server is not installed, start succeeds without a DIR/socket and the tests that need it
# skip. A server that nobody stops ends by itself after three hours.
set -eu

lifetime_s=10800
start_limit_s=60

usage() {
    echo "usage: $0 start|stop|crash|resume DIR" >&2
    exit 2
}

find_server() {
    for candidate in mariadbd /usr/sbin/mariadbd; do
        command -v "$candidate" && return
    done
    return 1
}

# Sends a signal to the process whose id stands in a file, and waits until it is gone.
end_process() {
    [ -f "$2" ] || return 0
    pid=$(cat "$2")
    # The id may have been given to another process since.
    grep -qs "$scratch" "/proc/$pid/cmdline" || return 0
    kill "$1" "$pid" 2>/dev/null || true
    waited=0
    while grep -qs "$scratch" "/proc/$pid/cmdline" && [ $waited -lt 300 ]; do
        sleep 0.1
        waited=$((waited + 1))
    done
}

# Ends the server of $dir, by the process id that start wrote down, and waits until it is gone.
stop() {
    [ -f "$dir/scratch" ] || return 0
    scratch=$(cat "$dir/scratch")
    end_process -TERM "$dir/pid"
    rm -rf "$scratch"
    rm -f "$dir/socket" "$dir/pid" "$dir/scratch"
}

# Nothing here outlives a crash of the machine, so nothing waits for the disk.
launch() {
    setsid timeout --kill-after=30 "$lifetime_s" "$server" --no-defaults --user="$(id -un)" \
        --datadir="$scratch/data" --socket="$scratch/sock" --pid-file="$scratch/pid" \
        --tmpdir="$scratch" --skip-networking --skip-log-bin --performance-schema=OFF \
        --innodb-buffer-pool-size=32M --innodb-log-file-size=16M --innodb-fast-shutdown=2 \
        --innodb-flush-log-at-trx-commit=0 --innodb-doublewrite=0 --innodb-flush-method=nosync \
        --key-buffer-size=1M --aria-pagecache-buffer-size=1M --table-open-cache=64 \
        --max-connections=500 \
        >"$scratch/server.log" 2>&1 </dev/null &
    echo $! >"$dir/pid"
}

await() {
    waited=0
    while [ ! -S "$scratch/sock" ]; do
        if [ $waited -ge $((start_limit_s * 10)) ] || ! kill -0 "$(cat "$dir/pid")" 2>/dev/null; then
            echo "the MariaDB server did not start:" >&2
            cat "$scratch/server.log" >&2
            stop
            exit 1
        fi
        sleep 0.1
        waited=$((waited + 1))
    done
}

start() {
    stop
    if ! server=$(find_server); then
        echo "MariaDB is not installed: the tests that need it are skipped"
        return 0
    fi
    mkdir -p "$dir"
    # Short, because the path of a socket may have 107 characters only.
    scratch=$(mktemp -d /tmp/eas-db.XXXXXX)
    echo "$scratch" >"$dir/scratch"
    if ! mariadb-install-db --no-defaults --user="$(id -un)" --datadir="$scratch/data" \
        --auth-root-authentication-method=normal --skip-test-db --tmpdir="$scratch" \
        >"$scratch/install.log" 2>&1; then
        cat "$scratch/install.log" >&2
        stop
        exit 1
    fi
    launch
    await
    echo "$scratch/sock" >"$dir/socket"
    echo "MariaDB is ready on $scratch/sock"
}

crash() {
    scratch=$(cat "$dir/scratch")
    end_process -KILL "$scratch/pid"
    end_process -TERM "$dir/pid"
    rm -f "$scratch/sock"
}

resume() {
    scratch=$(cat "$dir/scratch")
    server=$(find_server)
    launch
    await
}

[ $# -eq 2 ] || usage
dir=$2
case $1 in
    start) start ;;
    stop) stop ;;
    crash) crash ;;
    resume) resume ;;
    *) usage ;;
esac
