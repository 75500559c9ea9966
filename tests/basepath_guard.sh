#!/usr/bin/env bash
# Records, then compares, everything under the system's default configuration folder, so that a
# test that writes there (instead of its own temporary folder) fails the suite.
# Usage: basepath_guard.sh record|compare FOLDER STATEFILE
set -euo pipefail
mode=$1 folder=$2 state=$3
snapshot() {
    if [ -e "$folder" ]; then
        find "$folder" -printf '%p %y %m %s\n' | sort
        find "$folder" -type f -print0 | sort -z | xargs -0 -r sha256sum
    else
        echo "absent"
    fi
}
case $mode in
record) snapshot >"$state" ;;
compare)
    if ! diff -u "$state" <(snapshot); then
        echo "A test changed $folder: tests must keep to their temporary folders." >&2
        exit 1
    fi
    echo "$folder unchanged by the suite."
    ;;
esac
