#!/usr/bin/env bash
# Configures and builds into ./build (or $BUILD_DIR). Extra arguments go to cmake's configure step.
set -euo pipefail
cd "$(dirname "$0")/.."
build_dir=${BUILD_DIR:-build}
cmake -S . -B "$build_dir" -DCMAKE_BUILD_TYPE=${BUILD_TYPE:-RelWithDebInfo} "$@" >/dev/null
cmake --build "$build_dir" -j"$(nproc)"
