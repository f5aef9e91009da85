#!/usr/bin/env bash
# The sample prolog and epilog of examples/hooks on a cluster that does not load the plugin: what
# easctl job begin and end make of the same jobs.
#
# usage: cluster BUILD_FOLDER hooks.sh BUILD_FOLDER
set -uo pipefail

build=$(cd "$1" && pwd)
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
scratch=$EAS_CLUSTER_SCRATCH
log=$scratch/log/jobs.log
conf=$scratch/etc/job.conf
# shellcheck source=tests/slurm/checks.sh
. "$here/checks.sh"
log_of() { grep "^job $1:" "$log"; }

set_up_hooks() {
    local hook
    cp "$build/bin/easctl" "$scratch/bin"
    mkdir -m 700 "$scratch/share"
    sed -e 's|^cluster=.*|cluster=sample|; s|^limit=.*|limit=20|' -e "/^\(thresholds\|state\|record_file\)=/d" \
        "$here/../../examples/hooks/job.conf" >"$conf"
    printf '%s\n' "library=$scratch/lib/libeas.so" "node_library=$scratch/lib/libeasnode.so" \
        "thresholds=$scratch/etc/thresholds.conf" "state=$scratch/node/eas" \
        "odbcini=$scratch/data/odbc.ini" "odbcsysini=$scratch/data" \
        "record_file=$scratch/log/runs" >>"$conf"
    for hook in prolog epilog; do
        sed -e "s|^PATH=|export SLURM_CONF=$SLURM_CONF EAS_JOB_SHARE=$scratch/share; PATH=$scratch/bin:|" \
            -e "s|/etc/eas/job.conf|$conf|; s|/var/log/eas/jobs.log|$log|" \
            "$here/../../examples/hooks/slurm-$hook" >"$scratch/bin/$hook"
        chmod 755 "$scratch/bin/$hook"
    done
    : >"$scratch/etc/plugstack.conf"
    printf 'Prolog=%s/bin/prolog\nEpilog=%s/bin/epilog\n' "$scratch" "$scratch" >>"$SLURM_CONF"
    scontrol reconfigure
}

a_tag_is_made_and_then_used() {
    local wish=eas:tag=solve,policy=minimize_energy
    run first nobody -N1 -w n1 --comment="$wish" -- "$held" "$go/first" "$bin/work" 3
    settle
    check_log "first run" "$(id_of first)" 'measuring for tag "solve"' 'tag "solve" generated'
    check "first run: given back" "$idle" "$(setting n1)"
    run second nobody -N1 -w n1 --comment="$wish" -- "$held" "$go/second" "$bin/work" 2 &
    patiently has_begun second
    check "second run: lower than 2.3 GHz" 1 $(($(setting n1 | cut -d' ' -f2) < 2300000))
    let_go second
    settle
    check_log "second run" "$(id_of second)" 'minimize_energy of tag "solve"' 'frequency set back'
    becomes "second run: given back" n1 "$idle"
    check "records" "measured used" "$(sed 's/.*outcome=\([a-z]*\).*/\1/' "$scratch/log/runs" | xargs)"
}

what_fails_makes_no_tag() {
    run failing nobody -N1 -w n1 --comment=eas:tag=fails -- bash -c "$bin/work 2; false"
    # shellcheck disable=SC2016
    run hostile nobody -N1 -w n1 --comment='eas:tag=$(reboot);x' -- true
    settle
    check_log "failing" "$(id_of failing)" "not generated: the job ended with 1:0"
    check_log "hostile tag" "$(id_of hostile)" '--tag: .*ignored'
    check "only the good tag" 1 "$(sql "select count(distinct energy_tag_name) from TQVN_EnergyPolicyTag")"
    check "n1 is not drained" 0 "$(sinfo -h -n n1 -o %T | grep -c drain)"
}

nodes_agree_and_left_overs_are_given_back() {
    run both nobody -N2 -w n1,n2 --comment=eas:tag=solve,policy=minimize_energy -- "$held" "$go/both" true &
    patiently has_begun both
    check "both nodes run alike" "$(setting n1)" "$(setting n2)"
    check "both nodes run lower" 1 $(($(setting n2 | cut -d' ' -f2) < 2300000))
    mv "$scratch/bin/epilog" "$scratch/bin/epilog.away" # as if it had crashed
    printf '#!/bin/sh\n' >"$scratch/bin/epilog"
    chmod 755 "$scratch/bin/epilog"
    let_go both
    settle
    mv "$scratch/bin/epilog.away" "$scratch/bin/epilog"
    run next daemon -N1 -w n2 -- true
    settle
    check_log "next job" "$(id_of next)" "set back the frequency that job $(id_of both) left behind"
    becomes "n2 after the next job" n2 "$idle"
}

touch "$log"
let_go first
set_up_hooks
a_tag_is_made_and_then_used
what_fails_makes_no_tag
nodes_agree_and_left_overs_are_given_back
((failures == 0)) || cat "$log"
exit $((failures > 0))
