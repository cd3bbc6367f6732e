#!/usr/bin/env bash
# Installs every Debian package the build, the tests and the run command need.
# Safe to run again: apt-get skips what is already there.
set -euo pipefail
packages=(build-essential cmake pkg-config clang libclang-rt-14-dev libdbus-1-dev libjsoncpp-dev dbus-daemon dbus-bin
          googletest libgtest-dev libgmock-dev procps util-linux
          mosquitto libmosquitto-dev libsystemd-dev)
missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
    SUDO=""
    [ "$(id -u)" -eq 0 ] || SUDO="sudo"
    export DEBIAN_FRONTEND=noninteractive
    $SUDO apt-get update
    $SUDO apt-get install -y --no-install-recommends "${missing[@]}"
fi
