#!/usr/bin/env bash
# Checks the built Debian package: lintian, the desktop entry and the AppStream metainfo, then the
# launcher from the unpacked package with a scratch HOME: it prints the version, makes the user's
# working tree, and finds it again on a second run without touching the user's files.
set -euo pipefail
build=${1:-build}
top=$(cd "$(dirname "$0")/.." && pwd)
deb=$(ls "$top/$build"/orvia-gonio-manager_*_*.deb)
fail() { echo "package-check: $*" >&2; exit 1; }

lintian --fail-on error --tag-display-limit 0 "$deb" || fail "lintian reports errors"
desktop-file-validate "$top/packaging/orvia-gonio-manager.desktop"
appstreamcli validate --no-net "$top/packaging/org.orvia.gonio_manager.metainfo.xml" >/dev/null

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
dpkg-deb -x "$deb" "$scratch/root"
export HOME="$scratch/home" OGM_PREFIX="$scratch/root/usr" QT_QPA_PLATFORM=offscreen
unset XDG_DATA_HOME
mkdir -p "$HOME"
launcher="$scratch/root/usr/bin/orvia-gonio-manager"
tree="$HOME/.local/share/OrviaGonioManager"

version=$("$launcher" --version 2>/dev/null) || fail "--version failed"
[[ $version == *"1.3 - "* ]] || fail "--version printed \"$version\""
for d in bin Data Logs; do [ -d "$tree/$d" ] || fail "no $tree/$d after the first run"; done
cmp -s "$tree/Data/format.vtl" "$scratch/root/usr/share/orvia-gonio-manager/format.vtl" ||
    fail "the default GPS formats file was not copied"

echo "0" >"$tree/Data/format.vtl" # the user's own file
"$launcher" --version >/dev/null 2>&1 || fail "the second run failed"
[ "$(cat "$tree/Data/format.vtl")" = "0" ] || fail "the second run overwrote the user's GPS formats file"
# The station's unit as installed: verified in a root holding the package over the system's units.
unitroot="$scratch/unitroot"
mkdir -p "$unitroot/etc" "$unitroot/lib/systemd/system"
cp -r "$scratch/root/." "$unitroot/"
cp -rn /lib/systemd/system/. "$unitroot/lib/systemd/system/"
cp /etc/passwd /etc/group "$unitroot/etc/"
unit=$(find "$unitroot" -name 'gnxctl-monitor@.service' | head -n 1)
[ -n "$unit" ] || fail "the package holds no gnxctl-monitor@.service"
[ "$unit" = "$unitroot/lib/systemd/system/gnxctl-monitor@.service" ] ||
    cp "$unit" "$unitroot/lib/systemd/system/gnxctl-monitor@.service"
systemd-analyze verify --man=no --root="$unitroot" gnxctl-monitor@0099-429.service ||
    fail "systemd-analyze verify reports errors in gnxctl-monitor@.service"

echo "package-check: $(basename "$deb") is clean; the launcher made and kept $tree"
