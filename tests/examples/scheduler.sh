#!/usr/bin/env bash
# Runs the scheduler example as a newcomer would, on a scratch database of the sample cluster.
#
# usage: scheduler.sh SOURCE_FOLDER SCHEDULER [VALGRIND]
set -euo pipefail

cluster=$1/examples/cluster
scheduler=$2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

fail() {
    echo "$*" >&2
    exit 1
}

# run EXPECTED_EXIT_CODE OPTION...: output in $scratch/out and $scratch/err
run() {
    local expected=$1 code=0
    shift
    "${runner[@]}" "$scheduler" "$@" >"$scratch/out" 2>"$scratch/err" || code=$?
    [ "$code" -eq "$expected" ] || {
        cat "$scratch/out" "$scratch/err"
        fail "$*: exit code $code instead of $expected"
    }
}

stored_rows() {
    sqlite3 "$scratch/cluster/eas.db" 'select count(*) from TQVN_EnergyPolicyTag'
}

runner=()
# The driver manager stays mapped, so that what it remembers of odbc.ini is not taken for a leak.
[ -z "${3:-}" ] ||
    runner=(env LD_PRELOAD=libodbc.so.2 "$3" --quiet --leak-check=full
        "--show-leak-kinds=definite,indirect,possible"
        "--errors-for-leak-kinds=definite,indirect,possible" --error-exitcode=99
        "--suppressions=$1/tests/support/valgrind.supp")

"$cluster/load-sqlite" "$scratch/cluster"
# shellcheck disable=SC1091
. "$scratch/cluster/environment"
files=(--thresholds "$cluster/thresholds.conf" --jobs "$cluster/jobs.csv")

run 0 "${files[@]}" --show weather --keep-tags
[ "$(stored_rows)" -eq 72 ] || fail "$(stored_rows) rows stored instead of 6 tags of 12"
# The tags are still there, so a second run can make none and must take none away.
run 1 "${files[@]}"
grep -q 'this user has a tag of that name already (-6)' "$scratch/err"
[ "$(stored_rows)" -eq 72 ] || fail "a refused run removed tags of others"
sqlite3 "$scratch/cluster/eas.db" 'delete from TQVN_EnergyPolicyTag'
run 0 "${files[@]}" --all
[ "$(stored_rows)" -eq 0 ] || fail "tags stay behind"

run 1 "${files[@]}" --cluster nowhere
grep -q 'no coefficients for this cluster and default frequency (-3)' "$scratch/err"
run 1 "${files[@]}" --thresholds "$scratch/none"
run 1 --jobs "$scratch/none"
printf 'header\nfft,anna,t,1,1e12,oops,1e9,10,100\n' >"$scratch/bad.csv"
run 1 --jobs "$scratch/bad.csv"
grep -q 'bad.csv:2: not a job' "$scratch/err"
run 2 --nonsense
run 0 --help
