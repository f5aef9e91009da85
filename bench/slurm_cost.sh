#!/usr/bin/env bash
# What the Slurm plugin adds to a job's start and end on a node: medians beyond a plugin whose prolog
# and epilog are empty, with the connections to the database and the requests to the controller.
#
# usage: tests/slurm/cluster BUILD_FOLDER bench/slurm_cost.sh BUILD_FOLDER [RUNS]
#
# Slurm's own program that runs the callbacks is timed, each run a job of its own on an idle node.
set -euo pipefail
export LC_ALL=C

build=$(cd "$1" && pwd)
runs=${2:-20}
scratch=$EAS_CLUSTER_SCRATCH
plugstack=$scratch/etc/plugstack.conf
stepd=/usr/sbin/slurmstepd
cp "$build/lib/tampered.so" "$scratch/lib/empty.so"
cp "$stepd" "$scratch/bin/stepd"
cp "$plugstack" "$scratch/etc/eas"
cd /tmp

# Nodes that come up from here on have the stopwatch in the place of Slurm's program.
cat >"$scratch/bin/stopwatch" <<END
#!/bin/bash
[ "\$1" = spank ] || exec "$scratch/bin/stepd" "\$@"
begin=\${EPOCHREALTIME/./}
"$scratch/bin/stepd" "\$@"
status=\$?
echo "\$2 \$((\${EPOCHREALTIME/./} - begin))" >>"$scratch/times"
exit \$status
END
chmod 755 "$scratch/bin/stopwatch"
mount --bind "$scratch/bin/stopwatch" "$stepd"
for node in 6 7; do
    "$scratch/bin/start-node" "$node" &
done
until [ "$(sinfo -h -p many -n n6,n7 -N -o %T | grep -cx idle)" -eq 2 ]; do sleep 0.1; done
mariadb -e "set global log_output='TABLE'; set global general_log=on"

median() { # MOMENT
    sed -n "s/^$1 //p" "$scratch/times" | sort -n | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'
}
connections() {
    mariadb -N -e "select count(*) from mysql.general_log
        where command_type='Connect' and user_host like '%eas_node%'"
}
# A job alone makes these requests for its nodes.
requests() {
    sdiag | sed -nE 's/.*(JOB_INFO_SINGLE|UPDATE_JOB|UPDATE_NODE|NODE_INFO|NODE_INFO_SINGLE) .* count:([0-9]+) .*/\2/p' |
        awk "{ n += \$1 } END { print n + 0 }"
}

# row NAME NODES SECONDS OPTION...
row() {
    local name=$1 nodes=$2 seconds=$3 run count asked
    shift 3
    rm -f "$scratch/times"
    mariadb -e "truncate table mysql.general_log"
    sdiag -r >/dev/null
    for ((run = 0; run < runs; run++)); do
        runuser -u nobody -- srun -Q -p many -w "$nodes" "${@//RUN/$run}" sleep "$seconds" </dev/null
        while [ "$(sinfo -h -p many -n "$nodes" -N -o %T | sort -u)" != idle ]; do sleep 0.05; done
    done
    asked=$(requests)
    count=$(connections)
    : "${base_start:=$(median prolog)}" "${base_end:=$(median epilog)}"
    awk -v name="$name" -v s="$(median prolog)" -v e="$(median epilog)" -v a="$base_start" -v b="$base_end" \
        -v c="$count" -v q="$asked" -v n="$runs" 'BEGIN {
        printf "%-34s %9.1f ms %9.1f ms %8.1f %8.1f\n", name, (s - a) / 1e3, (e - b) / 1e3, c / n, q / n }'
}
arguments() { sed "s|\$| $*|" "$scratch/etc/eas" >"$plugstack"; }

printf '%-34s %12s %12s %8s %8s\n' "job under Slurm, median of $runs" start end connects requests
echo "optional $scratch/lib/empty.so" >"$plugstack"
row "an empty plugin" n6 0
arguments
row "no option" n6 0
row "first run: measured, makes a tag" n6 1.1 --energy-tag=tRUN --energy-policy=minimize_energy
row "further run: uses the tag" n6 0 --energy-tag=t0 --energy-policy=minimize_energy
row "the same on the first of two nodes" n6,n7 0 --energy-tag=t0 --energy-policy=minimize_energy
arguments record=accounting
row "one node, record in accounting" n6 0 --energy-tag=t0 --energy-policy=minimize_energy
