#!/usr/bin/env bash
# Debian's rsyslog as a reference receiver for side-by-side benchmarks (never a
# dependency of the product). Installs the package when it is missing, without letting
# its install start the system service.
#
#   rsyslog.sh start PORT OUTDIR   starts rsyslogd in the foreground mode, detached,
#                                  taking TCP syslog (both framings) on 127.0.0.1:PORT and
#                                  writing one file per sender host, OUTDIR/<host>.log,
#                                  in the traditional file format; prints its pid once
#                                  the port accepts connections
#   rsyslog.sh stop PID            stops it (SIGTERM, then SIGKILL after 10 s)
#
# Its configuration and work files go to OUTDIR/.rsyslog; the log of rsyslogd itself to
# OUTDIR/.rsyslog/rsyslogd.txt.
set -euo pipefail

install_rsyslog() {
    command -v rsyslogd >/dev/null 2>&1 && return 0
    local sudo=""
    if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
    local policy=/usr/sbin/policy-rc.d planted=""
    if [ ! -e "$policy" ]; then
        # Keeps the package's scripts from starting the system's rsyslog service.
        printf '#!/bin/sh\nexit 101\n' | $sudo tee "$policy" >/dev/null
        $sudo chmod 755 "$policy"
        planted=1
    fi
    echo "rsyslog.sh: installing rsyslog" >&2
    export DEBIAN_FRONTEND=noninteractive
    $sudo apt-get update -qq >/dev/null
    $sudo apt-get install -y -qq --no-install-recommends rsyslog >/dev/null
    if [ -n "$planted" ]; then $sudo rm -f "$policy"; fi
}

start() {
    local port="$1" out="$2"
    install_rsyslog
    mkdir -p "$out/.rsyslog"
    out="$(cd "$out" && pwd)"
    local conf="$out/.rsyslog/rsyslog.conf"
    cat >"$conf" <<CONF
global(workDirectory="$out/.rsyslog")
module(load="imtcp" MaxSessions="256")
input(type="imtcp" address="127.0.0.1" port="$port")
template(name="perHost" type="string" string="$out/%HOSTNAME%.log")
*.* action(type="omfile" dynaFile="perHost" template="RSYSLOG_TraditionalFileFormat")
CONF
    rsyslogd -n -f "$conf" -i "$out/.rsyslog/rsyslogd.pid" \
        >"$out/.rsyslog/rsyslogd.txt" 2>&1 </dev/null &
    local pid=$!
    for _ in $(seq 1 500); do
        if (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then
            echo "$pid"
            return 0
        fi
        if ! kill -0 "$pid" 2>/dev/null; then break; fi
        sleep 0.02
    done
    echo "rsyslog.sh: rsyslogd did not open port $port:" >&2
    cat "$out/.rsyslog/rsyslogd.txt" >&2
    kill "$pid" 2>/dev/null || true
    return 1
}

stop() {
    local pid="$1"
    kill "$pid" 2>/dev/null || return 0
    for _ in $(seq 1 500); do
        kill -0 "$pid" 2>/dev/null || return 0
        sleep 0.02
    done
    kill -9 "$pid" 2>/dev/null || true
}

case "${1:-}" in
    start) [ $# -eq 3 ] || { echo "usage: $0 start PORT OUTDIR" >&2; exit 2; }; start "$2" "$3" ;;
    stop) [ $# -eq 2 ] || { echo "usage: $0 stop PID" >&2; exit 2; }; stop "$2" ;;
    *) echo "usage: $0 start PORT OUTDIR | stop PID" >&2; exit 2 ;;
esac
