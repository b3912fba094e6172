#!/usr/bin/env bash
# The two thread-safety checks CI runs:
#   1. clang's lock analysis: the libraries built with clang and -Wthread-safety as
#      errors, in build-tsa/ (only the analysis is an error there; clang's other
#      warnings are gcc's business in the normal build);
#   2. ThreadSanitizer over the thread, logger, device-log, bus, collector, syslog, alert
#      delivery and alert engine tests, in build-tsan/. The web console's other tests are
#      not among them: nimb-web hands its work
#      between threads through Qt's event queue, whose locks the sanitizer cannot see in
#      the distribution's (uninstrumented) Qt, so every hand-over would be reported.
# Only the targets those need are built, to keep CI time modest.
#   scripts/check-threads.sh [analysis|tsan]     (both when no argument)
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=$(nproc 2>/dev/null || echo 2)
what=${1:-all}
launcher=()
if command -v ccache >/dev/null 2>&1; then launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache); fi

if [ "$what" = all ] || [ "$what" = analysis ]; then
    # NIMB_TSAN leaves Breakpad out, which this build does not need.
    CC=clang CXX=clang++ cmake -S . -B build-tsa -DCMAKE_BUILD_TYPE=Debug -DNIMB_THREAD_SAFETY=ON \
        -DNIMB_TSAN=ON -DNIMB_BUILD_TESTS=OFF -DNIMB_BUILD_BENCH=OFF "${launcher[@]}" >/dev/null
    cmake --build build-tsa -j "$jobs" --target nimb_thread nimb_settings nimb_alerts nimb_log \
        nimb_devicelog nimb_filetools nimb_kib nimb_variant nimb_crash nimb_modulebase \
        nimb_remotelogger nimb_syslog nimb_web
fi

if [ "$what" = all ] || [ "$what" = tsan ]; then
    cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DNIMB_WERROR=ON -DNIMB_TSAN=ON \
        -DNIMB_BUILD_BENCH=OFF "${launcher[@]}" >/dev/null
    cmake --build build-tsan -j "$jobs" --target thread_tests log_tests devicelog_tests kib_tests \
        remotelogger_tests syslog_tests alerts_tests alert_engine_tests
    # The first report fails the program that caused it. Tests that fork a child that
    # crashes on purpose say so in their name (...ForksACrashingChild...) and are left
    # out: the sanitizer's own signal handling and the crash path would fight.
    export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 ${TSAN_OPTIONS:-}"
    for program in thread/thread_tests log/log_tests devicelog/devicelog_tests kib/kib_tests \
        remotelogger/remotelogger_tests syslog/syslog_tests alerts/alerts_tests \
        web/alert_engine_tests; do
        echo "== TSan: $program"
        "build-tsan/tests/$program" --gtest_filter='-*ForksACrashingChild*' --gtest_brief=1
    done
fi
