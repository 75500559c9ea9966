# Throw-away Debian chroots, sourced by scripts/package.sh (builds for another release or
# architecture) and tests/package_check.sh. Needs root and the Debian mirror (DEBIAN_MIRROR
# overrides it).
#   RELEASE=bookworm|trixie (or 12|13)  the Debian release of the chroot; default: this machine's
#   make_chroot minbase|buildd   debootstraps into $root, which goes away when the shell exits
#   in_root CMD...               runs CMD inside it with a clean environment
#   bind_into DIR PATH           makes the host's DIR visible at PATH inside it until then
# Downloaded packages are kept in /var/cache/vorsane-chroot/<release>-<arch> (CHROOT_CACHE
# overrides it) for the next chroot of the same release.
mirror=${DEBIAN_MIRROR:-http://deb.debian.org/debian}
root=
mounted=()

fail() { echo "FAIL: $*" >&2; exit 1; }
in_root() { chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin DEBIAN_FRONTEND=noninteractive "$@"; }

. "$(dirname "${BASH_SOURCE[0]}")/flavours.sh"
chroot_release=$(debian_codename "${RELEASE:-}")

remove_chroot() {
    [ -n "$root" ] || return 0
    local m i
    # Drops cached packages that the archive no longer offers, so the cache does not grow forever.
    if [ -n "${cache_mount:-}" ] && mountpoint -q "$cache_mount"; then
        in_root apt-get autoclean -qq >/dev/null 2>&1 || true
    fi
    # Innermost first.
    for ((i = ${#mounted[@]} - 1; i >= 0; i--)); do
        m=${mounted[i]}
        umount "$m" 2>/dev/null || umount -l "$m" || true
    done
    # A bind mount of the same file system is not stopped by --one-file-system: never delete
    # through one that is still there.
    for m in "${mounted[@]}"; do
        if mountpoint -q "$m"; then echo "left $root in place: $m is still mounted" >&2; return 0; fi
    done
    rm -rf --one-file-system "$root" "$root.log"
}

make_chroot() {
    local cache=${CHROOT_CACHE:-/var/cache/vorsane-chroot}/$chroot_release-$(dpkg --print-architecture)
    mkdir -p "$cache/partial"
    root=$(mktemp -d /var/tmp/vorsane-chroot.XXXXXX)
    chmod 755 "$root" # apt downloads as the user _apt
    trap remove_chroot EXIT
    echo "Making a $(debian_name "$chroot_release") ($chroot_release) chroot in $root"
    debootstrap --variant="$1" --cache-dir="$cache" "$chroot_release" "$root" "$mirror" \
        >"$root.log" 2>&1 || { tail -20 "$root.log"; fail "debootstrap"; }
    if mount -t proc proc "$root/proc" 2>/dev/null; then mounted+=("$root/proc"); fi
    # Chromium (QtWebEngine) keeps its shared memory in /dev/shm.
    mkdir -p "$root/dev/shm"
    if mount -t tmpfs -o mode=1777 tmpfs "$root/dev/shm" 2>/dev/null; then mounted+=("$root/dev/shm"); fi
    # Whatever apt fetches inside lands in the same cache.
    bind_into "$cache" /var/cache/apt/archives
    cache_mount=$root/var/cache/apt/archives
    # No services start inside the chroot.
    printf '#!/bin/sh\nexit 101\n' >"$root/usr/sbin/policy-rc.d"
    chmod +x "$root/usr/sbin/policy-rc.d"
}

bind_into() {
    mkdir -p "$root$2"
    mount --bind "$1" "$root$2"
    mounted+=("$root$2")
}
