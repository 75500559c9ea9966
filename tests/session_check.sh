#!/usr/bin/env bash
# The session supervisor against a stand-in player whose exit codes are scripted, with recording
# stand-ins for logger, sleep and xset first on PATH.
#   bash tests/session_check.sh data/vorsane-kiosk-session
set -euo pipefail
session=$(realpath "$1")
export WORK=$(mktemp -d)
trap 'rm -rf "$WORK"' EXIT
mkdir "$WORK/bin"
stand_in() { printf '#!/bin/bash\n%s\n' "$2" >"$WORK/bin/$1"; chmod +x "$WORK/bin/$1"; }
stand_in vorsane-kiosk 'echo "$*" >>"$WORK/runs"; code=$(head -n1 "$WORK/codes"); sed -i 1d "$WORK/codes"
[ "$code" != SEGV ] || kill -SEGV $$; exit "$code"'
stand_in logger 'echo "$*" >>"$WORK/log"'
stand_in sleep 'echo -n "$1 " >>"$WORK/sleeps"'
stand_in xset 'exit "$XSET_STATUS"'
failures=0

# check NAME "EXIT CODES OF THE RUNS" XSET_STATUS EXPECTED_STATUS EXPECTED_SLEEPS EXPECTED_LOG
check() {
    rm -f "$WORK"/{runs,log,sleeps}; touch "$WORK"/{runs,log,sleeps}
    tr ' ' '\n' <<<"$2" >"$WORK/codes"
    local status=0
    DISPLAY=:7 XSET_STATUS=$3 PATH="$WORK/bin:$PATH" "$session" --basepath /srv/k || status=$?
    local runs; runs=$(wc -w <<<"$2")
    local problems=()
    [ "$status" = "$4" ] || problems+=("exit status $status, expected $4")
    [ "$(grep -cx -- '--basepath /srv/k' "$WORK/runs")" = "$runs" ] \
        || problems+=("runs: $(paste -sd'|' "$WORK/runs"), expected $runs with the arguments")
    [ "$(cat "$WORK/sleeps")" = "$5" ] || problems+=("waits '$(cat "$WORK/sleeps")', expected '$5'")
    [ "$(cat "$WORK/log")" = "$(printf '%b' "$6")" ] || problems+=("log: $(cat "$WORK/log")")
    if [ ${#problems[@]} -eq 0 ]; then
        echo "PASS: $1"
    else
        echo "FAIL: $1: ${problems[*]}"; failures=$((failures + 1))
    fi
}

r="-t vorsane-kiosk vorsane-kiosk exited with"
crashes="$r code 1, restarting\n$r signal 11 (SEGV), restarting"
for _ in 1 2 3 4 5; do crashes+="\n$r code 1, restarting"; done
check "crashes are restarted, ever slower, until a normal end" "1 SEGV 1 1 1 1 1 0" 0 0 \
    "2 4 8 16 32 60 60 " "$crashes"
check "Ctrl-C ends the session" "2" 0 2 "" ""
check "no restart once the display is gone" "1" 1 0 "" "$r code 1, display gone, not restarting"
exit $((failures > 0))
