# Throw-away Debian 12 chroots, sourced by scripts/package.sh (cross builds) and
# tests/package_check.sh. Needs root and the Debian mirror (DEBIAN_MIRROR overrides it).
#   make_chroot minbase|buildd   debootstraps into $root, which goes away when the shell exits
#   in_root CMD...               runs CMD inside it with a clean environment
#   bind_into DIR PATH           makes the host's DIR visible at PATH inside it until then
mirror=${DEBIAN_MIRROR:-http://deb.debian.org/debian}
root=
mounted=()

fail() { echo "FAIL: $*" >&2; exit 1; }
in_root() { chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin DEBIAN_FRONTEND=noninteractive "$@"; }

remove_chroot() {
    [ -n "$root" ] || return 0
    local m
    for m in "${mounted[@]}"; do umount "$m" 2>/dev/null || umount -l "$m" || true; done
    # A bind mount of the same file system is not stopped by --one-file-system: never delete
    # through one that is still there.
    for m in "${mounted[@]}"; do
        if mountpoint -q "$m"; then echo "left $root in place: $m is still mounted" >&2; return 0; fi
    done
    rm -rf --one-file-system "$root" "$root.log"
}

make_chroot() {
    root=$(mktemp -d /var/tmp/vorsane-chroot.XXXXXX)
    chmod 755 "$root" # apt downloads as the user _apt
    trap remove_chroot EXIT
    echo "Making a Debian 12 chroot in $root"
    debootstrap --variant="$1" bookworm "$root" "$mirror" >"$root.log" 2>&1 \
        || { tail -20 "$root.log"; fail "debootstrap"; }
    if mount -t proc proc "$root/proc" 2>/dev/null; then mounted+=("$root/proc"); fi
    # No services start inside the chroot.
    printf '#!/bin/sh\nexit 101\n' >"$root/usr/sbin/policy-rc.d"
    chmod +x "$root/usr/sbin/policy-rc.d"
}

bind_into() {
    mkdir -p "$root$2"
    mount --bind "$1" "$root$2"
    mounted+=("$root$2")
}
