#!/usr/bin/env bash
# Installs what is missing, builds, and runs the whole test suite. Tests that need a real X server
# get a private Xvfb when no display is available. Pass -DVORSANE_SANITIZE=ON for ASan/UBSan.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
export BUILD_DIR=${BUILD_DIR:-build}
bash scripts/build.sh "$@"

cd "$BUILD_DIR"
ctest_args=(--output-on-failure -j"$(nproc)" --timeout 300)
if [ -n "${DISPLAY:-}" ]; then
    ctest "${ctest_args[@]}"
else
    xvfb-run -a -s "-screen 0 1280x720x24 -nolisten tcp" ctest "${ctest_args[@]}"
fi
