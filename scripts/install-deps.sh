#!/usr/bin/env bash
# Installs the Debian packages needed to build, test, run the emulator, make the world basemap,
# take screenshots and build and check the Debian package.
# Runs apt only when something is missing; safe to run any number of times.
set -euo pipefail

packages=(
    cmake g++ make pkg-config git
    qt6-base-dev qt6-serialport-dev libgl-dev
    clang libclang-rt-14-dev
    xvfb xauth xdotool imagemagick
    dpkg-dev fakeroot lintian desktop-file-utils appstream
    libmosquitto-dev mosquitto mosquitto-clients libssl-dev openssl
    libgeographiclib-dev gdal-bin
    libqt6sql6-sqlite libsqlite3-dev libqt6sql6-psql postgresql python3 marble-qt-data
    libcli11-dev libsystemd-dev systemd
)

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$p")
    fi
done

if [ ${#missing[@]} -eq 0 ]; then
    exit 0
fi

echo "install-deps: missing packages: ${missing[*]}"
if [ "$(id -u)" -ne 0 ]; then
    if command -v sudo >/dev/null 2>&1 && sudo -n true 2>/dev/null; then
        SUDO=sudo
    else
        echo "install-deps: not root. Run this once as root, then retry:" >&2
        echo "    sudo apt-get update && sudo apt-get install -y ${missing[*]}" >&2
        exit 1
    fi
else
    SUDO=
fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
