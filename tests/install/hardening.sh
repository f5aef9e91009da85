#!/usr/bin/env bash
# Holds the built library against the hardening that its build asks for.
#
# usage: hardening.sh LIBRARY
set -euo pipefail

library=$1
problems=0
problem() {
    echo "$library: $*" >&2
    problems=$((problems + 1))
}

# has PATTERN COMMAND...: the command prints a line of that pattern about the library.
has() {
    local pattern=$1
    shift
    "$@" "$library" | grep -E "$pattern" >/dev/null
}

has 'GNU_RELRO' readelf -lW || problem "no read-only relocations"
has 'BIND_NOW' readelf -dW || problem "not bound at load time"
has 'GNU_STACK.* RW ' readelf -lW || problem "its stack may be executed"
has ' __stack_chk_fail' nm -D || problem "no stack protector"
has ' __v?snprintf_chk' nm -D || problem "library calls are not checked (fortify)"
has 'endbr64' objdump -d || problem "no landing pads for indirect branches"
! has 'TEXTREL' readelf -dW || problem "writes to its code"
# One entry is the compiler's own.
has '\.init_array +INIT_ARRAY +[0-9a-f]+ [0-9a-f]+ 000008 ' readelf -SW ||
    problem "runs code of its own when it is loaded"
! has ' __cxa_atexit' nm -D || problem "a static object of it is destroyed when the process ends"
! has 'RPATH|RUNPATH' readelf -dW || problem "looks for libraries in folders of its own"
! has '^/.*\.cpp$' strings -a || problem "names folders of the machine that built it"
((problems == 0))
