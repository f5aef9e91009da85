#!/usr/bin/env bash
# Makes the Debian packages, unpacks them into a clean root, and works there as a user of them would:
# builds the example against each kind of package file and runs it on a database of its own.
#
# usage: packages.sh BUILD_FOLDER
set -euo pipefail

build=$1
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
root=$scratch/root

fail() {
    echo "packages: $*" >&2
    exit 1
}

package() {
    ls "$scratch/packages/$1"_*.deb
}

# has PACKAGE FILE...: the package, and no other one, brings each of these files (patterns).
has() {
    local name=$1 file owners
    shift
    for file in "$@"; do
        owners=$(grep -lxE "/usr/$file" "$scratch"/files/* | xargs -rn1 basename | xargs)
        [ "$owners" = "$name" ] || fail "/usr/$file is in: $owners; should be in $name"
    done
}

# A pipe's last command reads it to its end: grep -q would not, and fail the one that still writes.

# field PACKAGE FIELD PATTERN
field() {
    dpkg-deb -f "$(package "$1")" "$2" | grep -E "$3" >/dev/null ||
        fail "$1: $2 does not say $3: $(dpkg-deb -f "$(package "$1")" "$2")"
}

echo "making the packages"
cpack --config "$build/CPackConfig.cmake" -B "$scratch/packages" \
    -D CPACK_DEBIAN_COMPRESSION_TYPE=gzip
mkdir -p "$root" "$scratch/files"
for deb in "$scratch"/packages/*.deb; do
    dpkg-deb -x "$deb" "$root"
    dpkg-deb -c "$deb" | grep -v '/$' | awk '{ print substr($6, 2) }' \
        >"$scratch/files/$(dpkg-deb -f "$deb" Package)"
done

echo "what is in them"
lib='lib(/[^/]+)?'
has libeas1 "$lib/libeas\.so\.1" "$lib/libeas\.so\.1\.[0-9.]+" 'share/doc/libeas1/copyright'
has libeasnode1 "$lib/libeasnode\.so\.1" "$lib/libeasnode\.so\.1\.[0-9.]+" \
    'share/doc/libeasnode1/copyright'
has libeas-dev "$lib/libeas(node)?\.so" "$lib/pkgconfig/eas(node)?\.pc" \
    "$lib/cmake/eas/eas-config\.cmake" 'include/eas/(interface|EasMisc|EnergyUtil|node)\.h' \
    'include/eas/node/(codes|frequency|meter|record|topology)\.h' 'share/eas/examples/(scheduler|node_meter)\.c' \
    'share/man/man3/eas_(initialize|remove_tag)\.3\.gz' 'share/doc/eas/developer-guide\.md'
has eas-tools 'share/eas/sql/(sqlite|mariadb)\.sql' 'share/eas/examples/odbc/cfgloc' \
    'share/man/man5/eas-thresholds\.5\.gz' 'share/doc/eas/administrator-guide\.md'
if [ -x "$build/bin/easctl" ]; then
    has eas-tools 'bin/easctl' 'share/man/man1/easctl\.1\.gz' \
        'share/bash-completion/completions/easctl' 'share/zsh/vendor-completions/_easctl'
    "$root/usr/bin/easctl" --version
fi
if grep -q '^EAS_SLURM_PLUGIN_DIR:' "$build/CMakeCache.txt"; then
    has libeas-slurm "$lib/slurm-wlm/eas\.so" 'share/doc/eas/slurm\.md'
    field libeas-slurm Depends "^libeas1 \(= .*slurm-wlm-basic-plugins \(>= [0-9]"
fi
has python3-eas 'lib/python3/dist-packages/eas/(node/)?__init__\.py' 'share/eas/openpbs/eas_hook\.py' \
    'share/doc/(python3-eas/README|eas/openpbs)\.md'
field python3-eas Architecture '^all$'
[ -z "$(sort "$scratch"/files/* | uniq -d)" ] || fail "a file is in two packages"
dangling=$(find "$root" -xtype l)
[ -z "$dangling" ] || fail "links that lead nowhere: $dangling"

echo "what they need"
field libeas1 Depends '(^|, )unixodbc-dev(,|$)'
field libeas1 Depends 'libc6 \(>='
field libeas1 Recommends 'libsqliteodbc \| odbc-mariadb'
field eas-tools Depends '(^|, )unixodbc-dev(,|$)'
version=$(dpkg-deb -f "$(package libeas1)" Version)
field libeas-dev Depends "^libeas1 \(= $version\), libeasnode1 \(= $version\)"
# The dependency is there for this one name.
dpkg -L unixodbc-dev | grep '/libodbc\.so$' >/dev/null || fail "unixodbc-dev has no libodbc.so"
# The solver that an administrator will use agrees; nothing is installed.
apt-get install --simulate --no-install-recommends "$scratch"/packages/*.deb
# Nor do recommendations bring a desktop's libraries to a node that has nothing yet.
apt-get install --simulate -o Dir::State::status=/dev/null \
    "$scratch"/packages/{libeas1,eas-tools}_*.deb >"$scratch/brought"
grep -E '^Inst eas-tools ' "$scratch/brought" >/dev/null || fail "eas-tools is not installed"
! grep -E '^Inst (gnuplot|libx11|groff)' "$scratch/brought" || fail "plots are a suggestion"
# Not for Debian's archive, so no bug is closed; and CPack always adds a call of ldconfig to the
# trigger that lintian asks for.
lintian --allow-root --fail-on error,warning --tag-display-limit 0 \
    --suppress-tags initial-upload-closes-no-bugs,maintscript-calls-ldconfig \
    "$scratch"/packages/*.deb

echo "the example, built against them"
libdir=$(dirname "$(find "$root" -name libeas.so.1)")
source=$root/usr/share/eas/examples/scheduler.c
read -ra flags <<<"$(PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config --cflags --libs eas)"
cc -std=c11 "$source" -o "$scratch/by-pkg-config" "-Wl,-rpath,$libdir" "${flags[@]}"
cmake -S "$(dirname "$0")/consumer" -B "$scratch/project" \
    -DCMAKE_PREFIX_PATH="$root/usr" -DC_CLIENT="$source"
cmake --build "$scratch/project"

echo "the example at work, on what the tools package brings"
cluster=$root/usr/share/eas/examples/cluster
"$cluster/load-sqlite" "$scratch/cluster"
# shellcheck disable=SC1091
. "$scratch/cluster/environment"
for program in "$scratch/by-pkg-config" "$scratch/project/client-c"; do
    ldd "$program" | grep -F "$root/usr/lib" >/dev/null ||
        fail "$program does not use the unpacked library"
    "$program" --thresholds "$cluster/thresholds.conf" --jobs "$cluster/jobs.csv" \
        >"$scratch/output" || fail "$program failed"
    grep -q minimize_energy "$scratch/output"
done

echo "the same cluster from Python"
PYTHONPATH=$root/usr/lib/python3/dist-packages LD_LIBRARY_PATH=$libdir /usr/bin/python3 -B -c "
import eas
eas.initialize('sample', 2300000, '$cluster/thresholds.conf')
print(eas.query_tag(), eas.node.topology())" | grep -F 'Topology(' >"$scratch/output"
