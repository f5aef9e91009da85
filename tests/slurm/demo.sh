#!/usr/bin/env bash
# One unchanged script, submitted three times on the simulated cluster: measured, then twice at the
# frequency that its tag suggests, with what was predicted beside what was measured.
#
# usage: cluster BUILD_FOLDER demo.sh [SECONDS]
#
# SECONDS is the length of the work, 57 unless given: tags hold whole seconds, what is beyond is cut
# off, and these are 59.01 s at the frequency that is selected.
set -euo pipefail
export LC_ALL=C

length=${1:-57}
script=$EAS_CLUSTER_SCRATCH/bin/job.sh
sed -i 's/$/ default_policy=minimize_energy tag=jobname record=accounting/' \
    "$EAS_CLUSTER_SCRATCH/etc/plugstack.conf"
printf '#!/bin/bash\n#SBATCH --job-name=solve --output=/dev/null\n%s %s\n' \
    "$EAS_CLUSTER_SCRATCH/bin/work" "$length" >"$script"
cd /tmp

# run NODE...: submits the script to each node, waits for the epilogs, shows what the plugin said
run() {
    local node
    for node in "$@"; do
        runuser -u nobody -- sbatch -Q -w "$node" "$script" >/dev/null
        jobs=$((jobs + 1))
    done
    while [ -n "$(squeue -h)" ]; do sleep 0.05; done
    for ((job = jobs - $# + 1; job <= jobs; job++)); do
        echo
        echo "\$ sbatch job.sh"
        cat "$EAS_CLUSTER_SCRATCH"/log/slurmd.*.log | sed -nE "s/^\[[^]]*\] eas: (job $job: .*)/  \1/p"
    done
}

# The word of a job's record in Slurm's accounting.
word() {
    sacct -X -n -P -S now-1hour -j "$1" -o AdminComment | sed -nE "s/.*eas=1 .*\b$2=([^ ]+).*/\1/p"
}

echo "Slurm $(sinfo --version | sed 's/.* //'), $(sinfo -h -p whole -o '%D simulated nodes')"
echo "plugstack.conf: default_policy=minimize_energy tag=jobname record=accounting"
echo "job.sh: #SBATCH --job-name=solve, and $length s of work at 2.3 GHz; no option of ours"
jobs=0
run n1
run n1 n2
echo
echo "In Slurm's accounting (sacct -X -o AdminComment):"
printf '%-4s %-9s %10s %10s %8s %12s %10s\n' job outcome kHz joules seconds 'predicted J' s
for job in 1 2 3; do
    printf '%-4s %-9s %10d %10.1f %8.2f' "$job" "$(word $job outcome)" "$(word $job frequency)" \
        "$(word $job joules)" "$(word $job seconds)"
    [ $job -eq 1 ] || printf ' %12.1f %10d' "$(word $job predicted_joules)" "$(word $job predicted_seconds)"
    echo
done
awk -v a="$(word 1 joules)" -v b="$(word 2 joules)" -v p="$(word 2 predicted_joules)" \
    -v s="$(word 1 seconds)" -v t="$(word 2 seconds)" -v q="$(word 2 predicted_seconds)" 'BEGIN {
    printf "Job 2 against job 1: energy %+.1f %%, run time %+.1f %%;", (b / a - 1) * 100, (t / s - 1) * 100
    printf " against its prediction: %+.1f %%, %+.1f %%\n", (b / p - 1) * 100, (t / q - 1) * 100 }'
