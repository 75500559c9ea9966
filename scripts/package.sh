#!/usr/bin/env bash
# Builds the Debian package vorsane-kiosk_<version>_<arch>.deb into ./dist, runs lintian on it and,
# as root, installs it into a throw-away Debian 12 chroot to check it (tests/package_check.sh;
# skip with NO_CHECK=1). Installs the build dependencies first.
set -euo pipefail
cd "$(dirname "$0")/.."
sudo_cmd=(); [ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)

tools=(debhelper dpkg-dev lintian)
[ "${NO_CHECK:-0}" = 1 ] || tools+=(debootstrap)
export DEBIAN_FRONTEND=noninteractive
if ! dpkg-checkbuilddeps >/dev/null 2>&1 || ! dpkg-query -W "${tools[@]}" >/dev/null 2>&1; then
    "${sudo_cmd[@]}" apt-get update -qq
    "${sudo_cmd[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${tools[@]}" </dev/null
    "${sudo_cmd[@]}" env DEBIAN_FRONTEND=noninteractive apt-get build-dep -y -qq ./ </dev/null
fi

# Built from a copy, so the build leaves nothing in the source tree and its results (which
# dpkg-buildpackage writes next to the tree) stay inside build-deb/.
stage=$PWD/build-deb
rm -rf "$stage/vorsane-kiosk" "$stage"/*.deb "$stage"/*.changes "$stage"/*.buildinfo
mkdir -p "$stage/vorsane-kiosk" dist
tar --exclude='./build*' --exclude=./dist --exclude=./.git --exclude='./obj-*' -cf - . \
    | tar -xf - -C "$stage/vorsane-kiosk"

# debhelper gives the build its own HOME, so the compiler cache is named explicitly.
if command -v ccache >/dev/null; then
    export CCACHE_DIR=${CCACHE_DIR:-$HOME/.cache/ccache} CCACHE_BASEDIR=$stage
    export VORSANE_CMAKE_ARGS=-DCMAKE_CXX_COMPILER_LAUNCHER=ccache
fi
(cd "$stage/vorsane-kiosk" && dpkg-buildpackage -b -us -uc -j"$(nproc)")

version=$(dpkg-parsechangelog -S Version)
arch=$(dpkg-architecture -qDEB_HOST_ARCH)
mv -f "$stage"/vorsane-kiosk*_"${version}"_"${arch}".* dist/
deb=dist/vorsane-kiosk_${version}_${arch}.deb
echo "Built $deb"

lintian --fail-on error "$PWD/dist/vorsane-kiosk_${version}_${arch}.changes"

if [ "${NO_CHECK:-0}" != 1 ]; then
    "${sudo_cmd[@]}" bash tests/package_check.sh "$deb"
fi
