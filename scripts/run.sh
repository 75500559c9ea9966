#!/usr/bin/env bash
# Installs what is missing, builds, and runs the slideshow on the bundled demo pictures. Without a
# display it runs under Xvfb. Extra arguments go to the program. The webengine flavour (Qt 6 +
# QtWebEngine) by default; VORSANE_WEB_ENGINE=webkit runs the Qt 5 + QtWebKit one (Debian 12).
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/flavours.sh
flavour=$(flavours_for "${VORSANE_WEB_ENGINE:-webengine}" "$(debian_codename)") || exit 2
[[ $flavour != *" "* ]] || { echo "run.sh runs one flavour: webengine or webkit." >&2; exit 2; }
if ! tree_has_flavours; then
    echo "This source tree builds only the Qt 5 + QtWebKit flavour: running that one."
    flavour=webkit
fi
bash scripts/install-deps.sh "$flavour"
# Its own build directory without the tests, so running never waits for the test programs.
export BUILD_DIR=${BUILD_DIR:-build-run-$flavour}
bash scripts/build.sh -DVORSANE_WEB_ENGINE="$flavour" -DVORSANE_BUILD_TESTS=OFF
[ "$flavour" != webengine ] || sandbox_off_for_root

# The program reads its HTML templates and translations from the data directory it was built for.
data=$(sed -n 's/^#define VORSANE_DATA_DIR "\(.*\)"$/\1/p' "$BUILD_DIR/generated/installpaths.h")
for f in templates/text.html templates/template.html "$BUILD_DIR"/i18n/*.qm; do
    case $f in
        *.qm) target=$data/i18n/${f##*/} ;;
        *) target=$data/${f##*/} ;;
    esac
    if ! cmp -s "$f" "$target"; then
        sudo_cmd=(); [ "$(id -u)" -eq 0 ] || [ -w "$(dirname "$target")" ] || sudo_cmd=(sudo)
        "${sudo_cmd[@]}" install -D -m 644 "$f" "$target"
    fi
done

state="$HOME/.vorsane-kiosk"
mkdir -p "$state"
playlist="$state/demo-playlist"
sed "s|@DEMO_DIR@|$(pwd)/demo|" demo/playlist.in > "$playlist"
args=(--basepath "$(pwd)/demo" --preference "$state/demo-preferences" --playlist "$playlist"
      --cookie "$state/demo-cookies.sqlite")
if [ -n "${DISPLAY:-}" ]; then
    exec "$BUILD_DIR/vorsane-kiosk" "${args[@]}" "$@"
else
    echo "No display: running under Xvfb (Ctrl-C to stop)."
    exec xvfb-run -a -s "-screen 0 1280x720x24 -nolisten tcp" "$BUILD_DIR/vorsane-kiosk" "${args[@]}" "$@"
fi
