#!/usr/bin/env bash
# Holds the manual page and both completions of easctl against its --help: every command and every
# option that the one shows, the others have.
#
# usage: command_line.sh EASCTL MANUAL_PAGE BASH_COMPLETION ZSH_COMPLETION
set -euo pipefail

easctl=$1
page=$2
bash_completion=$3
zsh_completion=$4
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

problems=0
problem() {
    echo "$*" >&2
    problems=$((problems + 1))
}

# What each shell offers for the last of these words, one name per line.
in_bash() {
    bash -c '. "$1" && shift && COMP_WORDS=("$@") && COMP_CWORD=$(($# - 1)) && _easctl &&
        printf "%s\n" "${COMPREPLY[@]}"' - "$bash_completion" "$@"
}
# zsh's own functions, which need a terminal, are replaced by ones that print.
in_zsh() {
    zsh -fc '
        _describe() { while [[ $1 == -* ]]; do shift; done; print -l -- ${${(P)2}%%:*} }
        _files() { print -- files }
        compset() {}
        script=$1; shift
        words=("$@") CURRENT=$#
        . $script' - "$zsh_completion" "$@"
}

# check WORD...: a command, and all below it.
check() {
    local help=$scratch/help name below
    "$easctl" "$@" --help >"$help"
    grep -qE '^ +easctl |^Subcommands:' "$help" || problem "easctl $*: the help has no example"
    ! grep -q $'\033' "$help" || problem "easctl $*: the help has colours, but no terminal"
    sed -nE 's/^  (-[^ ]*).*/\1/p' "$help" | tr , '\n' >"$scratch/options"
    sed -nE '/^Subcommands:/,/^$/s/^  ([a-z][^ ]*).*/\1/p' "$help" >"$scratch/commands"
    in_bash easctl "$@" - >"$scratch/bash" && in_zsh easctl "$@" - >"$scratch/zsh"
    in_bash easctl "$@" '' >>"$scratch/bash" && in_zsh easctl "$@" '' >>"$scratch/zsh"
    while read -r name; do
        found=$((found + 1))
        for shell in bash zsh; do
            grep -qxe "$name" "$scratch/$shell" || problem "easctl $*: $shell does not offer $name"
        done
        [[ $name == -h || $name == --help ]] || section "$@" | grep -Fe "$name" >"$scratch/log" ||
            problem "easctl $*: the manual page has no $name"
    done < <(cat "$scratch/options" "$scratch/commands")
    mapfile -t below <"$scratch/commands"
    ((${#below[@]} > 0)) || [ "$(without <"$help")" = "$(section "$@" | without)" ] ||
        problem "easctl $*: the manual page differs in what is required, and in defaults"
    awk '/^Examples:/ { inside = 1; next } !NF { inside = 0 }
        inside && !/easctl / && !more { exit 1 } { more = /\\$/ }' "$help" ||
        problem "easctl $*: an example has no easctl"
    for name in "${below[@]}"; do
        check "$@" "$name"
    done
}

# What happens without each option, of a text that may break lines anywhere.
without() {
    tr -s ' \n' ' ' | grep -oE '\(required\)|\(default: [^)]*\)' | sort
}

# The part of the manual page about a command; for easctl and a group of commands all of it.
section() {
    awk -v title="   easctl $*" '
        $0 == title || index($0, title " ") == 1 { inside = 1; any = 1 }
        inside && /^(   easctl|[A-Z])/ && $0 != title && index($0, title " ") != 1 { inside = 0 }
        inside { print }
        { all = all "\n" $0 }
        END { if (!any) print all }' "$scratch/page"
}

mandoc -T lint -W warning "$page" || problem "$page: see above"
mandoc -T utf8 -O width=200 "$page" | col -bx >"$scratch/page"
found=0
check
((found > 8)) || problem "only $found commands and options were found"

# A value is not a command, listed values are offered, and behind "--" all is the command's own.
[ "$(in_bash easctl --color a | xargs)" = "auto always" ] || problem "bash: --color a"
[ "$(in_zsh easctl --color '' | xargs)" = "auto always never" ] || problem "zsh: --color"
[ "$(in_bash easctl model calibrate --kernels stream,sp | xargs)" = stream,sparse ] ||
    problem "bash: --kernels stream,sp"
in_zsh easctl model calibrate --kernels '' | grep -qx stencil || problem "zsh: --kernels"
[ "$(in_zsh easctl node sample -- '')" = files ] || problem "zsh: behind --"
((problems == 0)) && echo "$found commands and options agree"
