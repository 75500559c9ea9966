#!/usr/bin/env bash
# Installs what is missing, builds, and runs the slideshow on the bundled demo content. Without a
# display it runs under Xvfb. Extra arguments go to the program.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
bash scripts/build.sh
base="$(pwd)/demo"
args=(--basepath "$base" --preference "$HOME/.vorsane-kiosk/demo-preferences")
if [ -n "${DISPLAY:-}" ]; then
    exec build/vorsane-kiosk "${args[@]}" "$@"
else
    exec xvfb-run -a -s "-screen 0 1280x720x24 -nolisten tcp" build/vorsane-kiosk "${args[@]}" "$@"
fi
