#!/usr/bin/env python3
"""Time from an acknowledged line to its alert notification.

Runs a local bus (nats-server on loopback), the collector and nimb-web from a build
folder in a temporary settings home, with an HTTP receiver on loopback as the alert
channel and one rule (quiet period 0, so every line is its own notification). Sends
COUNT matching lines one at a time with kib-call; a line counts as acknowledged when
kib-call returns (the collector answered), and the time until the receiver has the
notification naming it is recorded. Prints p50, p90, p99 and the largest.

    bench/web/alert_latency.py [--build build] [--count 100]
"""
import argparse
import http.server
import json
import os
import shutil
import socket
import statistics
import subprocess
import sys
import tempfile
import threading
import time
import urllib.request


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def wait_for(predicate, seconds, what):
    end = time.time() + seconds
    while time.time() < end:
        if predicate():
            return
        time.sleep(0.005)
    sys.exit("alert_latency: timed out waiting for " + what)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--build", default="build")
    parser.add_argument("--count", type=int, default=100)
    args = parser.parse_args()
    build = os.path.abspath(args.build)
    programs = {
        "collector": build + "/src/remotelogger/NimbRemoteLogger",
        "web": build + "/src/tools/nimb-web/nimb-web",
        "call": build + "/src/tools/kib-call/kib-call",
    }
    for path in programs.values():
        if not os.access(path, os.X_OK):
            sys.exit("alert_latency: build it first: " + path)

    root = tempfile.mkdtemp(prefix="nimb-alert-bench-")
    children = []
    received = []  # (arrival time, body)
    lock = threading.Lock()

    class Hook(http.server.BaseHTTPRequestHandler):
        def do_POST(self):
            body = self.rfile.read(int(self.headers.get("Content-Length", "0")))
            with lock:
                received.append((time.time(), body.decode("utf-8", "replace")))
            self.send_response(200)
            self.send_header("Content-Length", "0")
            self.end_headers()

        def log_message(self, *unused):
            pass

    receiver = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Hook)
    threading.Thread(target=receiver.serve_forever, daemon=True).start()
    try:
        for folder in ("cfg/pellix", "logs", "state", "tmp"):
            os.makedirs(os.path.join(root, folder))
        env = dict(os.environ, XDG_CONFIG_HOME=root + "/cfg", XDG_STATE_HOME=root + "/state",
                   TMPDIR=root + "/tmp")
        with open(root + "/cfg/pellix/com.pellix.nimb.json", "w") as f:
            json.dump({"LogLevel": 3, "LogsDir": root + "/logs"}, f)
        bus = free_port()
        with open(root + "/cfg/pellix/com.pellix.nimb.config.json", "w") as f:
            json.dump({"kibDirectory.host": "127.0.0.1:%d" % bus}, f)
        children.append(subprocess.Popen(["nats-server", "-a", "127.0.0.1", "-p", str(bus)],
                                         stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL))
        collector_out = open(root + "/collector.txt", "w+")
        children.append(subprocess.Popen([programs["collector"]], env=env,
                                         stdout=collector_out, stderr=subprocess.STDOUT))
        wait_for(lambda: "connected" in open(root + "/collector.txt").read(), 20, "the collector")
        web = free_port()
        web_out = open(root + "/web.txt", "w+")
        children.append(subprocess.Popen(
            [programs["web"], "--listen", "127.0.0.1:%d" % web, "--logs-dir", root + "/logs"],
            env=env, stdout=web_out, stderr=subprocess.STDOUT))
        wait_for(lambda: "serving" in open(root + "/web.txt").read(), 20, "nimb-web")

        def post(path, body):
            request = urllib.request.Request(
                "http://127.0.0.1:%d%s" % (web, path), data=json.dumps(body).encode(),
                headers={"Content-Type": "application/json"})
            with urllib.request.urlopen(request, timeout=10) as answer:
                return json.load(answer)

        hook = post("/api/alerts/channel", {
            "name": "bench", "kind": "webhook",
            "url": "http://127.0.0.1:%d/hook" % receiver.server_address[1]})
        post("/api/alerts/rule", {"name": "bench", "text": "bench-alert", "quietMinutes": 0,
                                  "channels": [hook["channel"]["id"]]})

        def call(service, value):
            subprocess.run([programs["call"], "--host", "127.0.0.1:%d" % bus, "--name", "dev1",
                            "RemoteLogger", service, json.dumps(value)],
                           env=env, check=True, stdout=subprocess.DEVNULL)

        call("SetLogSource", ["00:11:22:33:44:55", "bench", "Bench", {"date": "2026-11-25T10:00:00Z"},
                              {"str[]": ["bench.log"]}])
        latencies = []
        for i in range(args.count):
            call("AppendLog", ["00:11:22:33:44:55", "bench.log", "E/app: bench-alert %d\n" % i])
            acknowledged = time.time()
            needle = "bench-alert %d\"" % i  # the line as a JSON string ends there

            def arrived():
                with lock:
                    return [t for t, body in received if needle in body]

            wait_for(lambda: arrived(), 10, "notification %d" % i)
            latencies.append(max(0.0, arrived()[0] - acknowledged))
        latencies.sort()
        ms = lambda q: latencies[min(len(latencies) - 1, int(len(latencies) * q))] * 1000
        print("alerts: %d lines, acknowledged to notified: p50 %.0f ms, p90 %.0f ms, "
              "p99 %.0f ms, max %.0f ms (mean %.0f ms)" % (
                  len(latencies), ms(0.5), ms(0.9), ms(0.99), latencies[-1] * 1000,
                  statistics.mean(latencies) * 1000))
    finally:
        for child in reversed(children):
            child.terminate()
            try:
                child.wait(10)
            except subprocess.TimeoutExpired:
                child.kill()
        receiver.shutdown()
        shutil.rmtree(root, ignore_errors=True)


if __name__ == "__main__":
    main()
