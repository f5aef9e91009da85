# What "cluster_client work" was told, in $work/told.N, held beside what the nodes hold. Sourced after
# servers.sh.
# shellcheck shell=bash

work=$EAS_SCRATCH/work
rows_of_a_tag=12  # the frequencies of the sample cluster

made() {
    cat "$work"/told.* | grep -c made || true
}

# What a node holds: name, rows, jobs that they come from; one tag a line.
tags_of() {
    sql "$1" "SET SESSION wsrep_sync_wait = 7;
        SELECT CONCAT(user_name, '/', energy_tag_name) AS name, COUNT(*), COUNT(DISTINCT job_id)
        FROM TQVN_EnergyPolicyTag GROUP BY user_name, energy_tag_name ORDER BY name"
}

# The tags that must be there, or must not, by the last word about each.
told() {
    awk -v wanted="$1" '{ last[$1] = $2 } END { for (tag in last) if (last[tag] == wanted) print tag }' \
        "$work"/told.* | sort
}

check_node() {
    local node=$1
    tags_of "$node" >"$work/$node"
    awk -v n="$rows_of_a_tag" '$2 != n || $3 != 1 { print; bad = 1 } END { exit bad }' "$work/$node" ||
        fail "parts of tags on $node"
    cut -f1 "$work/$node" | sort >"$work/$node.names"
    told made | comm -23 - "$work/$node.names" | grep . && fail "lost on $node"
    told gone | comm -12 - "$work/$node.names" | grep . && fail "back again on $node"
    cmp "$work/db1" "$work/$node" || fail "db1 and $node differ"
    echo "$node: $(wc -l <"$work/$node") tags, all whole; $(told made | wc -l) were reported and kept"
}
