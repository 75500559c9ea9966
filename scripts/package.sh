#!/usr/bin/env bash
# Builds the Debian package vorsane-kiosk_<version>_<arch>.deb into ./dist/debian<N>[-webkit]/, runs
# lintian on it and, as root, installs it into a throw-away chroot of the same Debian release to
# check it (tests/package_check.sh; skip with NO_CHECK=1).
#   VORSANE_WEB_ENGINE=webengine (default: Qt 6 + QtWebEngine) or webkit (Qt 5 + QtWebKit,
#                      Debian 12 only)
#   RELEASE=bookworm|trixie (or 12|13): the Debian release the package is for; default: this
#                      machine's
#   ARCH=arm64         cross-builds for another architecture
# A package for this machine's release and architecture is built here, after installing its build
# dependencies. Any other (RELEASE or ARCH) is built as root inside a throw-away chroot of that
# release, so the build machine gets no foreign packages, and checked there (under qemu for ARCH).
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/flavours.sh
sudo_cmd=(); [ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)

host_release=$(debian_codename)
release=$(debian_codename "${RELEASE:-}")
case $release in
    bookworm | trixie) ;;
    *) echo "RELEASE=${RELEASE:-} ($release): packages are built for Debian 12 (bookworm) or 13 (trixie)." >&2; exit 2 ;;
esac
flavour=$(flavours_for "${VORSANE_WEB_ENGINE:-webengine}" "$release") || exit 2
[[ $flavour != *" "* ]] || { echo "One flavour per package: VORSANE_WEB_ENGINE=webengine or webkit." >&2; exit 2; }
profiles=
[ "$flavour" = webengine ] || profiles=pkg.vorsane-kiosk.webkit
arch=${ARCH:-$(dpkg --print-architecture)}
cross=0; [ "$arch" = "$(dpkg --print-architecture)" ] || cross=1
in_chroot=0; [ $cross = 0 ] && [ "$release" = "$host_release" ] || in_chroot=1
if [ $in_chroot = 1 ] && [ "$(id -u)" -ne 0 ]; then
    echo "A package for $(debian_name "$release") $arch on this $(debian_name "$host_release") machine is built in a chroot: run as root" \
        "(sudo RELEASE=$release ARCH=$arch bash scripts/package.sh)" >&2
    exit 1
fi
case $release in bookworm) name=debian12 ;; trixie) name=debian13 ;; esac
[ "$flavour" = webengine ] || name+=-$flavour
dist=dist/$name
echo "Building the $flavour package for $(debian_name "$release") $arch$([ $in_chroot = 0 ] || echo ' in a chroot')"

tools=(dpkg-dev)
[ $in_chroot = 1 ] || tools+=(debhelper lintian)
[ $in_chroot = 0 ] && [ "${NO_CHECK:-0}" = 1 ] || tools+=(debootstrap file python3)
export DEBIAN_FRONTEND=noninteractive
if { [ $in_chroot = 0 ] && ! dpkg-checkbuilddeps ${profiles:+-P"$profiles"} >/dev/null 2>&1; } \
    || ! dpkg-query -W "${tools[@]}" >/dev/null 2>&1; then
    "${sudo_cmd[@]}" apt-get update -qq
    "${sudo_cmd[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${tools[@]}" </dev/null
    [ $in_chroot = 1 ] || "${sudo_cmd[@]}" env DEBIAN_FRONTEND=noninteractive \
        apt-get build-dep -y -qq --no-install-recommends ${profiles:+-P "$profiles"} ./ </dev/null
fi

# Built from a copy, so the build leaves nothing in the source tree and its results (which
# dpkg-buildpackage writes next to the tree) stay inside build-deb/.
stage=$PWD/build-deb
rm -rf "$stage/vorsane-kiosk" "$stage"/*.deb "$stage"/*.changes "$stage"/*.buildinfo "$stage/lintian.txt"
mkdir -p "$stage/vorsane-kiosk" "$dist"
tar --exclude='./build*' --exclude=./dist --exclude=./.git --exclude='./obj-*' -cf - . \
    | tar -xf - -C "$stage/vorsane-kiosk"

# debhelper gives the build its own HOME, so the compiler cache is named explicitly.
ccache_dir=
if command -v ccache >/dev/null; then
    ccache_dir=${CCACHE_DIR:-$HOME/.cache/ccache}
    export CCACHE_DIR=$ccache_dir CCACHE_BASEDIR=$stage
    export VORSANE_CMAKE_ARGS=-DCMAKE_CXX_COMPILER_LAUNCHER=ccache
fi

# A chroot of $release for this machine's architecture (with $arch added for a cross build), the
# build dependencies for $arch, the build, and lintian of that release; the results come back
# into $stage.
chroot_build() {
    RELEASE=$release . scripts/debian-chroot.sh
    make_chroot buildd
    local build_profiles=$profiles apt_arch=() build_arch=()
    if [ $cross = 1 ]; then
        in_root dpkg --add-architecture "$arch"
        build_profiles="cross nocheck${profiles:+ $profiles}"
        apt_arch=(-a "$arch")
        build_arch=(-a "$arch")
    fi
    in_root apt-get update -qq || fail "apt-get update"
    local extra=(lintian)
    [ $cross = 0 ] || extra+=("crossbuild-essential-$arch")
    [ -z "$ccache_dir" ] || extra+=(ccache)
    in_root apt-get install -y -qq --no-install-recommends "${extra[@]}" >/dev/null \
        || fail "installing ${extra[*]}"
    mkdir -p "$root/build" && cp -a "$stage/vorsane-kiosk" "$root/build/"
    in_root sh -c 'cd /build/vorsane-kiosk && apt-get build-dep -y -qq --no-install-recommends \
        "$@" ./' sh "${apt_arch[@]}" ${build_profiles:+-P "${build_profiles// /,}"} >/dev/null \
        || fail "build dependencies for $release $arch"
    local cache_env=()
    if [ -n "$ccache_dir" ]; then
        # Each release has its own compiler: its own cache, whose entries are known by the
        # compiler's contents, since it is installed afresh in every chroot.
        local dir=$ccache_dir
        [ "$release" = "$host_release" ] || dir=$ccache_dir-$release
        mkdir -p "$dir"
        bind_into "$dir" /ccache
        cache_env=(CCACHE_DIR=/ccache CCACHE_BASEDIR=/build CCACHE_COMPILERCHECK=content
            "VORSANE_CMAKE_ARGS=$VORSANE_CMAKE_ARGS")
    fi
    local options=()
    [ $cross = 0 ] || options=(DEB_BUILD_OPTIONS=nocheck)
    in_root env "${cache_env[@]}" "${options[@]}" DEB_BUILD_PROFILES="$build_profiles" \
        sh -c 'cd /build/vorsane-kiosk && nice -n 10 dpkg-buildpackage "$@" -b -us -uc' \
        sh "${build_arch[@]}" -j"$(nproc)" || fail "dpkg-buildpackage for $release $arch"
    cp "$root"/build/*.deb "$root"/build/*.changes "$root"/build/*.buildinfo "$stage/"
    # The release's own lintian judges the package.
    in_root sh -c 'lintian --fail-on error /build/*.changes' >"$stage/lintian.txt" 2>&1 \
        || { cat "$stage/lintian.txt"; fail "lintian"; }
}
if [ $in_chroot = 1 ]; then
    (chroot_build)
else
    (cd "$stage/vorsane-kiosk" && DEB_BUILD_PROFILES=$profiles dpkg-buildpackage -b -us -uc -j"$(nproc)")
    lintian --fail-on error "$stage"/vorsane-kiosk_*_"$arch".changes >"$stage/lintian.txt" 2>&1 \
        || { cat "$stage/lintian.txt"; exit 1; }
fi

version=$(dpkg-parsechangelog -S Version)
mv -f "$stage"/vorsane-kiosk*_"${version}"_"${arch}".* "$dist/"
deb=$dist/vorsane-kiosk_${version}_${arch}.deb
echo "Built $deb"
sed -i '/^running with root privileges is not recommended/d' "$stage/lintian.txt"
cp "$stage/lintian.txt" "$dist/"
echo "lintian: $(if [ -s "$stage/lintian.txt" ]; then echo; cat "$stage/lintian.txt"; else echo clean; fi)"

if [ "${NO_CHECK:-0}" != 1 ]; then
    "${sudo_cmd[@]}" env RELEASE="$release" bash tests/package_check.sh "$deb"
fi
