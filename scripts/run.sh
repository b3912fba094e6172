#!/usr/bin/env bash
# Sets up the machine, builds, and (once the collector exists) runs it against a
# loopback bus in the foreground.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc 2>/dev/null || echo 2)"
echo "run: the libraries are built; the collector daemon is not part of this build yet."
