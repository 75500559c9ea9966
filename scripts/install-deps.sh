#!/usr/bin/env bash
# Installs every Debian package needed to build, run and test vorsane-kiosk on Debian 12 or 13.
#   bash scripts/install-deps.sh [webengine|webkit|both...]     (or VORSANE_WEB_ENGINE=...)
# webengine (the default) is Qt 6 + QtWebEngine; webkit is Qt 5 + QtWebKit, on Debian 12 only.
# Run as root or as a user allowed to use sudo. Safe to run again.
set -euo pipefail
. "$(dirname "$0")/flavours.sh"

release=$(debian_codename)
flavours=
for what in "${@:-${VORSANE_WEB_ENGINE:-webengine}}"; do
    flavours+=" $(flavours_for "$what" "$release")" || exit 2
done
flavours=$(echo $flavours)
case $release in
    bookworm | trixie) ;;
    *) echo "Note: made for Debian 12 and 13; this is '$release', trying Debian 13's package names." >&2 ;;
esac

packages=(
    # build
    build-essential cmake pkg-config clang-format curl ccache
    # media, PDF, proxy discovery, password hashing, URL pattern sets
    libvlc-dev vlc-plugin-base libproxy-dev libcrypt-dev libre2-dev
    # the remote-control web server
    libcpp-httplib-dev
    # the fleet's MQTT client; the broker and its command-line clients for the tests
    libmosquitto-dev mosquitto mosquitto-clients
    # video: libVLC's X11 outputs (the base plugins decode H.264, H.265 and VP9), its plugin
    # cache (without it every start loads all ~370 plugins: seconds on a small board), and the
    # VA-API drivers for hardware decoding where the machine has it
    vlc-plugin-video-output libvlc-bin va-driver-all
    # the video window's X attributes, set beside Qt's own connection
    libxcb1-dev
    # run time: downloads are shown with the desktop's file opener
    xdg-utils
    # run time: X server for headless machines, desktop helpers the program calls
    xvfb xauth x11-xserver-utils unzip
    # tests: xwininfo reads the window titles the program shows
    x11-utils
    # tests: a window manager and a Wayland compositor (headless, with Xwayland) for full screen
    # and screen power, its screenshot and output tools, a private D-Bus bus for the USB import
    openbox sway grim xwayland wlr-randr dbus-daemon
    # run time: HDMI-CEC screen power (cec-ctl)
    v4l-utils
    # test media
    ffmpeg
    # the fleet tests' certificate authority
    openssl
    # the remote page's browser test
    chromium chromium-driver python3-selenium
)
for flavour in $flavours; do
    case $flavour in
    webengine)
        packages+=(
            # Qt 6 modules: QRegExp from Core5Compat, QJSEngine from Qml
            qt6-base-dev qt6-5compat-dev qt6-declarative-dev libqt6sql6-sqlite qt6-webengine-dev
            libpoppler-qt6-dev
            # translations (lupdate, lrelease and their CMake functions; the toolkit's own texts)
            qt6-tools-dev qt6-l10n-tools linguist-qt6 qt6-translations-l10n
        )
        ;;
    webkit)
        packages+=(
            # Qt 5 modules: QJSEngine from qtdeclarative
            qtbase5-dev qtbase5-dev-tools libqt5sql5-sqlite qtdeclarative5-dev libqt5webkit5-dev
            libpoppler-qt5-dev
            # translations (lupdate, lrelease and their CMake functions; the toolkit's own texts)
            qttools5-dev qttools5-dev-tools qttranslations5-l10n
        )
        ;;
    esac
done

if [ "$(id -u)" -eq 0 ]; then
    sudo=()
else
    sudo=(sudo)
fi

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
        missing+=("$p")
    fi
done

if [ ${#missing[@]} -eq 0 ]; then
    echo "All packages for $(debian_name "$release") ($flavours) already installed."
    exit 0
fi

echo "Installing for $(debian_name "$release") ($flavours): ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -qq
"${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" </dev/null
