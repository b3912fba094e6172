#!/usr/bin/env bash
# Runs the collector by hand on this machine, with everything kept inside the checkout:
#
#   1. installs what is missing (scripts/setup.sh) and builds the programs (not the tests)
#      in build/, then installs them into run/install/ (the daemon finds its crash
#      reporter there, beside the "NimbLauncher" marker);
#   2. starts a nats-server (the bus directory) on 127.0.0.1, port 4222 when it is free,
#      otherwise the next free port up to 4299 (NIMB_RUN_PORT=<port> picks one);
#   3. writes the collector's settings into run/config/ (used through XDG_CONFIG_HOME, so
#      the real ~/.config is never touched): logs into run/logs/, crash dumps into
#      run/dumps/ (TMPDIR), log level INFO;
#   4. starts the web console nimb-web on 127.0.0.1:8470 (or the next free port up to
#      8499; NIMB_RUN_WEB_PORT=<port> picks one) and prints its address;
#   5. prints how to push a log from another terminal and runs the collector in the
#      foreground. Ctrl-C stops the collector, then the script stops nimb-web and the
#      nats-server.
#
# Re-runnable: the collector and nats-server of an earlier run that was killed are
# stopped first; settings are rewritten; logs are kept.
#
# `scripts/run.sh --secure` runs the bus as devices on the network would use it, still
# on 127.0.0.1: nimb-bus-setup writes a CA, certificates and accounts into run/bus/, the
# server requires TLS and credentials, and a device "local" is issued for the examples.
# The server's pid file is then run/bus/nats-server.pid, the one nimb-bus-setup --dir
# run/bus signals when devices are added or revoked. The collector's account is named
# by its own setting (CollectorCredsFile), so the tools run with run/config never
# connect as the collector: they take a device's file with --creds.
set -euo pipefail
secure=0
case ${1:-} in
    --secure) secure=1 ;;
    "") ;;
    *) echo "usage: scripts/run.sh [--secure]" >&2; exit 64 ;;
esac
cd "$(dirname "$0")/.."
root=$PWD
run_dir=$root/run
prefix=$run_dir/install
plain_pid_file=$run_dir/nats-server.pid
secure_pid_file=$run_dir/bus/nats-server.pid
nats_pid_file=$plain_pid_file
[ "$secure" -eq 0 ] || nats_pid_file=$secure_pid_file
collector_pid_file=$run_dir/collector.pid
web_pid_file=$run_dir/nimb-web.pid

scripts/setup.sh

# The same configuration as scripts/test.sh, so that both share build/ without rebuilding.
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DNIMB_WERROR=ON >/dev/null
cmake --build build -j "$(nproc 2>/dev/null || echo 2)" --target nimb_programs
cmake --install build --prefix "$prefix" >/dev/null

mkdir -p "$run_dir/config" "$run_dir/logs" "$run_dir/dumps"

nats_server=$(command -v nats-server || true)
for candidate in /usr/sbin/nats-server /usr/bin/nats-server; do
    if [ -z "$nats_server" ] && [ -x "$candidate" ]; then nats_server=$candidate; fi
done
if [ -z "$nats_server" ]; then
    echo "run: nats-server not found (scripts/setup.sh installs it)" >&2
    exit 1
fi

# True when something accepts connections on 127.0.0.1:$1.
listening() {
    (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null
}

# Stops what an earlier run of this script left running when it was killed: its
# collector and its nats-server, recognised by their pid files and command lines.
stop_previous() {
    local pid_file=$1 marker=$2 what=$3 pid
    [ -f "$pid_file" ] || return 0
    pid=$(cat "$pid_file" 2>/dev/null || true)
    if [ -n "$pid" ] && tr '\0' ' ' <"/proc/$pid/cmdline" 2>/dev/null | grep -q -- "$marker"; then
        echo "run: stopping the $what left by an earlier run (pid $pid)"
        kill "$pid" 2>/dev/null || true
        for _ in $(seq 50); do
            kill -0 "$pid" 2>/dev/null || break
            sleep 0.1
        done
    fi
    rm -f "$pid_file"
}

nats_pid=""
web_pid=""
# shellcheck disable=SC2317 # run from the EXIT trap
stop_server() {
    if [ -n "$web_pid" ] && kill -0 "$web_pid" 2>/dev/null; then
        kill "$web_pid" 2>/dev/null || true
        wait "$web_pid" 2>/dev/null || true
        echo "run: nimb-web stopped"
    fi
    web_pid=""
    rm -f "$web_pid_file"
    if [ -n "$nats_pid" ] && kill -0 "$nats_pid" 2>/dev/null; then
        kill "$nats_pid" 2>/dev/null || true
        for _ in $(seq 50); do
            kill -0 "$nats_pid" 2>/dev/null || break
            sleep 0.1
        done
        kill -9 "$nats_pid" 2>/dev/null || true
        wait "$nats_pid" 2>/dev/null || true
        echo "run: nats-server stopped"
    fi
    nats_pid=""
    rm -f "$nats_pid_file" "$collector_pid_file"
}

stop_previous "$collector_pid_file" "$prefix/bin/NimbRemoteLogger" collector
stop_previous "$plain_pid_file" "--pid $plain_pid_file" nats-server
stop_previous "$secure_pid_file" "--pid $secure_pid_file" nats-server
stop_previous "$web_pid_file" "$prefix/bin/nimb-web" nimb-web

if [ -n "${NIMB_RUN_PORT:-}" ]; then
    port=$NIMB_RUN_PORT
    if listening "$port"; then
        echo "run: port $port on 127.0.0.1 is already taken" >&2
        exit 1
    fi
else
    port=""
    for candidate in $(seq 4222 4299); do
        if ! listening "$candidate"; then
            port=$candidate
            break
        fi
    done
    if [ -z "$port" ]; then
        echo "run: no free port between 4222 and 4299 on 127.0.0.1 (set NIMB_RUN_PORT)" >&2
        exit 1
    fi
fi

export XDG_CONFIG_HOME=$run_dir/config
export TMPDIR=$run_dir/dumps
bin=$prefix/bin
config_key='Software\Pellix\Nimb\Config'
server_args=(-a 127.0.0.1 -p "$port")
if [ "$secure" -eq 1 ]; then
    "$bin/nimb-bus-setup" --dir "$run_dir/bus" --listen 127.0.0.1 --port "$port" init >/dev/null
    [ -e "$run_dir/bus/devices/local.creds" ] ||
        "$bin/nimb-bus-setup" --dir "$run_dir/bus" add-device local >/dev/null
    server_args=(-c "$run_dir/bus/nats-server.conf")
else
    # Back to plain loopback after an earlier --secure run.
    for name in kibDirectory.caFile kibDirectory.credsFile CollectorCredsFile; do
        "$bin/nimb-defaults" delete "$config_key" "$name" 2>/dev/null || true
    done
    "$bin/nimb-defaults" delete 'Software\Pellix\Nimb\Web' BusCredsFile 2>/dev/null || true
fi

trap stop_server EXIT
# The server runs in a session of its own: the terminal's Ctrl-C reaches the collector
# only, which leaves the bus in order; the server is stopped after it.
setsid "$nats_server" "${server_args[@]}" --pid "$nats_pid_file" \
    -l "$run_dir/nats-server.log" </dev/null &
nats_pid=$!
for _ in $(seq 100); do
    listening "$port" && break
    if ! kill -0 "$nats_pid" 2>/dev/null; then
        echo "run: nats-server did not start; see $run_dir/nats-server.log" >&2
        exit 1
    fi
    sleep 0.1
done
if ! listening "$port"; then
    echo "run: nats-server does not accept connections on 127.0.0.1:$port" >&2
    exit 1
fi

"$bin/nimb-defaults" write "$config_key" kibDirectory.host -string "127.0.0.1:$port"
"$bin/nimb-defaults" write 'Software\Pellix\Nimb' LogsDir -string "$run_dir/logs"
"$bin/nimb-defaults" write 'Software\Pellix\Nimb' LogLevel -int 3

web_port=${NIMB_RUN_WEB_PORT:-}
if [ -z "$web_port" ]; then
    for candidate in $(seq 8470 8499); do
        if ! listening "$candidate"; then
            web_port=$candidate
            break
        fi
    done
fi
if [ -z "$web_port" ] || listening "$web_port"; then
    echo "run: no free port for nimb-web (8470-8499 or NIMB_RUN_WEB_PORT)" >&2
    exit 1
fi
"$bin/nimb-web" --listen "127.0.0.1:$web_port" >"$run_dir/nimb-web.log" 2>&1 </dev/null &
web_pid=$!
echo "$web_pid" >"$web_pid_file"
for _ in $(seq 50); do
    listening "$web_port" && break
    sleep 0.1
done
if ! listening "$web_port"; then
    echo "run: nimb-web did not start; see $run_dir/nimb-web.log" >&2
    exit 1
fi

now=$(date -u +%Y-%m-%dT%H:%M:%SZ)
cat <<EOF

run: nats-server on 127.0.0.1:$port (pid $nats_pid, log run/nats-server.log)
run: settings in run/config/pellix/, logs in run/logs/, crash dumps in run/dumps/
run: web console at http://127.0.0.1:$web_port/ (log run/nimb-web.log)
EOF
device_options=""
if [ "$secure" -eq 1 ]; then
    device_options=" --ca run/bus/ca.pem --creds run/bus/devices/local.creds"
    cat <<EOF
run: TLS and accounts from run/bus/ (nimb-bus-setup); device credentials: run/bus/devices/
run: the settings in run/config/ hold no device credentials: pass one with --creds, as below.

Devices (the running server reloads its accounts at once; in $root):

  run/install/bin/nimb-bus-setup --dir run/bus list-devices
  run/install/bin/nimb-bus-setup --dir run/bus add-device NAME      # run/bus/devices/NAME.creds
  run/install/bin/nimb-bus-setup --dir run/bus revoke-device NAME
EOF
fi
cat <<EOF

Push a log from another terminal (in $root):

EOF
if [ -x "$bin/nimb-logpush" ]; then
    cat <<EOF
  run/install/bin/nimb-logpush --host 127.0.0.1:$port$device_options --log demo README.md
  ls run/logs      # <host name><MAC address without colons>-demo

or call the services directly:

EOF
fi
cat <<EOF
  run/install/bin/kib-call --host 127.0.0.1:$port$device_options RemoteLogger SetLogSource \\
    '["00:11:22:33:44:55", "puck-7", "Living room", {"date":"$now"}, {"str[]":["system.log"]}]'
  run/install/bin/kib-call --host 127.0.0.1:$port$device_options RemoteLogger AppendLog \\
    '["00:11:22:33:44:55", "system.log", "2026/11/22 10:00:00 hello\\n", {"date":"$now"}]'

  cat run/logs/puck-7001122334455-system.log

The collector's own log is run/logs/NimbRemoteLogger.log. Ctrl-C stops everything.

EOF

# Ctrl-C reaches the collector through the terminal (it installs its own handler, so it
# gets the signal although it runs as a background job of this script); SIGTERM or
# SIGHUP sent to the script are passed on to it. The collector exits with 0 after any of
# them; the script then stops the server (EXIT trap).
"$bin/NimbRemoteLogger" &
daemon_pid=$!
echo "$daemon_pid" >"$collector_pid_file"
# shellcheck disable=SC2317 # run from the signal traps
forward() {
    kill "-$1" "$daemon_pid" 2>/dev/null || true
}
trap 'forward INT' INT
trap 'forward TERM' TERM
trap 'forward HUP' HUP
status=0
while kill -0 "$daemon_pid" 2>/dev/null; do
    # wait returns early (above 128) when a trapped signal arrives; wait again then.
    wait "$daemon_pid" && status=0 || status=$?
done
exit "$status"
