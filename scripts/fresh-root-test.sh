#!/usr/bin/env bash
# Runs the README's test command, as a newcomer would on a fresh machine, in a throw-away Debian
# root made with debootstrap: every package comes from the project's own scripts. Needs root and
# the Debian mirror.
#   RELEASE=trixie bash scripts/fresh-root-test.sh      (RELEASE: bookworm|trixie, 12|13; default:
#                                                         this machine's)
# The committed tree (git HEAD) is what is tested; the root goes away at the end.
set -euo pipefail
cd "$(dirname "$0")/.."
[ "$(id -u)" -eq 0 ] || { echo "Run as root: debootstrap and chroot need it." >&2; exit 1; }
command -v debootstrap >/dev/null || apt-get install -y -qq --no-install-recommends debootstrap </dev/null
. scripts/debian-chroot.sh
make_chroot minbase
mkdir -p "$root/src"
git archive HEAD | tar -x -C "$root/src"
# The test scripts give tests that need them a network and a /tmp of their own.
in_root apt-get update -qq || fail "apt-get update"
in_root apt-get install -y -qq --no-install-recommends ca-certificates git iproute2 util-linux >/dev/null \
    || fail "installing the base tools"
start=$SECONDS
if in_root bash -c 'cd /src && CI=true bash scripts/test.sh </dev/null'; then
    echo "PASS: scripts/test.sh in a fresh $(debian_name "$chroot_release") root, $((SECONDS - start)) s"
else
    fail "scripts/test.sh in a fresh $(debian_name "$chroot_release") root"
fi
