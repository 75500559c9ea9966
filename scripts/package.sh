#!/usr/bin/env bash
# Builds the Debian package vorsane-kiosk_<version>_<arch>.deb into ./dist, runs lintian on it and,
# as root, installs it into a throw-away Debian 12 chroot to check it (tests/package_check.sh;
# skip with NO_CHECK=1). Installs the build dependencies first.
# ARCH=arm64 (as root) cross-builds for another architecture inside a throw-away Debian 12 chroot,
# so the build machine gets no foreign packages, and checks the result under qemu.
set -euo pipefail
cd "$(dirname "$0")/.."
sudo_cmd=(); [ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
arch=${ARCH:-$(dpkg --print-architecture)}
cross=0; [ "$arch" = "$(dpkg --print-architecture)" ] || cross=1
if [ $cross = 1 ] && [ "$(id -u)" -ne 0 ]; then
    echo "ARCH=$arch builds in a chroot: run as root (sudo ARCH=$arch bash scripts/package.sh)" >&2
    exit 1
fi

tools=(dpkg-dev lintian)
[ $cross = 1 ] || tools+=(debhelper)
[ $cross = 0 ] && [ "${NO_CHECK:-0}" = 1 ] || tools+=(debootstrap file)
export DEBIAN_FRONTEND=noninteractive
if { [ $cross = 0 ] && ! dpkg-checkbuilddeps >/dev/null 2>&1; } \
    || ! dpkg-query -W "${tools[@]}" >/dev/null 2>&1; then
    "${sudo_cmd[@]}" apt-get update -qq
    "${sudo_cmd[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${tools[@]}" </dev/null
    [ $cross = 1 ] || "${sudo_cmd[@]}" env DEBIAN_FRONTEND=noninteractive apt-get build-dep -y -qq ./ </dev/null
fi

# Built from a copy, so the build leaves nothing in the source tree and its results (which
# dpkg-buildpackage writes next to the tree) stay inside build-deb/.
stage=$PWD/build-deb
rm -rf "$stage/vorsane-kiosk" "$stage"/*.deb "$stage"/*.changes "$stage"/*.buildinfo
mkdir -p "$stage/vorsane-kiosk" dist
tar --exclude='./build*' --exclude=./dist --exclude=./.git --exclude='./obj-*' -cf - . \
    | tar -xf - -C "$stage/vorsane-kiosk"

# debhelper gives the build its own HOME, so the compiler cache is named explicitly.
ccache_dir=
if command -v ccache >/dev/null; then
    ccache_dir=${CCACHE_DIR:-$HOME/.cache/ccache}
    export CCACHE_DIR=$ccache_dir CCACHE_BASEDIR=$stage
    export VORSANE_CMAKE_ARGS=-DCMAKE_CXX_COMPILER_LAUNCHER=ccache
fi

# Cross build: a Debian 12 chroot of this machine's architecture with $arch added, the cross
# compiler and the build dependencies for $arch; the results come back into $stage.
cross_build() {
    . scripts/debian-chroot.sh
    make_chroot buildd
    in_root dpkg --add-architecture "$arch"
    in_root apt-get update -qq || fail "apt-get update"
    in_root apt-get install -y -qq --no-install-recommends "crossbuild-essential-$arch" \
        ${ccache_dir:+ccache} >/dev/null || fail "cross compiler"
    mkdir -p "$root/build" && cp -a "$stage/vorsane-kiosk" "$root/build/"
    in_root sh -c 'cd /build/vorsane-kiosk && apt-get build-dep -y -qq --no-install-recommends \
        -a "$1" -P cross,nocheck ./' sh "$arch" >/dev/null || fail "build dependencies for $arch"
    local cache_env=()
    if [ -n "$ccache_dir" ]; then
        mkdir -p "$ccache_dir"
        bind_into "$ccache_dir" /ccache
        # The compiler is installed afresh in every chroot, so it is known by its contents.
        cache_env=(CCACHE_DIR=/ccache CCACHE_BASEDIR=/build CCACHE_COMPILERCHECK=content
            "VORSANE_CMAKE_ARGS=$VORSANE_CMAKE_ARGS")
    fi
    in_root env "${cache_env[@]}" DEB_BUILD_OPTIONS=nocheck DEB_BUILD_PROFILES="cross nocheck" \
        sh -c 'cd /build/vorsane-kiosk && nice -n 10 dpkg-buildpackage -a "$1" -b -us -uc -j"$2"' \
        sh "$arch" "$(nproc)" || fail "dpkg-buildpackage -a $arch"
    cp "$root"/build/*.deb "$root"/build/*.changes "$root"/build/*.buildinfo "$stage/"
}
if [ $cross = 1 ]; then
    (cross_build)
else
    (cd "$stage/vorsane-kiosk" && dpkg-buildpackage -b -us -uc -j"$(nproc)")
fi

version=$(dpkg-parsechangelog -S Version)
mv -f "$stage"/vorsane-kiosk*_"${version}"_"${arch}".* dist/
deb=dist/vorsane-kiosk_${version}_${arch}.deb
echo "Built $deb"

lintian --fail-on error "$PWD/dist/vorsane-kiosk_${version}_${arch}.changes"

if [ "${NO_CHECK:-0}" != 1 ]; then
    "${sudo_cmd[@]}" bash tests/package_check.sh "$deb"
fi
