# Sourced by jobs.sh: what a site decides for all its jobs, the records of runs, jobs of several nodes.
# shellcheck shell=bash disable=SC2154,SC2034

# settings WORD...: behind those of plugstack.conf, until the next call
settings() {
    cp "$out/plugstack" "$plugstack"
    sed -i "s|\$| $*|" "$plugstack"
}

# The record that Slurm's accounting has of a job, once it has one.
record_of() {
    patiently has_record "$1"
    sacct -X -n -P -S now-1hour -j "$(id_of "$1")" -o AdminComment
}
has_record() { sacct -X -n -P -S now-1hour -j "$(id_of "$1")" -o AdminComment | grep -q outcome; }
figure() { sed -nE "s/.*eas=1 .*\b$2=([^ ]+).*/\1/p" <<<"$1"; } # RECORD WORD

# One script, never edited: measured, then used; an opt-out; a program that has changed.
site_defaults_serve_unchanged_scripts() {
    local first changed again
    settings record=accounting default_policy=minimize_energy tag=jobname
    for name in default_1 default_2 default_3; do
        run $name nobody -w n1 -J Nightly.Run -- "$bin/work" 2
        settle
    done
    run opted_out nobody -w n2 -J Nightly.Run --energy-policy=none -- true &
    run changed nobody -w n1 -J Nightly.Run -- "$bin/work" 1 &
    run nameless games -w n3 -J bash -- true &
    run shared games -p shared -n1 -w n4 -J Nightly.Run -- true &
    settle
    first=$(record_of default_1) changed=$(record_of changed)
    check "the first run" "measured Nightly.Run 2300000 rapl-perf,packages" \
        "$(for word in outcome tag frequency meter; do figure "$first" $word; done | xargs)"
    for again in default_2 default_3; do
        check "a further run" "used minimize_energy $(cheapest Nightly.Run | cut -d' ' -f2)" "$(for word in \
            outcome policy frequency; do figure "$(record_of $again)" $word; done | xargs)"
        check "a further run needs less" 1 "$(is_a_saving "$(microjoules $again)" "$(microjoules default_1)")"
    done
    check "the changed program shows in its record" 1 "$(is_a_saving "$(figure "$changed" joules)" \
        "$(figure "$changed" predicted_joules)")"
    check "jobs that are none of ours" "" \
        "$(log_of "$(id_of opted_out)"; log_of "$(id_of nameless)"; log_of "$(id_of shared)")"
    settings tag=jobname
    run by_name nobody -w n1 -J Nightly.Run --energy-policy=minimize_time -- true
    settle
    settings default_policy=minimize_time
    run by_default nobody -w n1 --energy-tag=Nightly.Run -- true
    settle
}

records_are_kept_beside_what_is_there() {
    local start
    settings record=accounting observe=yes
    run observed nobody -w n1 --energy-tag=solve --energy-policy=minimize_energy -- \
        "$held" "$go/observed" "$bin/work" 1 &
    run unobserved nobody -p shared -n1 -w n2 --energy-tag=solve -- true
    patiently has_begun observed
    check "nothing is set for an observed job" "$idle" "$(setting n1)"
    scontrol update jobid="$(id_of observed)" AdminComment='The site "says" 5|6; eas=0'
    let_go observed
    settle
    check "the record of an observed job" 'The site "says" 5|6; eas=0; eas=1 outcome=observed' \
        "$(record_of observed | grep -o '^.*outcome=[a-z]*')"
    check "one that shares its node is none" "" "$(log_of "$(id_of unobserved)")"
    settings record=file record_file="$scratch/runs"
    run in_file nobody -N 2 -w n1,n2 --energy-tag=solve --energy-policy=minimize_energy -- sleep 1.1
    settle
    check "the record in a file" 1 "$(grep -cE "^eas=1 cluster=sample job=$(id_of in_file) user=nobody \
start=[0-9.e+]+ outcome=used tag=solve " "$scratch/runs")"
    settings record=accounting limit=2
    kill -STOP "$(cat "$scratch/run/slurmdbd.pid")"
    run unheard nobody -w n1 --energy-tag=solve --energy-policy=minimize_energy -- sleep 1.1
    start=${EPOCHREALTIME/./}
    settle
    check "an accounting that hangs holds a node for its limit" 1 \
        $((${EPOCHREALTIME/./} - start < 4000000))
    kill -CONT "$(cat "$scratch/run/slurmdbd.pid")"
    check "n1 is set back" "$idle" "$(setting n1)"
}

# CPU 1 of a node takes no governor any more.
forbid() {
    local file
    file=$(root_of "$1")/sys/devices/system/cpu/cpufreq/policy1/scaling_governor
    rm "$file"
    echo '!EIO' >"$file"
}

# All nodes of a job run alike, or none is set.
nodes_agree() {
    settings record=accounting
    run gpu nobody -p many -w n5 --energy-tag=gpu -- sleep 1.1 &
    settle
    printf '%s\n' "default_frequency=2300000" "[fat]" "cluster=none" >"$scratch/etc/types"
    settings config="$scratch/etc/types"
    forbid n4
    run types nobody -p many -N 2 -w n3,n5 --energy-tag=types -- sleep 1.1 &
    settle
}
thirty_two_nodes_ask_once() {
    local number
    settings
    for number in {5..32}; do
        "$bin/start-node" "$number" &
        disown
    done
    patiently all_are_up
    mariadb -e "set global log_output='TABLE'; set global general_log=on"
    sdiag -r
    run large nobody -p many -N 32 --energy-tag=solve --energy-policy=minimize_energy -- \
        "$held" "$go/large" true &
    patiently has_begun large
    check "connections of 32 nodes" 2 "$(mariadb -N -e "select count(*) from mysql.general_log
        where command_type='Connect' and user_host like '%eas_node%'")"
    for number in 1 5 17 32; do
        check "n$number runs as all do" "$(cheapest | cut -d' ' -f2)" "$(setting n$number | cut -d' ' -f2)"
    done
    echo "requests at the start of 32 nodes: $(sdiag | sed -nE \
        's/.*(JOB_INFO_SINGLE|UPDATE_JOB|NODE_INFO).* count:([0-9]+).*/\1 \2/p' | xargs)"
    let_go large
    settle
}
all_are_up() { [ "$(sinfo -h -p many -N -o %T | grep -cx idle)" -eq 32 ]; }
