#!/usr/bin/env bash
# Side by side, in one run on one machine: Debian's rsyslog (imtcp on a free loopback
# port, one file per sender) and the collector (e2e_bench) on the same number of lines
# of the same size: SENDERS x LINES lines of 120 bytes, which the collector gets in
# 4 KiB requests (34 lines) and then in 64 KiB requests (546 lines, as nimb-logpush
# sends a file). Prints each one's lines per second and CPU time per line, and the
# collector's ratios to rsyslog. rsyslog is a reference only: bench/reference/rsyslog.sh
# starts it (and installs the package when it is missing); the product never needs it.
#
#   bench/reference/e2e-vs-rsyslog.sh [BUILD_DIR]      (default: build)
#   environment: SENDERS (8), LINES (100000 per sender), RSYSLOG_LAUNCHER (rsyslog.sh here)
set -euo pipefail

here="$(cd "$(dirname "$0")" && pwd)"
build="$(cd "${1:-$here/../../build}" && pwd)"
launcher="${RSYSLOG_LAUNCHER:-$here/rsyslog.sh}"
senders="${SENDERS:-8}"
lines="${LINES:-100000}"
line_bytes=120
e2e="$build/bench/e2e/e2e_bench"
[ -x "$e2e" ] || { echo "e2e-vs-rsyslog: $e2e is missing; build the target e2e_bench" >&2; exit 1; }
[ -x "$launcher" ] || { echo "e2e-vs-rsyslog: no rsyslog launcher at $launcher" >&2; exit 1; }

work="$(mktemp -d /tmp/nimb-vs-rsyslog-XXXXXX)"
rsyslog_pid=""
cleanup() {
    if [ -n "$rsyslog_pid" ]; then "$launcher" stop "$rsyslog_pid" || true; fi
    rm -rf "$work"
}
trap cleanup EXIT

# A loopback port nobody listens on.
free_port() {
    local port
    for _ in $(seq 1 100); do
        port=$((20000 + RANDOM % 20000))
        if ! (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then
            echo "$port"
            return 0
        fi
    done
    return 1
}

# CPU seconds (user + system, all threads) of a process so far.
cpu_seconds() {
    awk -v tick="$(getconf CLK_TCK)" '{ sub(/.*\) /, ""); print ($12 + $13) / tick }' "/proc/$1/stat"
}

now() { date +%s.%N; }

# Evaluates an arithmetic expression with decimals.
calc() { awk "BEGIN { print $1 }"; }

# One file per sender: RFC 3164 lines of exactly $line_bytes bytes, newline included.
for s in $(seq 1 "$senders"); do
    awk -v n="$lines" -v host="bench-h$s" -v size="$line_bytes" 'BEGIN {
        pad = sprintf("%*s", size, ""); gsub(/ /, "x", pad)
        for (i = 0; i < n; i++) {
            head = sprintf("<13>Nov 22 10:%02d:%02d %s bench: line %06d ", int(i / 60) % 60, i % 60, host, i)
            print head substr(pad, 1, size - 1 - length(head))
        }
    }' >"$work/sender$s.txt"
done

port="$(free_port)"
mkdir -p "$work/rsyslog"
rsyslog_pid="$("$launcher" start "$port" "$work/rsyslog")"
cpu_before="$(cpu_seconds "$rsyslog_pid")"
start="$(now)"
for s in $(seq 1 "$senders"); do
    (cat "$work/sender$s.txt" >"/dev/tcp/127.0.0.1/$port") &
done
wait
complete=""
for _ in $(seq 1 6000); do
    complete=1
    for s in $(seq 1 "$senders"); do
        file="$work/rsyslog/bench-h$s.log"
        if [ ! -f "$file" ] || [ "$(wc -l <"$file")" -lt "$lines" ]; then complete=""; break; fi
    done
    [ -n "$complete" ] && break
    sleep 0.02
done
end="$(now)"
cpu_after="$(cpu_seconds "$rsyslog_pid")"
"$launcher" stop "$rsyslog_pid"
rsyslog_pid=""
if [ -z "$complete" ]; then
    echo "e2e-vs-rsyslog: rsyslog did not write every line within 120 s" >&2
    exit 1
fi
total=$((senders * lines))
rs_rate="$(calc "$total / ($end - $start)")"
rs_cpu="$(calc "($cpu_after - $cpu_before) * 1000000 / $total")"

# The collector with the same count of lines of the same size.
collector() {
    "$e2e" --devices "$senders" --lines "$lines" --line-bytes "$line_bytes" \
        --lines-per-request "$1" | tee "$work/e2e-$1.txt" | grep '^summary:' ||
        { cat "$work/e2e-$1.txt" >&2; echo "e2e-vs-rsyslog: e2e_bench failed" >&2; exit 1; }
}
field() { sed -n "s/.* $1=\([0-9.]*\).*/\1/p" <<<"$2"; }
small="$(collector 34)"
bulk="$(collector 546)"

printf '%s x %s lines of %s bytes; %s, %s cores\n' "$senders" "$lines" "$line_bytes" \
    "$(uname -sr)" "$(nproc)"
printf '%-36s %12s %12s %10s %10s\n' "" "lines/s" "CPU us/line" "rate" "CPU/line"
row() {
    printf '%-36s %12.0f %12.2f %9.2fx %9.2fx\n' "$1" "$2" "$3" \
        "$(calc "$2 / $rs_rate")" "$(calc "$3 / $rs_cpu")"
}
row "rsyslog, imtcp, one file per sender" "$rs_rate" "$rs_cpu"
row "collector, 4 KiB requests" "$(field collector_lines_per_s "$small")" \
    "$(field collector_cpu_us_per_line "$small")"
row "collector, 64 KiB requests" "$(field collector_lines_per_s "$bulk")" \
    "$(field collector_cpu_us_per_line "$bulk")"
printf '(rate and CPU/line: the row against rsyslog; the collector counts until every line\n'
printf ' is in its file, as rsyslog is counted)\n'
