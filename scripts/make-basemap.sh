#!/usr/bin/env bash
# Makes the Bearings map's world basemap, an MBTiles file of JPEG tiles, from NASA's Blue Marble
# (public domain) as Debian's marble-qt-data ships it: a 2700 x 1350 image of the whole earth in
# latitude and longitude. GDAL reprojects it to Web Mercator and cuts the tiles. Nothing is
# downloaded.
#
#   scripts/make-basemap.sh OUT.mbtiles [MAXZOOM]
#
# MAXZOOM is 0 to 4 (default 4): zoom 3 is 2048 pixels round the equator, zoom 4 already enlarges
# the image 1.5 times, and beyond that there is nothing more to see. OUT is written whole or not at
# all: made beside it, then renamed over it; anything there but a regular file is left alone.
set -euo pipefail

SOURCE=${BLUEMARBLE:-/usr/share/marble/data/maps/earth/bluemarble/bluemarble.jpg}
ATTRIBUTION="Blue Marble: NASA Earth Observatory (public domain)"
# The Web Mercator square, metres.
R=20037508.342789244

fail() {
    echo "make-basemap: $*" >&2
    exit 1
}

[ $# -ge 1 ] && [ $# -le 2 ] || fail "usage: $0 OUT.mbtiles [MAXZOOM 0-4]"
out=$1
maxzoom=${2:-4}
[[ "$maxzoom" =~ ^[0-4]$ ]] ||
    fail "MAXZOOM $maxzoom: give 0 to 4 (the image has 2700 pixels round the equator; zoom 4 has 4096)"
for tool in gdal_translate gdalwarp gdaladdo python3; do
    command -v "$tool" >/dev/null || fail "$tool is missing: run scripts/install-deps.sh (gdal-bin, python3)"
done
[ -f "$SOURCE" ] || fail "$SOURCE is missing: run scripts/install-deps.sh (marble-qt-data)"

# A link is written through, so that it stays a link.
target=$(realpath -m -- "$out")
if [ -e "$target" ] && [ ! -f "$target" ]; then
    fail "$out is not a regular file; nothing was written"
fi
dir=$(dirname -- "$target")
[ -d "$dir" ] || fail "$dir: no such folder; nothing was written"

work=$(mktemp -d "${TMPDIR:-/tmp}/ogm-basemap.XXXXXX")
trap 'rm -rf "$work"' EXIT
part=$(mktemp "$dir/.$(basename -- "$target").XXXXXX") || fail "$dir: cannot write there; nothing was written"
trap 'rm -rf "$work"; rm -f "$part"' EXIT
rm -f "$part" # GDAL makes the file itself

size=$((256 << maxzoom))
gdal_translate -q -of VRT -a_srs EPSG:4326 -a_ullr -180 90 180 -90 "$SOURCE" "$work/world.vrt" ||
    fail "gdal_translate could not read $SOURCE"
gdalwarp -q -t_srs EPSG:3857 -te -$R -$R $R $R -ts $size $size -r cubic \
    "$work/world.vrt" "$work/mercator.tif" || fail "gdalwarp could not reproject $SOURCE"
gdal_translate -q -of MBTILES -co TILE_FORMAT=JPEG -co QUALITY=85 -co TYPE=baselayer \
    -co NAME="World (Blue Marble)" -co DESCRIPTION="NASA Blue Marble, zoom 0 to $maxzoom" \
    "$work/mercator.tif" "$part" || fail "gdal_translate could not write the tiles to $part"
if [ "$maxzoom" -gt 0 ]; then
    levels=()
    for ((z = 1; z <= maxzoom; z++)); do levels+=($((1 << z))); done
    gdaladdo -q -r average "$part" "${levels[@]}" || fail "gdaladdo could not make the lower zooms"
fi
# GDAL has no option for the attribution the map shows; SQLite itself writes it.
python3 - "$part" "$ATTRIBUTION" <<'EOF' || fail "could not write the attribution to $part"
import sqlite3, sys
db = sqlite3.connect(sys.argv[1])
with db:
    db.execute("DELETE FROM metadata WHERE name = 'attribution'")
    db.execute("INSERT INTO metadata (name, value) VALUES ('attribution', ?)", (sys.argv[2],))
db.close()
EOF
chmod "$(printf '%o' $((0666 & ~$(umask))))" "$part" # as a file made the usual way
mv -f -T -- "$part" "$target"
trap 'rm -rf "$work"' EXIT
echo "make-basemap: $out: zoom 0 to $maxzoom, $(du -k -- "$target" | cut -f1) KB, $ATTRIBUTION"
