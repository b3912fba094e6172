#!/usr/bin/env bash
# Installs what the build, the tests and the collector need on Debian 12. Idempotent:
# prints nothing and changes nothing when everything is already there.
set -euo pipefail

packages=(
    build-essential cmake pkg-config git
    qt6-base-dev
    libboost-dev libboost-filesystem-dev libboost-system-dev
    nats-server libnats-dev libmsgpack-cxx-dev
    libssl-dev openssl bsdutils
    libzstd-dev zstd
    libgtest-dev libgmock-dev libbenchmark-dev libspdlog-dev
    clang-format
    clang
    libarchive-dev libre2-dev libsqlite3-dev
    # Alert notifications (web hooks, ntfy-style HTTP, SMTP with STARTTLS) go through
    # libcurl; the tests receive the mail with a real SMTP server on loopback.
    libcurl4-openssl-dev python3-aiosmtpd
    chromium
    # The page shows control characters in device text as Control Pictures (U+2400),
    # which only this font covers on Debian; without it screenshots show boxes.
    fonts-symbola
)

# npm fetches the Breakpad sources at configure time (cmake/Breakpad.cmake). Machines
# whose Node.js already brings npm keep it; Debian's own npm package otherwise.
if ! command -v npm >/dev/null 2>&1; then
    packages+=(npm)
fi

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed"; then
        missing+=("$p")
    fi
done

if [ ${#missing[@]} -gt 0 ]; then
    echo "setup: installing ${missing[*]}"
    sudo=""
    if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
    export DEBIAN_FRONTEND=noninteractive
    $sudo apt-get update -qq
    $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

# The browser test drives Chromium with puppeteer-core (pinned), kept in the git-ignored
# .cache/webtest/; its own install script (a browser download) must not run.
puppeteer_version=24.30.0
webtest_dir=$(cd "$(dirname "$0")/.." && pwd)/.cache/webtest
if ! grep -qs "\"version\": \"$puppeteer_version\"" "$webtest_dir/node_modules/puppeteer-core/package.json"; then
    echo "setup: installing puppeteer-core $puppeteer_version into .cache/webtest"
    mkdir -p "$webtest_dir"
    npm install --prefix "$webtest_dir" --no-audit --no-fund --ignore-scripts --silent \
        "puppeteer-core@$puppeteer_version" >/dev/null
fi

# The syslog TLS test forwards through rsyslog's own TLS client (its OpenSSL stream
# driver). Installing rsyslog must not start the system's rsyslog service: a policy
# refuses every service start while the packages install.
if ! dpkg-query -W -f='${Status}' rsyslog-openssl 2>/dev/null | grep -q "ok installed"; then
    echo "setup: installing rsyslog-openssl (a test's TLS sender; its service is not started)"
    sudo=""
    if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
    policy=/usr/sbin/policy-rc.d
    planted=""
    if [ ! -e "$policy" ]; then
        printf '#!/bin/sh\nexit 101\n' | $sudo tee "$policy" >/dev/null
        $sudo chmod 755 "$policy"
        planted=1
    fi
    export DEBIAN_FRONTEND=noninteractive
    # Without it the test is skipped (and says so); the rest of the set-up goes on.
    $sudo apt-get install -y -qq --no-install-recommends rsyslog-openssl >/dev/null ||
        { $sudo apt-get update -qq && $sudo apt-get install -y -qq --no-install-recommends \
            rsyslog-openssl >/dev/null; } || echo "setup: rsyslog-openssl not installed"
    if [ -n "$planted" ]; then $sudo rm -f "$policy"; fi
fi
