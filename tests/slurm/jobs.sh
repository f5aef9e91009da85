#!/usr/bin/env bash
# Jobs of two ordinary users on the cluster, and what must come of each. What the plugin says to them and
# of them, in all, is jobs.transcript (but where only some SCENARIOS are wanted).
#
# usage: [SCENARIOS=...] cluster BUILD_FOLDER jobs.sh BUILD_FOLDER
set -uo pipefail

build=$(cd "$1" && pwd)
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
scratch=$EAS_CLUSTER_SCRATCH
lib=$scratch/lib
plugstack=$scratch/etc/plugstack.conf
cp "$build"/lib/{crashing,hanging,tampered}.so "$lib"
chmod -R a+rX "$lib"
# shellcheck source=tests/slurm/checks.sh
. "$here/checks.sh"
# shellcheck source=tests/slurm/site_scenarios.sh
. "$here/site_scenarios.sh"
log_of() { cat "$scratch"/log/slurmd.*.log | grep "eas: job $1:"; }

options_are_offered_and_checked() {
    local command runs
    while read -r command runs; do
        "$command" --help | grep -A1 -e --energy- >>"$out/told"
        as nobody "$command" --energy-tag='a b' "$runs" 2>>"$out/told" </dev/null
        check "$command: a blank in a tag" 1 $(($? != 0))
        as nobody "$command" --energy-tag=t --energy-policy=fast "$runs" 2>>"$out/told" </dev/null
        check "$command: an unknown policy" 1 $(($? != 0))
    done <<<$'srun true\nsbatch --wrap=true\nsalloc true'
    for tag in '' '../x' 'x"y' 'x;y' '%s' "$(printf 'x%.0s' {1..256})"; do
        printf '#!/bin/sh\n#SBATCH --energy-tag=%q\n' "$tag" >"$out/script"
        as nobody sbatch "$out/script" >>"$out/told" 2>&1
        check "#SBATCH --energy-tag=$tag is refused" 1 $(($? != 0))
    done
    check "nothing was submitted" "" "$(squeue -h)"
    run policy_alone nobody -w n1 --energy-policy=minimize_time -- true
    as nobody salloc -Q -w n2 srun -Q --energy-policy=minimize_time true 2>"$out/inner.err"
    settle
    check "a policy alone is no obstacle" 0 "$(code_of policy_alone)"
}

# What the tag predicts is what the simulated machine does: power at three frequencies, percent.
check_tag() { # USER TAG
    check "rows of $1's $2" 12 "$(rows "user_name='$1' and energy_tag_name='$2'")"
    while read -r khz watts _; do
        check "$1's $2 at $khz: power within a tenth of $watts" 1 "$(rows "user_name='$1' and
            energy_tag_name='$2' and frequency=$khz and abs(predict_power/$watts - 1) < 0.1")"
    done < <(grep -E '^(1200000|2300000|2700000) ' "$bin/sparse-solver.workload")
}

# The setting for minimize_energy of nobody's tag, "solve" if no other is named. Predicted run times are whole seconds, so
# it depends on how long the job took to start.
cheapest() {
    sql "select concat('userspace ', frequency) from TQVN_EnergyPolicyTag
        where user_name='nobody' and energy_tag_name='${1:-solve}' and frequency <= 2300000
        and perf_degrad_pct <= 0.05 order by energy_saving_pct limit 1"
}

measuring_runs_make_tags() {
    run both_1 nobody -w n1 --energy-tag=solve --energy-policy=minimize_energy -- \
        "$held" "$go/both_1" "$bin/work" 2 &
    run both_2 nobody -w n2 --energy-tag=solve --energy-policy=minimize_energy -- \
        "$held" "$go/both_2" "$bin/work" 2 &
    run unsupported nobody -w n4 --energy-tag=other -- "$held" "$go/unsupported" sleep 1.1 &
    run metered games -w n3 --energy-tag=solve --energy-policy=none -- \
        "$held" "$go/metered" "$bin/work" 2 &
    becomes "n1 measures at the default frequency" n1 "userspace 2300000"
    becomes "n2 measures at the default frequency" n2 "userspace 2300000"
    becomes "n3, whose driver has no governor for it, too" n3 "performance 2300000"
    becomes "n4 measures at the default frequency" n4 "userspace 2300000"
    let_go unsupported metered both_1 both_2
    settle
    check "n3 is set back" "$idle" "$(setting n3)"
    check_tag nobody solve
    check "the tag of n3's other meter" 1 "$(rows "user_name='games' and frequency=2300000 and
        abs(predict_power/1.2/260.3 - 1) < 0.1")"
    check "tags there are" 24 "$(rows 1)"
    check "the job on the unsupported node" 0 "$(code_of unsupported)"
}

# The meter's figures, on the node that needed most: of the same work in the job, and its mean power.
microjoules() { sed -n 's/^microjoules //p' "$out/$1.all" | sort -g | tail -n1; }
watts() { log_of "$(id_of "$1")" | sed -nE 's/.* J in .*mean ([0-9.]+) W.*/\1/p' | sort -g | tail -n1; }
is_a_saving() { # LESS MORE: by a tenth at least
    awk -v less="$1" -v more="$2" 'BEGIN { print (less > 0 && less < 0.9 * more) }'
}

policies_set_the_frequency() {
    local setting
    setting=$(cheapest)
    run energy nobody -N 2 -w n1,n2 --energy-tag=solve --energy-policy=minimize_energy -- \
        "$held" "$go/energy" "$bin/work" 2 &
    run "time" games -w n3 --energy-tag=solve --energy-policy=minimize_time -- \
        "$held" "$go/time" true &
    for node in n1 n2; do
        becomes "$node under minimize_energy" "$node" "$setting"
    done
    becomes "n3 under minimize_time" n3 "performance 2700000"
    let_go energy "time"
    settle
    check "n3 is set back" "$idle" "$(setting n3)"
    check "the work needs less energy than at the default frequency" 1 \
        "$(is_a_saving "$(microjoules energy)" "$(microjoules both_1)")"
    check "the plugin tells of less power than at the default frequency" 1 \
        "$(is_a_saving "$(watts energy)" "$(watts both_1)")"
}

jobs_that_end_otherwise() {
    local setting
    setting=$(cheapest)
    run cancelled nobody -w n1 --energy-tag=solve --energy-policy=minimize_energy -- sleep 60 &
    run failing nobody -w n2 --energy-tag=fails -- bash -c 'sleep 1.1; exit 3' &
    run plain games -w n3 --energy-policy=none -- "$held" "$go/plain" true &
    becomes "n1 before the cancellation" n1 "$setting"
    patiently has_begun cancelled
    cp "$(root_of n1)$scratch/node/eas/job-$(running_on n1)" "$out/left-over"
    patiently has_begun plain
    check "n3 with a plain job" "$idle" "$(setting n3)"
    let_go plain
    scancel -u nobody -w n1
    settle
    check "n1 after the cancellation" "$idle" "$(setting n1)"
    check "a failing job keeps its exit code" 3 "$(code_of failing)"
    check "records left behind" "" \
        "$(find "$(root_of n1)$scratch/node/eas" -name 'job-*')"
    # Cancelled with an exit code of 0, after what else would be a whole run; salloc is a whole one.
    run interrupted nobody -w n2 --energy-tag=half -- \
        bash -c 'trap "exit 0" TERM; sleep 1.1; echo begun; sleep 60 & wait' &
    as nobody salloc -Q -w n1 --energy-tag=interactive \
        srun -Q --energy-policy=minimize_time "$bin/work" 2 >"$out/salloc" 2>"$out/salloc.err" &
    patiently grep -qs begun "$out/interrupted.all"
    scancel -u nobody -w n2
    settle
    check "rows of a tag measured under salloc" 12 "$(rows "energy_tag_name='interactive'")"
}

# As after a crash: the record of a job that is over, and its frequency.
left_overs_are_set_back() {
    local state cpufreq
    state=$(root_of n1)$scratch/node/eas
    cp "$out/left-over" "$state/$(sed -nE '1s/^job ([0-9]+).*/job-\1/p' "$out/left-over")"
    sed '1s/^job [0-9]*/job 99999/' "$out/left-over" >"$state/job-99999"  # of which Slurm knows nothing
    for cpufreq in "$(root_of n1)"/sys/devices/system/cpu/cpu[0-9]*/cpufreq; do
        echo userspace >"$cpufreq/scaling_governor"
        echo 1200000 >"$cpufreq/scaling_setspeed"
    done
    run after_crash games -w n1 -- true
    settle
}

interrupted_runs_count_for_nothing() {
    local setting requeued
    setting=$(cheapest)
    printf '#!/bin/bash\nsleep 60\n' >"$out/script"
    requeued=$(as nobody sbatch --parsable --hold -o /dev/null -p many -N 2 -w n1,n6 \
        --energy-tag=solve --energy-policy=minimize_energy "$out/script")
    # As its former run left it, which was called off.
    scontrol update jobid="$requeued" \
        AdminComment="eas=1 job=$requeued start=1000000000 outcome=failed reason=former"
    scontrol release "$requeued"
    run suspended nobody -w n2 --energy-tag=paused -- "$held" "$go/suspended" sleep 1.1 &
    patiently has_begun suspended
    scontrol suspend "$(running_on n2)"
    for node in n6 n1; do
        becomes "$node before the job is requeued" $node "$setting"
    done
    scontrol requeue "$requeued"
    for node in n6 n1; do
        becomes "$node after the job is requeued" $node "$idle"
    done
    scancel "$requeued"
    scontrol resume "$(squeue -h -w n2 -o %i)"
    let_go suspended
    settle
}

other_wishes_are_respected() {
    local setting
    setting=$(cheapest)
    run own nobody -w n1 --cpu-freq=2000000 --energy-tag=solve --energy-policy=minimize_energy -- \
        "$held" "$go/own" true &
    run first nobody -p shared -n1 -w n2 --energy-tag=solve --energy-policy=minimize_energy -- \
        "$held" "$go/first" true &
    becomes "n2 with one job" n2 "$setting"
    run neighbour games -p shared -n1 -w n2 -- "$held" "$go/neighbour" true &
    becomes "n2 with somebody else's job" n2 "$idle"
    becomes "--cpu-freq on n1" n1 "userspace 2000000"
    let_go own first
    run refusing nobody -w n4 --energy-tag=refusing -- true  # see nodes_agree
    run sharing nobody -p shared -n1 -w n2 --energy-tag=solve --energy-policy=minimize_energy -- true
    check "n2 still with somebody else's job" "$idle" "$(setting n2)"
    let_go neighbour
    settle
}

# Each fault: an argument in plugstack.conf, before it "+" where a measured job meets it, too. Jobs do not
# notice.
faults_cost_no_job() {
    local number=0 measured argument start
    mkdir -m 755 "$scratch/open"
    while read -r measured argument; do
        settings "$argument"
        number=$((number + 1)) start=$SECONDS
        [ "$measured" = - ] || run "late_$number" nobody -w n2 --energy-tag=late -- sleep 1.1 &
        run "fault_$number" nobody -w n1 --energy-tag=solve --energy-policy=minimize_energy -- true
        settle
        check "exit code with $argument" 0 "$(code_of "fault_$number")"
        check "n1 with $argument" "$idle" "$(setting n1)"
        check "$argument: delayed by its limits, not for ever" 1 $((SECONDS - start <= 30))
    done <<END
+ library=/none/libeas.so
- library=$lib/crashing.so
- library=$lib/hanging.so limit=2
+ node_library=/none/libeasnode.so
- node_library=$lib/crashing.so
+ odbcini=/none odbcsysini=/none
- thresholds=/none
- cluster=100%s%n
- state=$scratch/open
- nonsense=%s%n
END
}

tampered_clients_are_checked_again() {
    local name='x" or "1"="1'
    sed "s|^PlugStackConfig=.*|PlugStackConfig=$out/tampered.conf|" "$SLURM_CONF" >"$out/slurm.conf"
    echo "optional $lib/tampered.so" >"$out/tampered.conf"
    SLURM_CONF=$out/slurm.conf TAMPERED_TAG=$name run tampered nobody -w n2 -- true
    settle
    check "a tampered client's job" 0 "$(code_of tampered)"
}

cp "$plugstack" "$out/plugstack"
for scenario in options_are_offered_and_checked measuring_runs_make_tags policies_set_the_frequency \
    site_defaults_serve_unchanged_scripts records_are_kept_beside_what_is_there \
    thirty_two_nodes_ask_once nodes_agree jobs_that_end_otherwise left_overs_are_set_back interrupted_runs_count_for_nothing \
    other_wishes_are_respected faults_cost_no_job \
    tampered_clients_are_checked_again; do
    [[ -z ${SCENARIOS:-} || " $SCENARIOS " == *" $scenario "* ]] || continue
    start=$SECONDS
    cp "$out/plugstack" "$plugstack"
    "$scenario"
    check "$scenario: drained nodes" "" "$(sinfo -h -N -p whole -t drain,drained,down,fail -o %N)"
    check "$scenario: n1 afterwards" "$idle" "$(setting n1)"
    echo "$scenario: $((SECONDS - start)) s"
done
# What the plugin said to users, and of the jobs on the first nodes, without what depends on the time.
said() {
    local node names
    (cd "$out" && grep -e energy ./*.err)
    names=$(for file in "$out"/*.all; do
        [ ! -s "$file" ] || printf 's/\\bjob %s\\b/%s/g\n' "$(head -n1 "$file")" "$(basename "$file" .all)"
    done)
    for node in n{1..6}; do
        sed -nE "s/^\[[^]]*\] (\[[0-9.]+\] )?(error: )?eas: /$node: \2/p" "$scratch/log/slurmd.$node.log"
    done | sed -E -e "$names" -e "s|$scratch|SCRATCH|g" -e 's/job 99999/of nobody/; s/\bjob [0-9]+/job N/g' \
        -e 's/\b[0-9]+\.[0-9] J in [0-9]+\.[0-9]{2} s, mean [0-9]+\.[0-9] W/FIGURES/g' \
        -e 's/predicted [0-9]+\.[0-9] J in [0-9]+ s/PREDICTED/' \
        -e 's/by [-+][0-9]+\.[0-9] %/by N %/; s/(1[0-9]|2[0-2])00000 kHz/LOW kHz/; s/seconds=.*joules=[0-9.]+/.../' \
        -e 's/=1[0-9]00000 /=LOW /; s/both_[12]/both/g; s/^n[12]: (.*\bboth\b)/n1 or n2: \1/' | sort
}
[ -n "${SCENARIOS:-}" ] || diff -u "$here/jobs.transcript" <(cat "$out/told" && said) || failures=$((failures + 1))
if ((failures > 0)); then
    cat "$scratch"/log/slurmd.*.log | grep -E 'eas:|spank'
    echo "$failures checks failed"
fi
((failures == 0))
