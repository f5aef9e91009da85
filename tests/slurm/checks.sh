# Sourced by the scripts that watch jobs on the cluster: jobs.sh (under the plugin) and hooks.sh (under
# "easctl job"). They define log_of JOB: the lines that were said of a job.
# shellcheck shell=bash disable=SC2034,SC2154
bin=$scratch/bin
out=$scratch/out
go=$scratch/go
held=$bin/held
idle="performance 2700000"
failures=0
mkdir "$out" "$go"
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

as() { runuser -u "$1" -- "${@:2}"; }
root_of() { echo "/proc/$(cat "$scratch/run/slurmd.$1.pid")/root"; }
sql() { mariadb -N eas -e "$1"; }
rows() { sql "select count(*) from TQVN_EnergyPolicyTag where $1"; }

# Governor and frequency of the node's CPUs: one line when they are alike.
setting() {
    local cpufreq
    for cpufreq in "$(root_of "$1")"/sys/devices/system/cpu/cpu[0-9]*/cpufreq; do
        echo "$(cat "$cpufreq/scaling_governor") $(cat "$cpufreq/scaling_cur_freq")"
    done | sort -u
}

# run NAME USER SRUN_OPTION... -- COMMAND...: output, the job's id first, in $out/NAME.all, exit code in $out/NAME.code
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
}
id_of() { head -n1 "$out/$1.all"; }
code_of() { cat "$out/$1.code"; }

# Polls until the command succeeds, or for so long that it never will.
patiently() { # COMMAND...
    local attempt
    for ((attempt = 0; attempt < 500; attempt++)); do
        ! "$@" || return 0
        sleep 0.05
    done
}

# Until no job is left, in whatever state.
settle() {
    wait
    patiently nothing_is_queued
    check "all jobs end" "" "$(squeue -h)"
}
nothing_is_queued() { # and the controller was not too busy to say so
    local queue
    queue=$(squeue -h) && [ -z "$queue" ]
}

becomes() { # WHAT NODE EXPECTED: the node's setting, sooner or later
    patiently is_set_to "$2" "$3"
    check "$1" "$3" "$(setting "$2")"
}
is_set_to() { [ "$(setting "$1")" = "$2" ]; }

running_on() { squeue -h -t R -w "$1" -o %i; }
has_begun() { [ -s "$out/$1.all" ]; }

# A job whose command is "$held" "$go/NAME" COMMAND... is there until it is let go.
let_go() { touch "${@/#/$go/}"; }
