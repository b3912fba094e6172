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
    libgtest-dev libgmock-dev libbenchmark-dev libspdlog-dev
    clang-format
    clang
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
