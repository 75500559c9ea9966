#!/usr/bin/env bash
# Installs a built vorsane-kiosk package with apt into a throw-away chroot of the Debian release it
# was built for, as a player would get it, and checks that every file the program reads is where
# the installed program reads it, that the default configuration plays the demo pictures, and that
# a web page is painted. Needs root and the Debian mirror.
#   RELEASE=trixie bash tests/package_check.sh dist/debian13/vorsane-kiosk_1.0_amd64.deb
# RELEASE (bookworm|trixie, 12|13) defaults to this machine's.
set -euo pipefail
deb=$(realpath "$1")
tests=$(realpath "$(dirname "$0")")
. "$tests/../scripts/debian-chroot.sh"
command -v python3 >/dev/null || fail "python3 is needed to read the screenshot"

make_chroot minbase
arch=$(dpkg-deb -f "$deb" Architecture)
run=()
contain=()
extra=()
play_seconds=20
if [ "$arch" != "$(in_root dpkg --print-architecture)" ]; then
    # A package for another architecture (arm64 built on amd64) gets its libraries from the same
    # root made multiarch, and its programs run under qemu's user-mode emulator, without binfmt_misc.
    in_root dpkg --add-architecture "$arch"
    in_root apt-get update -qq || fail "apt-get update"
    extra=(qemu-user-static)
    run=("/usr/bin/qemu-$(dpkg-architecture -a"$arch" -qDEB_HOST_GNU_CPU 2>/dev/null)-static" -L /)
    play_seconds=40
    # qemu refuses the clone() with a pidfd that Qt starts helper programs with; Qt then stops
    # the helper it thinks runs with kill(-1), i.e. every process of the machine. So the
    # emulated player plays in a PID namespace of its own.
    contain=(unshare --pid --fork --kill-child)
fi
cp "$deb" "$root/tmp/"
in_root apt-get install -y -q --no-install-recommends "${extra[@]}" "/tmp/$(basename "$deb")" \
    >/dev/null || fail "apt could not install the package"

# Both programs are built for the package's architecture and start (their libraries load).
case $arch in
    amd64) elf="ELF 64-bit LSB pie executable, x86-64" ;;
    arm64) elf="ELF 64-bit LSB pie executable, ARM aarch64" ;;
    armhf) elf="ELF 32-bit LSB pie executable, ARM, EABI5" ;;
    *) elf="ELF" ;;
esac
for p in vorsane-kiosk vorsane-remote; do
    what=$(file -b "$root/usr/bin/$p")
    [[ $what == "$elf"* ]] || fail "$p is not a $arch program: $what"
    echo "$p: ${what%%, BuildID*}"
done
help=$(in_root "${run[@]}" /usr/bin/vorsane-kiosk --help) || fail "vorsane-kiosk --help failed"
grep -qF -- "--basepath     Use this as default base path (default=/etc/xdg/sitedeck)" <<<"$help" \
    || fail "unexpected help text: $help"
grep -F -- "--basepath" <<<"$help"
help=$(in_root "${run[@]}" /usr/bin/vorsane-remote --help) || fail "vorsane-remote --help failed"
grep -q '^Usage: vorsane-remote ' <<<"$help" || fail "unexpected help text: $help"
head -1 <<<"$help"

# Every data or configuration path compiled into the program must exist in the installed system.
# The /usr/local one is only ever written to the debug output, never opened.
bin=$root/usr/bin/vorsane-kiosk
# Texts written as QStringLiteral are stored as UTF-16, hence both encodings.
paths=$({ strings -a "$bin"; strings -a -e l "$bin"; } \
    | grep -oE '/(usr|etc)/[A-Za-z0-9_./-]*sitedeck[A-Za-z0-9_./-]*' | grep -v '^/usr/local/' | sort -u)
for p in $paths /etc/xdg/sitedeck/{preferences,playlist,list} \
    /usr/share/vorsane-sitedeck/i18n/browser_fr_FR.qm /etc/xdg/autostart/vorsane-kiosk.desktop \
    /usr/bin/vorsane-kiosk-session; do
    [ -e "$root$p" ] || fail "$p is read by the program but not installed"
    echo "present: $p"
done
for p in /usr/share/vorsane-sitedeck/template.html /usr/share/vorsane-sitedeck/i18n; do
    grep -qx "$p" <<<"$paths" || fail "$p not found in the binary"
done

# Configuration files survive upgrades as conffiles; the preferences carry this build's marker.
conffiles=$(in_root dpkg-query --control-show vorsane-kiosk conffiles)
for c in /etc/xdg/sitedeck/preferences /etc/xdg/sitedeck/playlist /etc/xdg/sitedeck/list \
    /etc/xdg/autostart/vorsane-kiosk.desktop; do
    grep -qx "$c" <<<"$conffiles" || fail "$c is not a conffile"
done
marker=$(sed -n 's/^version=//p' "$root/etc/xdg/sitedeck/preferences")
grep -aqF "$marker" "$bin" || fail "preferences version $marker is not this build's"
grep -q '^Exec=vorsane-kiosk-session$' "$root/etc/xdg/autostart/vorsane-kiosk.desktop" \
    || fail "autostart entry does not run the session supervisor"

# The default configuration plays the demo pictures: the first one runs its five seconds. As root
# the web engine's sandbox cannot start (the webkit flavour ignores the variable).
mkdir -p "$root/tmp/home"
in_root env HOME=/tmp/home QT_QPA_PLATFORM=offscreen XDG_CURRENT_DESKTOP=none \
    QTWEBENGINE_DISABLE_SANDBOX=1 "${contain[@]}" timeout -s INT "$play_seconds" "${run[@]}" /usr/bin/vorsane-kiosk \
    >"$root/tmp/run.log" 2>&1 || true
log=$(cat "$root/tmp/run.log")
grep -q 'onTimeoutImpl' <<<"$log" || { echo "$log" | tail -30; fail "the demo playlist did not play"; }
for bad in "Software has been updated" "Nothing to display" "Cannot read playlist"; do
    if grep -qF "$bad" <<<"$log"; then fail "default configuration: $bad"; fi
done

# A web page is painted. It turns green when the engine runs today's scripts (optional chaining,
# "??", Array.prototype.flat, async functions), blue when its scripts run but not those, and stays
# red otherwise. Screenshots (the remote's action 3) are asked for until one shows the page.
case $(dpkg-deb -f "$deb" Depends) in
    *libqt6webengine*) flavour=webengine expected=0,200,83 ;;
    *libqt5webkit*) flavour=webkit expected=0,0,255 ;;
    *) fail "the package depends on no web engine" ;;
esac
if [ ${#run[@]} -gt 0 ]; then
    echo "PASS: $(basename "$deb") installs into $(debian_name "$chroot_release") and plays its demo configuration"
    echo "(the web page is not played under emulation)"
    exit 0
fi
mkdir -p "$root/tmp/page"
cat >"$root/tmp/page/index.html" <<'PAGE'
<!DOCTYPE html>
<html><head><style>html, body { margin: 0; height: 100%; background: #ff0000; }</style></head>
<body><script>
var colour = '#0000ff';
try {
    if (new Function('const o = {a: {b: 1}}; return (o?.a?.b ?? 0) === 1' +
                     ' && [[1], [2]].flat().length === 2 && (async () => 1)() instanceof Promise;')())
        colour = '#00c853';
} catch (e) {}
document.body.style.background = colour;
</script></body></html>
PAGE
printf '#Vorsane playlist\nfile:///tmp/page/index.html 120\n' >"$root/tmp/page/playlist"
rm -f "$root/tmp/screen.png"
# In a network of its own where this machine allows it, so the remote's port is the player's.
play_page() {
    [ -z "${own_network:-}" ] || ip link set lo up
    # As root the web engine's sandbox cannot start; a player runs as its desktop user.
    in_root env HOME=/tmp/home QT_QPA_PLATFORM=offscreen XDG_CURRENT_DESKTOP=none \
        QTWEBENGINE_DISABLE_SANDBOX=1 timeout -s INT 90 /usr/bin/vorsane-kiosk \
        --playlist /tmp/page/playlist >"$root/tmp/page.log" 2>&1 &
    local player=$! share=0 tries
    for ((tries = 0; tries < 60; tries++)); do
        sleep 1
        kill -0 $player 2>/dev/null || break
        echo '{"action": 3}' >/dev/udp/127.0.0.1/54545 2>/dev/null || continue
        [ -s "$root/tmp/screen.png" ] || continue
        share=$(python3 "$tests/png_share.py" "$root/tmp/screen.png" "$expected" 2>/dev/null) || continue
        if [ "${share/./}" -ge 0800 ]; then break; fi
    done
    kill -INT $player 2>/dev/null || true
    wait $player || true
    echo "$share"
}
own_network=
if command -v ip >/dev/null && unshare --net true 2>/dev/null; then own_network=1; fi
export root tests expected own_network
share=$(if [ -n "$own_network" ]; then
    unshare --net bash -c "$(declare -f in_root play_page); play_page"
else
    play_page
fi)
if [ "${share/./}" -lt 0800 ]; then
    tail -30 "$root/tmp/page.log"
    [ ! -s "$root/tmp/screen.png" ] || cp "$root/tmp/screen.png" "${TMPDIR:-/tmp}/package-check-screen.png"
    fail "the web page was not painted in $expected ($flavour): share $share of the screenshot"
fi
echo "web page painted by $flavour: $share of the screenshot in $expected"
echo "PASS: $(basename "$deb") installs into $(debian_name "$chroot_release"), plays its demo configuration and paints a web page"
