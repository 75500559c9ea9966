#!/usr/bin/env bash
# Builds the libFuzzer targets into ./build-fuzz (or $FUZZ_BUILD_DIR) and runs each in turn for
# the given number of seconds (default 60). Seeds come from fuzz/corpus/<target>; what a run
# finds is kept in build-fuzz/corpus/<target>, crashing inputs in build-fuzz/artifacts/<target>.
# FUZZ_PARALLEL=n runs n targets at once. Prints executions and crashes per target; exits 1 if
# any target crashed.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
build_dir=${FUZZ_BUILD_DIR:-build-fuzz}
targets=(xmlplaylist flatplaylist desktoplink cachetag cookierow datagram restriction remoteserver)
if [ -n "${FUZZ_TARGETS:-}" ]; then
    read -r -a targets <<<"$FUZZ_TARGETS"
fi

if ! command -v clang++-15 >/dev/null || [ ! -d /usr/lib/llvm-15/lib/clang ]; then
    sudo=(); [ "$(id -u)" -eq 0 ] || sudo=(sudo)
    "${sudo[@]}" apt-get update -qq
    "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends \
        clang-15 libfuzzer-15-dev </dev/null
fi
bash scripts/install-deps.sh
launcher=()
if command -v ccache >/dev/null; then
    export CCACHE_BASEDIR=${CCACHE_BASEDIR:-$PWD}
    launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
CC=clang-15 CXX=clang++-15 cmake -S . -B "$build_dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DVORSANE_FUZZ=ON -DVORSANE_BUILD_TESTS=OFF "${launcher[@]}" >/dev/null
cmake --build "$build_dir" -j"$(nproc)" --target "${targets[@]/#/fuzz_}"

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=0:allocator_may_return_null=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
export QT_QPA_PLATFORM=offscreen
# Runs one target; its figures go to its log.
run_target() {
    local target=$1 status=0
    local corpus="$build_dir/corpus/$target" artifacts="$build_dir/artifacts/$target/"
    mkdir -p "$corpus" "$artifacts"
    # The datagram target gives up root; what it writes must stay writable for it.
    chmod 0777 "$corpus" "$artifacts"
    "$build_dir/fuzz/fuzz_$target" "$corpus" "fuzz/corpus/$target" \
        -max_total_time="$seconds" -timeout=20 -rss_limit_mb=2048 -max_len=65536 \
        -artifact_prefix="$artifacts" -print_final_stats=1 >"$build_dir/fuzz-$target.log" 2>&1 \
        || status=$?
    echo "$status" >"$build_dir/fuzz-$target.status"
}

# FUZZ_PARALLEL targets run at once (default 1).
parallel=${FUZZ_PARALLEL:-1}
for target in "${targets[@]}"; do
    while [ "$(jobs -rp | wc -l)" -ge "$parallel" ]; do
        wait -n || true
    done
    run_target "$target" &
done
wait

failed=0
for target in "${targets[@]}"; do
    log="$build_dir/fuzz-$target.log"
    status=$(cat "$build_dir/fuzz-$target.status")
    execs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$' || true)
    crashes=$(find "$build_dir/artifacts/$target/" -type f | wc -l)
    echo "$target: ${execs:-?} executions, $crashes crashing inputs (exit $status)"
    if [ "$status" -ne 0 ] || [ "$crashes" -ne 0 ]; then
        failed=1
    fi
done
exit $failed
