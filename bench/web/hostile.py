#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
# nimb-web under a hostile client, run by hand:
#   python3 bench/web/hostile.py build/src/tools/nimb-web/nimb-web
# Starts nimb-web with a password and a 4096-descriptor limit (as its service unit
# has), then measures from 127.0.0.1 while 127.0.0.2 attacks:
#  1. 50 wrong passwords at once: how long an authorised API request and a new login
#     take meanwhile;
#  2. 4137 connections sending half a head: whether another address is still served,
#     and when the attacker's connections are closed;
#  3. a 200 MiB body without credentials: the answer and the server's peak memory.
import base64
import os
import resource
import socket
import subprocess
import sys
import tempfile
import time

PORT = 18471


def basic(pair):
    return "Authorization: Basic " + base64.b64encode(pair.encode()).decode()


def connect(source="127.0.0.1"):
    s = socket.socket()
    s.bind((source, 0))
    s.settimeout(60)
    s.connect(("127.0.0.1", PORT))
    return s


def ask(target, headers=(), source="127.0.0.1"):
    start = time.monotonic()
    s = connect(source)
    s.sendall(("GET %s HTTP/1.1\r\nHost: x\r\nConnection: close\r\n%s\r\n" %
               (target, "".join(h + "\r\n" for h in headers))).encode())
    data = b""
    while True:
        chunk = s.recv(65536)
        if not chunk:
            break
        data += chunk
    s.close()
    return data.split(b" ", 2)[1].decode() if data else "none", time.monotonic() - start


def peak_kib(pid):
    with open("/proc/%d/status" % pid) as f:
        for line in f:
            if line.startswith("VmHWM:"):
                return int(line.split()[1])
    return 0


def main():
    program = sys.argv[1]
    home = tempfile.mkdtemp()
    os.makedirs(home + "/cfg/pellix")
    os.makedirs(home + "/logs")
    with open(home + "/logs/a.log", "w") as f:
        f.write("line\n" * 1000)
    env = dict(os.environ, XDG_CONFIG_HOME=home + "/cfg")
    hashed = subprocess.run([program, "--hash-secret"], input=b"s3cret\n", env=env,
                            capture_output=True, check=True).stdout.decode().strip()
    with open(home + "/cfg/pellix/com.pellix.nimb.web.json", "w") as f:
        f.write('{"User": "admin", "PasswordHash": "%s", "TokenHash": "%s"}' % (hashed, hashed))

    def limit():
        resource.setrlimit(resource.RLIMIT_NOFILE, (4096, 4096))

    web = subprocess.Popen([program, "--listen", "127.0.0.1:%d" % PORT, "--logs-dir",
                            home + "/logs"], env=env, preexec_fn=limit, stdout=subprocess.PIPE)
    web.stdout.readline()
    right, wrong = basic("admin:s3cret"), basic("admin:guess")
    print("login, nothing else going on:", ask("/api/devices", [right]))

    attackers = []
    for _ in range(50):
        s = connect("127.0.0.2")
        s.sendall(("GET /api/devices HTTP/1.1\r\nHost: x\r\n%s\r\n\r\n" % wrong).encode())
        attackers.append(s)
    time.sleep(0.2)
    print("during 50 wrong passwords: API", ask("/api/log?file=a.log", [right]),
          "new login", ask("/api/devices", ["Authorization: Bearer s3cret"]))
    for s in attackers:
        s.close()

    half = []
    refused = 0
    for _ in range(4137):
        try:
            s = connect("127.0.0.2")
            s.sendall(b"GET / HTTP/1.1\r\n")
            half.append(s)
        except OSError:
            refused += 1
    print("4137 half-sent from one address: %d connected, %d refused at connect" %
          (len(half), refused))
    print("another address meanwhile:", ask("/api/log?file=a.log", [right]))
    start = time.monotonic()
    for s in half:
        s.settimeout(30)
        try:
            s.recv(1024)
        except OSError:
            pass
        s.close()
    print("attacker's connections answered/closed within %.1f s" % (time.monotonic() - start))

    before = peak_kib(web.pid)
    s = connect("127.0.0.2")
    s.sendall(b"POST / HTTP/1.1\r\nHost: x\r\nContent-Length: 209715200\r\n\r\n")
    sent = 0
    block = b"\0" * 65536
    answer = b""
    s.settimeout(5)
    try:
        while sent < 209715200:
            s.sendall(block)
            sent += len(block)
    except OSError:
        pass
    try:
        answer = s.recv(200)
    except OSError:
        pass
    print("200 MiB body: answer %r after %d MiB sent; peak memory %d KiB before, %d KiB after" %
          (answer.split(b"\r\n")[0], sent >> 20, before, peak_kib(web.pid)))
    web.terminate()
    web.wait()


if __name__ == "__main__":
    main()
