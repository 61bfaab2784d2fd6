#!/usr/bin/env bash
# Keys and clicks as the window system delivers them, while the window waits on the receiver: the
# program as its own process under Xvfb, driven by xdotool, against gnxsim answering slowly.
# Escape and a click where "Cancel" stands leave the connection's own platform load whole; a click
# on "Cancel" and Escape each stop the user's flash read.
set -uo pipefail
bin=$1
# A screen of its own, never the user's.
[ -n "${OGM_OWN_XVFB:-}" ] || OGM_OWN_XVFB=1 exec xvfb-run -a -s "-screen 0 1280x800x24" "$0" "$@"
unset QT_QPA_PLATFORM

scratch=$(mktemp -d)
app= sim=
trap 'kill $app $sim 2>/dev/null; wait 2>/dev/null; rm -rf "$scratch"' EXIT
mkdir -p "$scratch/Data" "$scratch/run" "$scratch/config"
echo 0 >"$scratch/Data/format.vtl"
export XDG_CONFIG_HOME=$scratch/config
log=$scratch/app.log

fail() {
    echo "FAIL: $1"
    grep -v '^Send \|^Receive ' "$log" | tail -20
    exit 1
}
# Waits up to 30 s for a condition.
until_true() { for _ in $(seq 300); do eval "$1" && return 0; sleep 0.1; done; return 1; }
said() { grep -cF -- "$1" "$log"; }
click() { xdotool mousemove "$1" "$2" click 1; }

# Where the widgets stand in the 1280x800 window at the top left of the screen.
receiver=(60 19) rx_tab=(267 90) read_flash=(1073 122) cancel=(1215 786)

cd "$scratch/run" || exit 1
"$bin/gnxsim" --link "$scratch/gnx0" --platforms 6 --flash-records 20000 --fault delay=80 \
    --seed 1 </dev/null >/dev/null 2>&1 &
sim=$!
until_true '[ -e "$scratch/gnx0" ]' || fail "the emulator did not start"
GNX_EXTRA_PORTS=$scratch/gnx0 "$bin/OrviaGonioManager" >"$log" 2>&1 &
app=$!
window=$(timeout 30 xdotool search --sync --onlyvisible --name "Orvia Gonio Manager" | head -1)
[ -n "$window" ] || fail "no window"
xdotool windowmove "$window" 0 0 windowsize "$window" 1280 800
until_true '[ "$(said "Creation of UartLink $scratch/gnx0")" = 1 ]' || fail "the receiver was not found"

click "${receiver[@]}"
until_true '[ "$(said "Platform load: 10%")" = 1 ]' || fail "the connection did not load the platforms"
xdotool key Escape
click "${cancel[@]}"
until_true '[ "$(said "GNX configuration loaded!")" = 1 ]' || fail "the connection did not end"
[ "$(said "Platform load: 100% (64 of 64 slots)")" = 1 ] && [ "$(said "cancelled")" = 0 ] ||
    fail "the connection's platform load was cut short"
echo "PASS: Escape and a click during the connection's load"

click "${rx_tab[@]}"
n=0
for way in click Escape; do
    n=$((n + 1))
    click "${read_flash[@]}"
    until_true '[ "$(said "Flash read: 10%")" = $n ]' || fail "no flash read"
    if [ "$way" = click ]; then click "${cancel[@]}"; else xdotool key Escape; fi
    until_true '[ "$(said "Flash read cancelled after")" = $n ]' || fail "the flash read went on after $way"
    [ "$(said "Flash read: 100%")" = 0 ] || fail "the flash read ended after $way"
    echo "PASS: $way to cancel a flash read"
done
