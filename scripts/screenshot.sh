#!/usr/bin/env bash
# Regenerates the README's screenshots under Xvfb: the window connected to the emulator, and a
# flash read at the line rate, part-way.
set -euo pipefail
build=${1:-build}
model=${2:-gnx234}
top=$(cd "$(dirname "$0")/.." && pwd)
mkdir -p "$top/docs"
shoot() { xvfb-run -a -s "-screen 0 1400x900x24" "$top/$build/bin/ogm_screenshot" "$top/docs/$1" "$model" ${2:-}; }
shoot screenshot.png
shoot screenshot-flash-read.png flash-read
shoot screenshot-bearings.png bearings
echo "wrote docs/screenshot.png, docs/screenshot-flash-read.png and docs/screenshot-bearings.png"
