#!/usr/bin/env bash
# Installs the Debian packages zelk needs to build, test and benchmark, when
# any is missing.  Needs root (or sudo) only when something must be installed.
set -euo pipefail

PACKAGES=(cmake make g++ pkg-config libsqlite3-dev libcjson-dev libgtest-dev googletest
          libbenchmark-dev libssl-dev libcli11-dev sqlite3 clang libclang-rt-14-dev valgrind
          scdoc dpkg-dev file libinih-dev libsystemd-dev libcurl4-openssl-dev python3 openssl)

missing=()
for p in "${PACKAGES[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$p")
    fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "installing: ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null 2>&1 || { echo "need root to install ${missing[*]}" >&2; exit 1; }
    SUDO=sudo
fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
