#!/usr/bin/env bash
# Sets up a machine, builds everything and runs the whole test suite.
#   scripts/test.sh            normal build in build/
#   scripts/test.sh --sanitize AddressSanitizer + UndefinedBehaviorSanitizer build in build-asan/
set -euo pipefail
cd "$(dirname "$0")/.."

"scripts/setup.sh"

build_dir=build
cmake_args=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DNIMB_WERROR=ON)
if [ "${1:-}" = "--sanitize" ]; then
    build_dir=build-asan
    cmake_args=(-DCMAKE_BUILD_TYPE=Debug -DNIMB_WERROR=ON -DNIMB_SANITIZE=ON -DNIMB_BUILD_BENCH=OFF)
fi

jobs=$(nproc 2>/dev/null || echo 2)
# A compiler cache, when the machine has one, makes a second build of the same tree quick.
if command -v ccache >/dev/null 2>&1; then cmake_args+=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache); fi
cmake -S . -B "$build_dir" "${cmake_args[@]}" >/dev/null
cmake --build "$build_dir" -j "$jobs"
ctest --test-dir "$build_dir" --output-on-failure -j "$jobs" --timeout 600
