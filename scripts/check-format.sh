#!/usr/bin/env bash
# Fails when a C++ file under src/, tests/ or bench/ is not clang-format clean.
set -euo pipefail
cd "$(dirname "$0")/.."
files=$(git ls-files 'src/*.cpp' 'src/*.h' 'tests/*.cpp' 'tests/*.h' 'bench/*.cpp' 'bench/*.h')
[ -z "$files" ] && exit 0
# shellcheck disable=SC2086
clang-format --dry-run --Werror $files
