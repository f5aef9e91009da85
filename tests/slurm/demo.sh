#!/usr/bin/env bash
# Two runs of one job on the simulated cluster: measured, then under minimize_energy.
#
# usage: cluster BUILD_FOLDER demo.sh [SECONDS]
#
# SECONDS is the length of the work, 20 unless given.
set -euo pipefail
export LC_ALL=C

length=${1:-20}
log=$EAS_CLUSTER_SCRATCH/log/slurmd.n1.log
cd /tmp

# run OPTION...: shows the command, runs it as an ordinary user and waits for the epilog
run() {
    echo
    echo "\$ srun -w n1 $* ./work $length"
    runuser -u nobody -- srun -Q -w n1 "$@" "$EAS_CLUSTER_SCRATCH/bin/work" "$length" >/dev/null
    while [ -n "$(squeue -h)" ]; do sleep 0.05; done
    job=$((job + 1))
    sed -nE "s/^\[([^]]*)\] (.*eas: job $job: .*)/  slurmd: \2/p" "$log"
}

# Of the last job: joules and seconds.
figures() {
    sed -nE "s/.*eas: job $job: .* ([0-9.]+) J in ([0-9.]+) s.*/\1 \2/p" "$log"
}

echo "Slurm $(sinfo --version | sed 's/.* //'): $(sinfo -h -p whole -o '%D nodes, %T')"
job=0
run --energy-tag=solve
read -r joules seconds < <(figures)
run --energy-tag=solve --energy-policy=minimize_energy
read -r less longer < <(figures)
echo
printf 'default frequency  %8.1f J  %6.2f s\n' "$joules" "$seconds"
printf 'minimize_energy    %8.1f J  %6.2f s\n' "$less" "$longer"
awk -v a="$joules" -v b="$less" -v s="$seconds" -v t="$longer" \
    'BEGIN { printf "change             %+8.1f %%  %+6.1f %%\n", (b / a - 1) * 100, (t / s - 1) * 100 }'
