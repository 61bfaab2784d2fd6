#!/usr/bin/env bash
# Regenerates docs/screenshot.png: the window connected to the emulator, under Xvfb.
set -euo pipefail
build=${1:-build}
model=${2:-gnx234}
top=$(cd "$(dirname "$0")/.." && pwd)
mkdir -p "$top/docs"
xvfb-run -a -s "-screen 0 1400x900x24" "$top/$build/bin/ogm_screenshot" "$top/docs/screenshot.png" "$model"
echo "wrote docs/screenshot.png"
