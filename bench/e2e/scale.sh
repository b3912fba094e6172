#!/bin/sh
# SPDX-License-Identifier: MIT
# Many small logs: the collector's threads, open files and resident memory once 5 000 and
# then 20 000 logs are announced and written, beside the bounds it is meant to keep
# (at most 16 threads, 1024 + 32 open files, 64 MiB resident up to 5 000 logs and
# 128 MiB up to 20 000).
#
# Each point is one e2e_bench run: 10 devices, each announcing LOGS / 25 sources (one MAC
# address each) of 1 to 4 logs (2.5 on average), then pushing 5 lines of 120 bytes into
# every log, one line per request, round-robin over its logs. The bus and the collector
# stay on 127.0.0.1; e2e_bench removes its folder under /tmp afterwards.
#
# A collector that holds two descriptors per announced log needs twice LOGS open files:
# check `ulimit -n` before giving it the larger points.
#
# usage: bench/e2e/scale.sh [-b BUILD] [-d DAEMON] [-r RUNS] [LOGS...]
#   -b BUILD   the build folder holding bench/e2e/e2e_bench (build)
#   -d DAEMON  the collector to run (the one built beside e2e_bench)
#   -r RUNS    runs of each point (1)
#   LOGS       logs announced in all, multiples of 25 (5000 20000)
# Exits with 1 when a run failed or a figure is past its bound.
set -eu

build=build
daemon=
runs=1
while getopts b:d:r: option; do
    case $option in
    b) build=$OPTARG ;;
    d) daemon=$OPTARG ;;
    r) runs=$OPTARG ;;
    *) sed -n 's/^# \{0,1\}//; /^usage:/,/^$/p' "$0" >&2; exit 64 ;;
    esac
done
shift $((OPTIND - 1))
[ $# -gt 0 ] || set -- 5000 20000

bench=$build/bench/e2e/e2e_bench
[ -x "$bench" ] || { echo "scale.sh: no $bench (build the e2e_bench target)" >&2; exit 1; }
output=$(mktemp)
trap 'rm -f "$output"' EXIT

printf '%7s %4s %8s %10s %11s %9s %9s %7s %s\n' logs run threads "open files" \
    "VmRSS MiB" "VmHWM MiB" "lines/s" checks "within the bounds"
status=0
for logs in "$@"; do
    if [ $((logs % 25)) -ne 0 ] || [ "$logs" -lt 25 ]; then
        echo "scale.sh: $logs is not a positive multiple of 25" >&2
        exit 64
    fi
    sources=$((logs / 25))
    lines=$((logs / 10 * 5))
    rss_bound=128
    [ "$logs" -le 5000 ] && rss_bound=64
    run=1
    while [ "$run" -le "$runs" ]; do
        set -- --devices 10 --sources "$sources" --logs 1-4 --lines "$lines" \
            --lines-per-request 1 --lone-requests 100
        [ -n "$daemon" ] && set -- "$@" --daemon "$daemon"
        checks=ok
        "$bench" "$@" >"$output" 2>&1 || { checks=FAILED; status=1; }
        summary=$(grep '^summary:' "$output" || true)
        if [ -z "$summary" ]; then
            echo "scale.sh: the run of $logs logs gave no figures:" >&2
            cat "$output" >&2
            exit 1
        fi
        echo "$summary" | tr ' ' '\n' | awk -F= -v logs="$logs" -v run="$run" \
            -v checks="$checks" -v rss_bound="$rss_bound" '
            { v[$1] = $2 }
            END {
                over = ""
                if (v["threads"] > 16) over = over " threads"
                if (v["open_files"] > 1024 + 32) over = over " open-files"
                if (v["rss_mib"] > rss_bound || v["hwm_mib"] > rss_bound) over = over " memory"
                printf "%7d %4d %8d %10d %11.1f %9.1f %9d %7s %s\n", logs, run, v["threads"],
                    v["open_files"], v["rss_mib"], v["hwm_mib"], v["collector_lines_per_s"],
                    checks, over == "" ? "yes" : "no:" over
                exit over != ""
            }' || status=1
        run=$((run + 1))
    done
done
exit $status
