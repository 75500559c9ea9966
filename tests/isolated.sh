#!/usr/bin/env bash
# Runs one test program with a network and a /tmp of its own, and an X server of its own when it
# needs one, so that tests which bind the remote-control port or write /tmp/screen.png can run at
# the same time. Needs root (CI) or unprivileged user namespaces.
# Usage: isolated.sh x11|offscreen PROGRAM [ARGS...]
set -euo pipefail
if [ "${VORSANE_ISOLATED:-}" != 1 ]; then
    userns=()
    [ "$(id -u)" -eq 0 ] || userns=(--user --map-root-user)
    export VORSANE_ISOLATED=1
    exec unshare "${userns[@]}" --net --mount --fork "$0" "$@"
fi
display=$1
shift
ip link set lo up
# The project may itself live under /tmp (a CI clone): the original /tmp stays reachable through
# an open descriptor, and the folders the test needs are bound back into the private one.
exec 3</tmp
mount -t tmpfs tmpfs /tmp
for path in "$PWD" "$@"; do
    case $path in
    /tmp/?*)
        top=${path#/tmp/}
        top=${top%%/*}
        if [ ! -e "/tmp/$top" ]; then
            mkdir -p "/tmp/$top"
            # Taken as given: canonicalised, the path would name the new, empty folder.
            mount --no-canonicalize --bind "/proc/self/fd/3/$top" "/tmp/$top"
        fi
        ;;
    esac
done
exec 3<&-
if [ "$display" = x11 ]; then
    unset DISPLAY
    # -noreset: the server would start over whenever its last client leaves, and a program started
    # in that moment cannot connect.
    exec xvfb-run -a -s "-screen 0 1280x720x24 -nolisten tcp -noreset" "$@"
fi
exec "$@"
