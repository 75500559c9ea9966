#!/usr/bin/env bash
# Configures and builds into ./build (or $BUILD_DIR). Extra arguments go to cmake's configure step.
set -euo pipefail
cd "$(dirname "$0")/.."
build_dir=${BUILD_DIR:-build}
launcher=()
# ccache, when present, lets several build directories share compiled objects.
if command -v ccache >/dev/null; then
    export CCACHE_BASEDIR=${CCACHE_BASEDIR:-$PWD}
    launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
cmake -S . -B "$build_dir" -DCMAKE_BUILD_TYPE=${BUILD_TYPE:-RelWithDebInfo} "${launcher[@]}" "$@" >/dev/null
cmake --build "$build_dir" -j"$(nproc)"
