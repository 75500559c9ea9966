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
# Most tests wait on timers and the program under test, not on the processor.
ctest_args=(--output-on-failure -j"$(($(nproc) * 2))" --timeout 300)
failed=()
summary=()
tests_passed=0 tests_failed=0
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
        (cd "$build_dir" && ctest "${ctest_args[@]}") 2>&1 | tee "$build_dir/ctest.log" || status=$?
    else
        (cd "$build_dir" && xvfb-run -a -s "-screen 0 1280x720x24 -nolisten tcp -noreset" ctest "${ctest_args[@]}") 2>&1 \
            | tee "$build_dir/ctest.log" || status=$?
    fi
    [ $status = 0 ] || failed+=("$flavour (tests)")
    counts=$(sed -n 's/.*tests passed, \([0-9]*\) tests\{0,1\} failed out of \([0-9]*\)$/\1 \2/p' "$build_dir/ctest.log" | tail -1)
    if [ -n "$counts" ]; then
        read -r f n <<<"$counts"
        tests_failed=$((tests_failed + f)) tests_passed=$((tests_passed + n - f))
    fi
    summary+=("$flavour: built in $built s, tests $([ $status = 0 ] && echo passed || echo FAILED) in $((SECONDS - start)) s")
done

echo "=== Summary ($(debian_name "$release"))"
printf '  %s\n' "${summary[@]}"
echo "tests: $tests_passed passed, $tests_failed failed"
if [ ${#failed[@]} -gt 0 ]; then
    echo "Failed: ${failed[*]}"
    exit 1
fi
