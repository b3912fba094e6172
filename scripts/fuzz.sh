#!/usr/bin/env bash
# Short fuzz runs of the bus frame decoders and of the syslog parser (libFuzzer, clang
# only), each for the given time.
#   scripts/fuzz.sh [seconds]     default 60
# Builds in build-fuzz/ with clang, AddressSanitizer and UndefinedBehaviorSanitizer,
# starts from the committed seed corpora (fuzz/corpus and fuzz/syslog-corpus, left unchanged) and fails when
# the fuzzer finds a crash, a leak or an over-sized allocation. Without clang it says
# so and exits 0.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds="${1:-60}"
if ! command -v clang++ >/dev/null 2>&1 || ! command -v clang >/dev/null 2>&1; then
    echo "fuzz: clang not installed; skipping the fuzz run"
    exit 0
fi

build_dir=build-fuzz
flags="-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer -g"
CC=clang CXX=clang++ cmake -S . -B "$build_dir" -DCMAKE_BUILD_TYPE=Debug \
    -DNIMB_BUILD_TESTS=OFF -DNIMB_BUILD_BENCH=OFF \
    -DCMAKE_C_FLAGS="$flags" -DCMAKE_CXX_FLAGS="$flags" \
    -DCMAKE_EXE_LINKER_FLAGS="-fsanitize=address,undefined" >/dev/null
cmake --build "$build_dir" -j "$(nproc 2>/dev/null || echo 2)" --target kib_codec_fuzzer syslog_parser_fuzzer

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

# run_fuzzer <name> <seed folder>
run_fuzzer() {
    local name="$1" seeds="$2"
    mkdir -p "$work/$name/corpus" "$work/$name/artifacts"
    echo "fuzz: running $name for ${seconds}s"
    set +e
    "$build_dir/fuzz/$name" "$work/$name/corpus" "$seeds" \
        -max_total_time="$seconds" -max_len=65536 -rss_limit_mb=1024 -malloc_limit_mb=256 \
        -timeout=10 -print_final_stats=1 -artifact_prefix="$work/$name/artifacts/" 2>&1 | tail -n 20
    local status=${PIPESTATUS[0]}
    set -e
    if [ "$status" -ne 0 ]; then
        mkdir -p fuzz/findings
        cp "$work/$name"/artifacts/* fuzz/findings/ 2>/dev/null || true
        echo "fuzz: $name failed (status $status); inputs copied to fuzz/findings/"
        exit "$status"
    fi
}

run_fuzzer kib_codec_fuzzer fuzz/corpus
run_fuzzer syslog_parser_fuzzer fuzz/syslog-corpus
echo "fuzz: no findings"
