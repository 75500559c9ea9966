#!/usr/bin/env bash
# Installs every Debian 12 package needed to build, run and test vorsane-kiosk.
# Run as root or as a user allowed to use sudo. Safe to run again.
set -euo pipefail

packages=(
    # build
    build-essential cmake pkg-config clang-format curl
    # Qt 5 modules
    qtbase5-dev qtbase5-dev-tools libqt5sql5-sqlite qtdeclarative5-dev libqt5webkit5-dev
    # translations (lupdate, lrelease and their CMake functions; the toolkit's own texts)
    qttools5-dev qttools5-dev-tools qttranslations5-l10n
    # media, PDF, proxy discovery, password hashing, URL pattern sets
    libvlc-dev vlc-plugin-base libpoppler-qt5-dev libproxy-dev libcrypt-dev libre2-dev
    # the remote-control web server
    libcpp-httplib-dev
    # the fleet's MQTT client; the broker and its command-line clients for the tests
    libmosquitto-dev mosquitto mosquitto-clients
    # video: libVLC's X11 outputs (the base plugins decode H.264, H.265 and VP9), its plugin
    # cache (without it every start loads all ~370 plugins: seconds on a small board), and the
    # VA-API drivers for hardware decoding where the machine has it
    vlc-plugin-video-output libvlc-bin va-driver-all
    # run time: downloads are shown with the desktop's file opener
    xdg-utils
    # run time: X server for headless machines, desktop helpers the program calls
    xvfb xauth x11-xserver-utils unzip
    # tests: xwininfo reads the window titles the program shows
    x11-utils
    # test media
    ffmpeg
    # the fleet tests' certificate authority
    openssl
    # the remote page's browser test
    chromium chromium-driver python3-selenium
)

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
    echo "All packages already installed."
    exit 0
fi

echo "Installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -qq
"${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" </dev/null
