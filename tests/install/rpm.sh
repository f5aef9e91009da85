#!/usr/bin/env bash
# Makes the RPM packages of what is built already, installs them with dnf into an empty root beside
# stand-ins for the distribution's packages, uses them there, and removes them again.
#
# usage: rpm.sh SOURCE_FOLDER BUILD_FOLDER
set -euo pipefail

# Scriptlets run in the root: that takes root, or a namespace where one is it.
[ "$(id -u)" -eq 0 ] || exec unshare -r "$0" "$@"

source=$1
build=$2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
root=$scratch/root
repository=$scratch/repository

fail() {
    echo "rpm: $*" >&2
    exit 1
}

# The preset's own configuration, on the binaries of another build: only places differ.
make_packages() {
    local options=() made
    [ -e "$build/lib/eas.so" ] || options=(-DEAS_BUILD_SLURM=OFF)
    (cd "$source" && cmake --preset rpm -B "$scratch/build" -DEAS_BUILD_EXAMPLES=OFF "${options[@]}")
    for made in lib bin man completion; do
        rm -rf "${scratch:?}/build/$made"
        ln -s "$build/$made" "$scratch/build/$made"
    done
    cpack --config "$scratch/build/CPackConfig.cmake" -B "$repository" -D CPACK_THREADS=2
    rm -rf "$repository/_CPack_Packages"
}

# stand_in NAME VERSION LINE...: a package of that name, with lines of its spec file's head, and the
# files below $scratch/NAME, which are the host's.
stand_in() {
    local name=$1 version=$2
    shift 2
    mkdir -p "$scratch/$name"
    {
        printf '%s\n' "Name: $name" "Version: $version" "Release: 1" "Summary: Stand-in" "License: MIT" \
            "AutoReqProv: no" "$@" "%description" "Stand-in." "%files"
        (cd "$scratch/$name" && find . ! -type d | sed 's/^\./"/; s/$/"/')
    } >"$scratch/$name.spec"
    rpmbuild -bb --quiet --define "_topdir $scratch/rpmbuild" --define "_rpmdir $repository" \
        --define "_rpmfilename %{name}.rpm" --define "__spec_install_post %{nil}" \
        --buildroot "$scratch/$name" "$scratch/$name.spec"
}

# What the packages ask of the C and C++ libraries, and which commands, by the names of these.
asked_of_the_base() {
    local package
    for package in "$repository"/*eas*.rpm; do
        rpm -qp --requires "$package"
    done | grep -E '^((lib(c|m|gcc_s|stdc\+\+)|ld-linux-x86-64|rtld)[.(]|/)' | sort -u | sed 's/^/Provides: /'
}

copy_of_host() {
    local name=$1 file
    shift
    for file in "$@"; do
        install -D -m 755 "$(realpath "$file")" "$scratch/$name/$file"
    done
}

make_stand_ins() {
    local libraries provides
    mapfile -t libraries < <(ldd "$build/bin/easctl" /bin/sh | sed -nE 's/.*=> (\S+) .*/\1/p' | sort -u)
    copy_of_host basesystem /bin/sh /sbin/ldconfig /lib64/ld-linux-x86-64.so.2 "${libraries[@]}"
    install -d "$scratch/basesystem/etc"
    echo /usr/lib64 >"$scratch/basesystem/etc/ld.so.conf"
    mapfile -t provides < <(asked_of_the_base)
    stand_in basesystem 1 "${provides[@]}"
    stand_in unixODBC-devel 2.3.9 "Provides: unixODBC-devel(x86-64)"
    stand_in python3 3.9.18 "Provides: python(abi) = 3.9"
    [ -z "$slurm_release" ] || stand_in slurm "$slurm_release.8"
}

in_root() {
    dnf --installroot "$root" --releasever 9 --repofrompath "eas,file://$repository" --repo eas \
        --nogpgcheck --assumeyes --quiet --setopt "cachedir=$scratch/cache" \
        --setopt "logdir=$scratch" --setopt install_weak_deps=True "$@"
}

make_packages >"$scratch/log" 2>&1 || {
    cat "$scratch/log"
    fail "cannot make them"
}
names=(libeas libeasnode libeas-devel eas-tools python3-eas)
[ ! -e "$build/lib/eas.so" ] || names+=(eas-slurm)
for name in "${names[@]}"; do
    ls "$repository/$name"-[0-9]*.rpm
done
rpmlint -c "$source/packaging/rpm/rpmlint.toml" "$repository"/*.rpm | tee "$scratch/lint"
grep -q ' 0 errors, 0 warnings' "$scratch/lint" || fail "rpmlint, see above"
[ ! -e "$build/lib/eas.so" ] ||
    [ "$(rpm -qp --qf '%{license}' "$repository"/eas-slurm-*.rpm)" = 'MIT AND GPL-2.0-or-later' ] ||
    fail "eas-slurm: another licence"

slurm_release=
[ ! -e "$build/lib/eas.so" ] ||
    slurm_release=$(rpm -qp --requires "$repository"/eas-slurm-*.rpm | sed -n 's/^slurm >= //p')
make_stand_ins
createrepo_c --quiet "$repository"
in_root install "${names[@]}"

echo "installed"
rpm --root "$root" --verify "${names[@]}" || fail "files are not as they were packed"
for file in lib64/libeas.so.1 lib64/libeasnode.so lib64/pkgconfig/eas.pc lib64/cmake/eas/eas-config.cmake \
    lib/python3.9/site-packages/eas/__init__.py share/licenses/libeas/LICENSE \
    share/zsh/site-functions/_easctl share/eas/sql/sqlite.sql share/eas/openpbs/eas_hook.py; do
    [ -e "$root/usr/$file" ] || fail "no /usr/$file"
done
[ ! -e "$build/lib/eas.so" ] || [ -x "$root/usr/lib64/slurm/eas.so" ] || fail "no plugin"
grep -q '^libdir=.*lib64$' "$root/usr/lib64/pkgconfig/eas.pc" || fail "eas.pc names another folder"
chroot "$root" /sbin/ldconfig -p | grep -q 'libeas\.so\.1 .*/usr/lib64/libeas\.so\.1$' ||
    fail "ldconfig has not run"
chroot "$root" /usr/bin/easctl --version
rpm --root "$root" --erase --test unixODBC-devel ${slurm_release:+slurm} >"$scratch/needed" 2>&1 && fail "none is needed"
grep -q 'needed by .*libeas-' "$scratch/needed" || fail "libeas does not need unixODBC-devel"
[ ! -e "$build/lib/eas.so" ] || grep -q 'slurm < [0-9.]*99 is needed by' "$scratch/needed" ||
    fail "the plugin takes any release of Slurm"

echo "removed"
in_root remove --setopt clean_requirements_on_remove=False "${names[@]}"
left=$(find "$root/usr" "$root/etc" -name '*eas*' -o -name '*.rpmsave')
[ -z "$left" ] || fail "left behind: $left"
! chroot "$root" /sbin/ldconfig -p | grep libeas || fail "ldconfig has not run again"
