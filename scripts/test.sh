#!/usr/bin/env bash
# Installs what is missing, builds, and runs the whole test suite of each web engine flavour:
# webengine (Qt 6 + QtWebEngine) and webkit (Qt 5 + QtWebKit) on Debian 12, webengine on
# Debian 13. VORSANE_WEB_ENGINE=webengine|webkit|both picks them; each builds into
# ${BUILD_DIR:-build}-<flavour>. Tests that need a real X server get a private Xvfb when no
# display is available. Extra arguments go to cmake (-DVORSANE_SANITIZE=ON for ASan/UBSan).
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/flavours.sh

release=$(debian_codename)
default=webengine
[ "$release" != bookworm ] || default=both
flavours=$(flavours_for "${VORSANE_WEB_ENGINE:-}" "$release" "$default") || exit 2
if ! tree_has_flavours; then
    [ "$release" = bookworm ] || { echo "This source tree builds only the Qt 5 + QtWebKit flavour, which $(debian_name "$release") cannot build." >&2; exit 2; }
    echo "This source tree builds only the Qt 5 + QtWebKit flavour: testing that one."
    flavours=webkit
fi
bash scripts/install-deps.sh $flavours
[[ " $flavours " != *" webengine "* ]] || sandbox_off_for_root

prefix=${BUILD_DIR:-build}
ctest_args=(--output-on-failure -j"$(nproc)" --timeout 300)
failed=()
summary=()
for flavour in $flavours; do
    build_dir=$prefix-$flavour
    echo "=== $flavour: building in $build_dir"
    start=$SECONDS
    if ! BUILD_DIR=$build_dir bash scripts/build.sh -DVORSANE_WEB_ENGINE="$flavour" "$@"; then
        failed+=("$flavour (build)")
        summary+=("$flavour: build failed after $((SECONDS - start)) s")
        continue
    fi
    built=$((SECONDS - start))
    echo "=== $flavour: testing"
    start=$SECONDS
    status=0
    if [ -n "${DISPLAY:-}" ]; then
        (cd "$build_dir" && ctest "${ctest_args[@]}") || status=$?
    else
        (cd "$build_dir" && xvfb-run -a -s "-screen 0 1280x720x24 -nolisten tcp" ctest "${ctest_args[@]}") || status=$?
    fi
    [ $status = 0 ] || failed+=("$flavour (tests)")
    summary+=("$flavour: built in $built s, tests $([ $status = 0 ] && echo passed || echo FAILED) in $((SECONDS - start)) s")
done

echo "=== Summary ($(debian_name "$release"))"
printf '  %s\n' "${summary[@]}"
if [ ${#failed[@]} -gt 0 ]; then
    echo "Failed: ${failed[*]}"
    exit 1
fi
