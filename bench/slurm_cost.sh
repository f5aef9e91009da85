#!/usr/bin/env bash
# What the Slurm plugin adds to a job's start and end on a node: medians beyond a plugin whose prolog
# and epilog are empty, the processes that they create, and of the whole job the connections to the
# database and the requests to the controller.
#
# usage: tests/slurm/cluster BUILD_FOLDER bench/slurm_cost.sh BUILD_FOLDER [RUNS]
#
# Slurm's own program that runs the callbacks is timed, each run a job of its own on an idle node. The
# processes are those of one more job, which is traced and not timed.
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
mkdir -m 777 "$scratch/traces"
cd /tmp

# Nodes that come up from here on have the stopwatch in the place of Slurm's program.
cat >"$scratch/bin/stopwatch" <<END
#!/bin/bash
[ "\$1" = spank ] || exec "$scratch/bin/stepd" "\$@"
[ ! -e "$scratch/tracing" ] || exec strace -D -f -qq -e signal=none -e trace=clone,clone3,fork,vfork,execve \
    -o "$scratch/traces/\$2.\$SLURMD_NODENAME" "$scratch/bin/stepd" "\$@"
begin=\${EPOCHREALTIME/./}
"$scratch/bin/stepd" "\$@"
status=\$?
echo "\$SLURMD_NODENAME.\$2 \$((\${EPOCHREALTIME/./} - begin))" >>"$scratch/times"
exit \$status
END
chmod 755 "$scratch/bin/stopwatch"
mount --bind "$scratch/bin/stopwatch" "$stepd"
for node in 6 7; do
    "$scratch/bin/start-node" "$node" &
done
until [ "$(sinfo -h -p many -n n6,n7 -N -o %T | grep -cx idle)" -eq 2 ]; do sleep 0.1; done
mariadb -e "set global log_output='TABLE'; set global general_log=on"

median() { # NODE.MOMENT
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
# The program's own start is no process of its own, and a thread is none.
processes() { # MOMENT.NODE
    grep -E '\b(clone|clone3|fork|vfork)\(' "$scratch/traces/$1" | grep -vcE 'CLONE_THREAD| = -1 ' || true
}
programs() { # MOMENT.NODE
    grep -E '\bexecve\(' "$scratch/traces/$1" | grep -vc ' = -1 ' || true
}

# job NODES SECONDS OPTION...: back when the nodes are idle again
job() {
    local nodes=$1 seconds=$2
    shift 2
    runuser -u nobody -- srun -Q -p many -w "$nodes" "$@" "$scratch/bin/work" "$seconds" </dev/null >/dev/null
    while [ "$(sinfo -h -p many -n "$nodes" -N -o %T | sort -u)" != idle ]; do sleep 0.05; done
}
traced_job() {
    touch "$scratch/tracing"
    job "$@"
    # What a job's start leaves behind for the job may end a moment after it.
    while pgrep -x strace >/dev/null; do sleep 0.05; done
    rm "$scratch/tracing"
}

# print_row NAME NODE CONNECTIONS REQUESTS: the empty plugin's, which is the first, are taken off
print_row() {
    local start end forked_start forked_end
    [ -s "$scratch/traces/prolog.$2" ] && [ -s "$scratch/traces/epilog.$2" ]
    start=$(median "$2.prolog") end=$(median "$2.epilog")
    forked_start=$(processes "prolog.$2") forked_end=$(processes "epilog.$2")
    : "${empty:=$start $end $forked_start $forked_end $(programs "prolog.$2") $(programs "epilog.$2")}"
    echo "$start $end $forked_start $forked_end $(programs "prolog.$2") $(programs "epilog.$2") $empty" |
        awk -v name="$1" -v connects="$3" -v requests="$4" -v n="$runs" '{
        printf "%-35s %7.1f ms %7.1f ms %6d %6d %9d %9.1f %9.1f\n", name, ($1 - $7) / 1e3, ($2 - $8) / 1e3,
            $3 - $9, $4 - $10, $5 - $11 + $6 - $12, connects / n, requests / n }'
}

# row NAME NODES SECONDS OPTION...: RUN in an option is the number of the run
row() {
    local name=$1 run count asked
    shift
    rm -f "$scratch/times" "$scratch/traces"/*
    mariadb -e "truncate table mysql.general_log"
    sdiag -r >/dev/null
    for ((run = 0; run < runs; run++)); do
        job "${@//RUN/$run}"
    done
    asked=$(requests)
    count=$(connections)
    traced_job "${@//RUN/$run}"
    print_row "$name" n6 "$count" "$asked"
    [ "$1" = n6 ] || print_row "the same on two nodes, the other" n7 "$count" "$asked"
}
arguments() { sed "s|\$| $*|" "$scratch/etc/eas" >"$plugstack"; }

printf '%-35s %10s %10s %13s %9s %9s %9s\n' "job under Slurm, median of $runs" start end "processes" \
    programs connects requests
echo "optional $scratch/lib/empty.so" >"$plugstack"
row "an empty plugin" n6 0
arguments
row "no option" n6 0
row "first run: measured, makes a tag" n6 2 --energy-tag=tRUN --energy-policy=minimize_energy
made=$(mariadb -N -e "select count(distinct energy_tag_name) from eas.TQVN_EnergyPolicyTag")
[ "$made" -eq $((runs + 1)) ] || {
    echo "slurm_cost: $made of $((runs + 1)) first runs have made a tag" >&2
    exit 1
}
row "further run: uses the tag" n6 2 --energy-tag=t0 --energy-policy=minimize_energy
row "the same on two nodes, the first" n6,n7 2 --energy-tag=t0 --energy-policy=minimize_energy
arguments record=accounting
row "one node, record in accounting" n6 2 --energy-tag=t0 --energy-policy=minimize_energy
