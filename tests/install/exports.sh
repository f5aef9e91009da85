#!/usr/bin/env bash
# Holds what the library exports against its version script: all of that, and nothing else.
#
# usage: exports.sh LIBRARY VERSION_SCRIPT
set -euo pipefail

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# Version nodes are symbols too (type A). A member function counts as its class.
nm -DC --defined-only --with-symbol-versions "$1" | awk '$2 != "A"' |
    sed -E 's/^[0-9a-f]+ . //; s/@@?EAS(NODE)?_[0-9.]+$//; s/\(.*//; s/^EnergyUtil::.*/EnergyUtil::*/' |
    sort -u >"$scratch/exported"
# A listed name is a line that ends in ";" before the catch-all of "local".
sed -E '/^[[:space:]]*local:/,/^\}/d; /;[[:space:]]*$/!d; s/[[:space:];]//g; /^\}/d' "$2" |
    sort -u >"$scratch/listed"
[ -s "$scratch/listed" ]
diff -u "$scratch/listed" "$scratch/exported"
