#!/bin/sh
# The example of a node daemon, end to end: the library itself, a program of its own, a whole node.
#
# usage: daemon.sh FAKE-NODE NODE_DAEMON WORKLOAD
#
# Exit status 77 where there can be no fake node.
fake_node=$1
daemon=$2
workload=$3
output=$(mktemp)
trap 'rm -f "$output"' EXIT

# run FAKE-NODE OPTION... -- COMMAND: it must end with 0; what it prints is kept and shown.
run() {
    "$fake_node" "$@" >"$output" 2>&1
    status=$?
    cat "$output"
    [ "$status" -eq 0 ] || exit "$status"
}

prints() {
    grep -qE -e "$1" "$output" || {
        echo "not printed: $1"
        exit 1
    }
}

# About 0.8 instructions per cycle, as the workload's highest frequency has: a busy machine reads the
# two counters at different times. Then the sockets' temperature margin.
run --model 44 --workload "$workload" -- "$daemon" --interval 1 sleep 2
prints ' 0[.][78][0-9][0-9] .* 55[.]000 '

# A model without memory counters and temperature, a meter that starts again: dashes, and why.
run --model 46 -- "$daemon" sh -c 'echo 5 >/sys/devices/platform/qpx.1/energy1_input'
prints 'no memory traffic: .*models 42 and 46 .*/dev/mem'
prints 'no temperature: .*/dev/cpu/N/msr'
prints ' 0[.]000( +-){4}$'
