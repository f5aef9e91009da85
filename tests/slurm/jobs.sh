#!/usr/bin/env bash
# Jobs of two ordinary users on the cluster, and what must come of each.
#
# usage: cluster BUILD_FOLDER jobs.sh BUILD_FOLDER
set -uo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
build=$(cd "$1" && pwd)
plugstack=$CLUSTER/etc/plugstack.conf
out=$CLUSTER/out
idle="performance 2700000"
failures=0
mkdir "$out"
cd /tmp || exit 1

check() { # WHAT EXPECTED ACTUAL
    [ "$2" = "$3" ] && return
    printf 'FAILED %s\n  expected: %s\n  actual:   %s\n' "$@"
    failures=$((failures + 1))
}

check_log() { # WHAT JOB EXTENDED_REGEX...: each is one of the plugin's lines on the job
    local what=$1 job=$2 regex
    shift 2
    for regex in "$@"; do
        check "$what: log has \"$regex\"" 1 "$(log_of "$job" | grep -cE -e "$regex")"
    done
}

log_of() { cat "$CLUSTER"/log/slurmd.*.log | grep "eas: job $1:"; }
as() { runuser -u "$1" -- "${@:2}"; }
root_of() { echo "/proc/$(cat "$CLUSTER/run/slurmd.$1.pid")/root"; }
rows() { sqlite3 "$CLUSTER/data/eas.db" "select count(*) from TQVN_EnergyPolicyTag where $1"; }

# Governor and frequency of the node's CPUs: one line when they are alike.
setting() {
    local cpufreq
    for cpufreq in "$(root_of "$1")"/sys/devices/system/cpu/cpu[0-9]*/cpufreq; do
        echo "$(cat "$cpufreq/scaling_governor") $(cat "$cpufreq/scaling_cur_freq")"
    done | sort -u
}

# run NAME USER SRUN_OPTION... -- COMMAND...: job id in $out/NAME.id, exit code in $out/NAME.code
run() {
    local name=$1 user=$2 options=()
    shift 2
    while [ "$1" != -- ]; do
        options+=("$1")
        shift
    done
    shift
    # shellcheck disable=SC2016
    as "$user" srun -Q "${options[@]}" bash -c 'echo "$SLURM_JOB_ID"; exec "$@"' job "$@" \
        </dev/null >"$out/$name.all" 2>"$out/$name.err"
    echo $? >"$out/$name.code"
    head -n1 "$out/$name.all" >"$out/$name.id"
}
id_of() { cat "$out/$1.id"; }
code_of() { cat "$out/$1.code"; }

# Until no job is left, in whatever state.
settle() {
    local attempt
    for ((attempt = 0; attempt < 400; attempt++)); do
        if [ -z "$(squeue -h)" ]; then
            wait
            return
        fi
        sleep 0.05
    done
    check "all jobs end" "" "$(squeue -h)"
}

# The node's setting once it is the expected one, or what it still is after a while.
becomes() { # WHAT NODE EXPECTED
    local attempt
    for ((attempt = 0; attempt < 100; attempt++)); do
        [ "$(setting "$2")" != "$3" ] || return 0
        sleep 0.05
    done
    check "$1" "$3" "$(setting "$2")"
}

until_running() { # NODE...
    local node
    for node in "$@"; do
        until [ -n "$(squeue -h -t R -w "$node")" ]; do sleep 0.02; done
    done
}

options_are_offered_and_checked() {
    local command
    for command in srun sbatch salloc; do
        check "$command --help" 2 "$("$command" --help | grep -cE -- '--energy-(tag=NAME|policy=)')"
        as nobody "$command" --energy-tag='a b' true 2>"$out/refused"
        check "$command: a blank in a tag" 1 $(($? != 0))
        as nobody "$command" --energy-tag=t --energy-policy=fast true 2>"$out/refused"
        check "$command: an unknown policy" 1 $(($? != 0))
    done
    for tag in '' '../x'; do
        printf '#!/bin/sh\n#SBATCH --energy-tag=%q\n' "$tag" >"$out/script"
        as nobody sbatch "$out/script" >"$out/refused" 2>&1
        check "#SBATCH --energy-tag=$tag is refused" 1 $(($? != 0))
    done
    check "nothing was submitted" "" "$(squeue -h)"
}

# What the tag predicts is what the simulated machine does: power at three frequencies, percent.
check_tag() { # USER TAG
    check "rows of $1's $2" 12 "$(rows "user_name='$1' and energy_tag_name='$2'")"
    while read -r khz watts _; do
        check "$1's $2 at $khz: power within 3 % of $watts" 1 "$(rows "user_name='$1' and
            energy_tag_name='$2' and frequency=$khz and abs(predict_power/$watts - 1) < 0.03")"
    done < <(grep -E '^(1200000|2300000|2700000) ' "$here/sparse-solver.workload")
}

measuring_runs_make_tags() {
    printf '#!/bin/bash\n#SBATCH --energy-tag=solve\n#SBATCH -w n1\nsrun -Q %s/work 2\n' "$here" \
        >"$out/script"
    as nobody sbatch --parsable -o /dev/null "$out/script" >"$out/measured.id"
    run same_name games -w n2 --energy-tag=solve --energy-policy=none -- "$here/work" 2 &
    run unsupported nobody -w n3 --energy-tag=other -- sleep 2 &
    until_running n1 n2 n3
    for node in n1 n2 n3; do
        becomes "$node measures at the default frequency" "$node" "userspace 2300000"
    done
    settle
    check "n3 is set back" "$idle" "$(setting n3)"
    check_tag nobody solve
    check_tag games solve
    check "tags there are" 24 "$(rows 1)"
    check_log measured "$(id_of measured)" 'measuring for tag "solve" at 2300000 kHz' \
        ' [0-9.]+ J in .*tag "solve" generated'
    check_log unsupported "$(id_of unsupported)" \
        'tag "other" not generated: the counters of this node are not supported'
    check "the job with the unsupported processor" 0 "$(code_of unsupported)"
}

policies_set_the_frequency() {
    run energy nobody -N 2 -w n1,n2 --energy-tag=solve --energy-policy=minimize_energy -- \
        "$here/work" 2 &
    run "time" games -w n3 --energy-tag=solve --energy-policy=minimize_time -- sleep 2 &
    until_running n1 n2 n3
    # Predicted run times are whole seconds, so a job of two seconds is predicted to lose none.
    for node in n1 n2; do
        becomes "$node under minimize_energy" "$node" "userspace 1200000"
    done
    becomes "n3 under minimize_time" n3 "userspace 2700000"
    settle
    check "n3 is set back" "$idle" "$(setting n3)"
    check "both nodes say what they did" 2 "$(log_of "$(id_of energy)" |
        grep -c 'minimize_energy of tag "solve": 1200000 kHz')"
}

jobs_that_end_otherwise() {
    run cancelled nobody -w n1 --energy-tag=solve --energy-policy=minimize_energy -- sleep 60 &
    run failing nobody -w n2 --energy-tag=fails -- bash -c 'sleep 1.1; exit 3' &
    run plain games -w n3 -- sleep 1 &
    until_running n1 n2 n3
    becomes "n1 before the cancellation" n1 "userspace 1200000"
    cp "$(root_of n1)$CLUSTER/node/eas/job-$(id_of_running n1)" "$out/left-over"
    check "n3 with a plain job" "$idle" "$(setting n3)"
    scancel -u nobody -w n1
    settle
    check "n1 after the cancellation" "$idle" "$(setting n1)"
    check "a failing job keeps its exit code" 3 "$(code_of failing)"
    check_log failing "$(id_of failing)" 'tag "fails" not generated: the job failed'
    check "a plain job is not mentioned" "" "$(log_of "$(id_of plain)")"
    check "records left behind" "" \
        "$(find "$(root_of n1)$CLUSTER/node/eas" -name 'job-*')"
    # Cancelled with an exit code of 0, after what else would be a whole run; salloc is a whole one.
    run interrupted nobody -w n2 --energy-tag=half -- \
        bash -c 'trap "exit 0" TERM; sleep 60 & wait' &
    as nobody salloc -Q -w n1 --energy-tag=interactive srun -Q "$here/work" 1 &
    until [ -s "$out/interrupted.all" ]; do sleep 0.02; done
    sleep 1.1
    scancel -u nobody -w n2
    settle
    check_log interrupted "$(id_of interrupted)" 'tag "half" not generated: the job was cancelled'
    check "rows of a tag measured under salloc" 12 "$(rows "energy_tag_name='interactive'")"
}
id_of_running() { squeue -h -t R -w "$1" -o %i; }

# As after a crash: the record of a job that is over, and its frequency.
left_overs_are_set_back() {
    local state cpufreq
    state=$(root_of n1)$CLUSTER/node/eas
    cp "$out/left-over" "$state/$(sed -nE '1s/^job ([0-9]+).*/job-\1/p' "$out/left-over")"
    for cpufreq in "$(root_of n1)"/sys/devices/system/cpu/cpu[0-9]*/cpufreq; do
        echo userspace >"$cpufreq/scaling_governor"
        echo 1200000 >"$cpufreq/scaling_setspeed"
    done
    run after_crash games -w n1 -- true
    settle
    check_log after_crash "$(id_of after_crash)" 'set back the frequency that job [0-9]+ left behind$'
}

other_wishes_are_respected() {
    run own nobody -w n1 --cpu-freq=2000000 --energy-tag=solve --energy-policy=minimize_energy -- \
        bash -c 'sleep 0.3; cat /sys/devices/system/cpu/cpu0/cpufreq/scaling_cur_freq' &
    run first nobody -p shared -n1 -w n2 --energy-tag=solve --energy-policy=minimize_energy -- sleep 1 &
    becomes "n2 with one job" n2 "userspace 1200000"
    run neighbour games -p shared -n1 -w n2 -- sleep 3 &
    becomes "n2 with somebody else's job" n2 "$idle"
    echo 2000000 >"$(root_of n3)/sys/devices/system/cpu/cpu1/cpufreq/scaling_max_freq"
    run clamped nobody -w n3 --energy-tag=clamped -- true
    run sharing nobody -p shared -n1 -w n2 --energy-tag=solve --energy-policy=minimize_energy -- true
    check "n2 still with somebody else's job" "$idle" "$(setting n2)"
    settle
    check_log neighbour "$(id_of neighbour)" 'set back the frequency of running job [0-9]+$'
    check_log first "$(id_of first)" ' J in .*; job [0-9]+ ran on the node at the same time'
    check_log clamped "$(id_of clamped)" 'tag "clamped" not generated: CPU 1 does not run at 2300000' \
        'CPU 1 does not run at 2300000 kHz but at 2000000 kHz; frequency left as it is'
    check "n3 within its limits" "performance 2000000 performance 2700000" "$(setting n3 | xargs)"
    check "--cpu-freq holds" 2000000 "$(tail -n1 "$out/own.all")"
    check_log own "$(id_of own)" 'asks for a frequency of its own \(--cpu-freq\); ours is set back'
    check_log sharing "$(id_of sharing)" 'job [0-9]+ runs on this node too; frequency left as it is'
}

# Each fault: an argument in plugstack.conf, the reason in the log, and what a measured job says of
# its tag. Jobs do not notice.
faults_cost_no_job() {
    local argument reason no_tag start
    cp "$plugstack" "$out/plugstack"
    mkdir -m 755 "$CLUSTER/open"
    while IFS='|' read -r argument reason no_tag; do
        sed "s|\$| $argument|" "$out/plugstack" >"$plugstack"
        start=$SECONDS
        [ -z "$no_tag" ] || run measuring nobody -w n2 --energy-tag=late -- sleep 1.1 &
        run fault nobody -w n1 --energy-tag=solve --energy-policy=minimize_energy -- true
        settle
        check "exit code with $argument" 0 "$(code_of fault)"
        check_log "$argument" "$(id_of fault)" "$reason"
        [ -z "$no_tag" ] ||
            check_log "$argument" "$(id_of measuring)" "error: .*tag \"late\" not generated: $no_tag"
        check "n1 with $argument" "$idle" "$(setting n1)"
        check "$argument: delayed by the limits of 3 s at most" 1 $((SECONDS - start <= 8))
    done <<END
library=/none/libeas.so|error: .*cannot open shared object file|/none/libeas.so: cannot open
library=$build/lib/crashing.so|error: .*library crashed|the energy meter was not read at the job's start
library=$build/lib/hanging.so limit=1|error: .*no answer within 1 s|the energy meter was not read
odbcini=/none odbcsysini=/none|error: .*no connection to the database|no connection to the database
thresholds=/none|error: .*the threshold file is missing or has no entry
cluster=unknown|error: .*no coefficients for this cluster and default frequency
state=$CLUSTER/open|error: .*must belong to root, mode 0700
nonsense=1|"nonsense=1" is not understood
END
    cp "$out/plugstack" "$plugstack"
}

tampered_clients_are_checked_again() {
    local name='x" or "1"="1'
    sed "s|^PlugStackConfig=.*|PlugStackConfig=$out/tampered.conf|" "$SLURM_CONF" >"$out/slurm.conf"
    echo "optional $build/lib/tampered.so" >"$out/tampered.conf"
    SLURM_CONF=$out/slurm.conf TAMPERED_TAG=$name run tampered nobody -w n2 -- true
    settle
    check "a tampered client's job" 0 "$(code_of tampered)"
    check_log tampered "$(id_of tampered)" '--energy-tag: its value is not allowed; ignored'
}

for scenario in options_are_offered_and_checked measuring_runs_make_tags policies_set_the_frequency \
    jobs_that_end_otherwise left_overs_are_set_back other_wishes_are_respected faults_cost_no_job \
    tampered_clients_are_checked_again; do
    start=$SECONDS
    "$scenario"
    check "$scenario: drained nodes" "" "$(sinfo -h -N -p whole -t drain,drained,down,fail -o %N)"
    check "$scenario: n1 and n2 afterwards" "$idle" "$({ setting n1 && setting n2; } | sort -u)"
    echo "$scenario: $((SECONDS - start)) s"
done
check "tags there are in the end" 36 "$(rows 1)"
if ((failures > 0)); then
    cat "$CLUSTER"/log/slurmd.*.log | grep -E 'eas:|spank'
    echo "$failures checks failed"
fi
((failures == 0))
