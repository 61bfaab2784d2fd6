#!/usr/bin/env bash
# Regenerates the README's screenshots under Xvfb: the window connected to the emulator, a flash
# read at the line rate, part-way, the History window on what the window kept, and the Bearings window over the world basemap made here from
# Debian's copy of NASA's Blue Marble (scripts/make-basemap.sh).
set -euo pipefail
build=${1:-build}
model=${2:-gnx234}
top=$(cd "$(dirname "$0")/.." && pwd)
mkdir -p "$top/docs"
basemap=$top/$build/Data/basemap.mbtiles
[ -s "$basemap" ] || { mkdir -p "$(dirname "$basemap")" && "$top/scripts/make-basemap.sh" "$basemap"; }
shoot() { out=$1 && shift && xvfb-run -a -s "-screen 0 1400x900x24" "$top/$build/bin/ogm_screenshot" "$top/docs/$out" "$model" "$@"; }
shoot screenshot.png
shoot screenshot-flash-read.png flash-read
shoot screenshot-bearings.png bearings "$basemap"
shoot screenshot-history.png history
echo "wrote docs/screenshot.png, docs/screenshot-flash-read.png, docs/screenshot-bearings.png and docs/screenshot-history.png"
