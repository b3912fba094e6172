#!/bin/sh
# SPDX-License-Identifier: MIT
# What the index costs the collector: e2e_bench runs with the index on and with it off
# ("IndexEnabled" 0, set by a wrapper that adds it to the settings e2e_bench wrote and then
# starts the collector), alternating, the order swapped every pair so that a change in the
# machine's load falls on both. For each request size it prints the medians of the
# collector's CPU per line (perf stat task-clock during the load, or the /proc figure
# without perf) and of its lines per second, on and off, their ratio and the median of
# the ratios of each pair.
#
# Each run: 8 devices, 13 logs each, LINES lines of 120 bytes per device (50 000), the
# request size given. On a machine shared with other work single runs spread by 20 % and
# more: take 9 pairs or more.
#
# usage: bench/e2e/index-cost.sh [-b BUILD] [-d DAEMON] [-n PAIRS] [-l LINES] [SIZES...]
#   -b BUILD   the build folder holding bench/e2e/e2e_bench (build)
#   -d DAEMON  the collector to run (the one built beside e2e_bench)
#   -n PAIRS   pairs of runs per request size (9)
#   -l LINES   lines each device pushes (50000)
#   SIZES      lines per request (1 8 34 512)
# Exits with 1 when a run failed.
set -eu

build=build
daemon=
pairs=9
lines=50000
while getopts b:d:n:l: option; do
    case $option in
    b) build=$OPTARG ;;
    d) daemon=$OPTARG ;;
    n) pairs=$OPTARG ;;
    l) lines=$OPTARG ;;
    *) sed -n 's/^# \{0,1\}//; /^usage:/,/^Exits/p' "$0" >&2; exit 64 ;;
    esac
done
shift $((OPTIND - 1))
[ $# -gt 0 ] || set -- 1 8 34 512

bench=$build/bench/e2e/e2e_bench
[ -x "$bench" ] || { echo "index-cost.sh: no $bench (build the e2e_bench target)" >&2; exit 1; }
[ -n "$daemon" ] || daemon=$build/src/remotelogger/NimbRemoteLogger
daemon=$(realpath "$daemon")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The collector without the index: e2e_bench exports XDG_CONFIG_HOME before starting it.
cat > "$work/without-index" <<EOF
#!/bin/sh
f="\$XDG_CONFIG_HOME/pellix/com.pellix.nimb.config.json"
sed -i 's/}\$/, "IndexEnabled": 0}/' "\$f"
exec "$daemon" "\$@"
EOF
chmod +x "$work/without-index"
perfStat=
command -v perf > /dev/null && perfStat="--perf-stat $work/perf.csv"

# One run: appends "MODE PAIR CPU_US_PER_LINE LINES_PER_S" to $work/runs.
run() {
    mode=$1 pair=$2 size=$3
    collector=$daemon
    [ "$mode" = off ] && collector=$work/without-index
    # shellcheck disable=SC2086
    if ! "$bench" --devices 8 --lines "$lines" --logs 13 --lines-per-request "$size" \
        --daemon "$collector" $perfStat > "$work/out" 2>&1 ||
        ! grep -q 'complete=1' "$work/out"; then
        echo "index-cost.sh: run failed (index $mode, $size lines per request):" >&2
        tail -5 "$work/out" >&2
        exit 1
    fi
    awk -v mode="$mode" -v pair="$pair" '
        /task-clock/ { for (i = 1; i <= NF; ++i) if ($i == "task-clock") clock = $(i + 1) }
        /^summary:/ {
            for (i = 2; i <= NF; ++i) { split($i, kv, "="); f[kv[1]] = kv[2] }
            cpu = clock != "" ? 1000 * clock / f["lines"] : f["collector_cpu_us_per_line"]
            print mode, pair, cpu, f["collector_lines_per_s"]
        }' "$work/out" >> "$work/runs"
}

printf '%8s %5s %21s %21s %17s %17s\n' lines/req pairs "CPU us/line on / off" \
    "lines/s on / off" "CPU on/off" "lines/s on/off"
for size in "$@"; do
    : > "$work/runs"
    pair=1
    while [ "$pair" -le "$pairs" ]; do
        if [ $((pair % 2)) -eq 1 ]; then
            run on "$pair" "$size"; run off "$pair" "$size"
        else
            run off "$pair" "$size"; run on "$pair" "$size"
        fi
        pair=$((pair + 1))
    done
    # Medians; the ratios as "ratio of the medians (median of the pairs' ratios)".
    sort -k2n -k1 "$work/runs" | awk -v size="$size" -v pairs="$pairs" '
        function median(a, n,   i, j, t) {
            for (i = 2; i <= n; ++i)
                for (j = i; j > 1 && a[j - 1] > a[j]; --j) { t = a[j]; a[j] = a[j - 1]; a[j - 1] = t }
            return n % 2 ? a[(n + 1) / 2] : (a[n / 2] + a[n / 2 + 1]) / 2
        }
        $1 == "off" { offCpu[$2] = $3; offRate[$2] = $4 }
        $1 == "on" { onCpu[$2] = $3; onRate[$2] = $4 }
        END {
            for (p = 1; p <= pairs; ++p) {
                a[p] = onCpu[p]; b[p] = offCpu[p]; c[p] = onRate[p]; d[p] = offRate[p]
                e[p] = onCpu[p] / offCpu[p]; g[p] = onRate[p] / offRate[p]
            }
            ma = median(a, pairs); mb = median(b, pairs); mc = median(c, pairs)
            md = median(d, pairs)
            printf "%8d %5d %10.3f / %-8.3f %10.0f / %-8.0f %6.3f (%6.3f) %6.3f (%6.3f)\n",
                size, pairs, ma, mb, mc, md, ma / mb, median(e, pairs), mc / md, median(g, pairs)
        }'
done
