#!/usr/bin/env bash
# Real keys and clicks (xdotool, Xvfb, the program as its own process, gnxsim at 9600 baud):
# Escape and a click where "Cancel" stands leave the connection's own platform load whole; a click
# on "Cancel" and Escape each stop the user's flash read, taken while a 16 KB block is still on
# the line (about 17 s at 9600 baud), and the read ends with that block.
set -uo pipefail
# A screen of its own, never the user's.
[ -n "${OGM_OWN_XVFB:-}" ] || OGM_OWN_XVFB=1 exec xvfb-run -a -s "-screen 0 1280x800x24" "$0" "$@"
unset QT_QPA_PLATFORM
scratch=$(mktemp -d) log=$(mktemp)
trap 'kill $(jobs -p) 2>/dev/null; wait; rm -rf "$scratch" "$log"' EXIT
mkdir -p "$scratch/Data" "$scratch/run" && echo 0 >"$scratch/Data/format.vtl" && cd "$scratch/run" || exit 1
export XDG_CONFIG_HOME=$scratch GNX_EXTRA_PORTS=$scratch/gnx0
fail() { echo "FAIL: $1" && grep -v '^\(ogm.link.keepalive: \)\?\(Send\|Receive\) ' "$log" | tail -20 && exit 1; }
# Waits up to 30 s until the log holds TEXT N times.
said() { for _ in $(seq 300); do [ "$(grep -cF -- "$1" "$log")" = "${2:-1}" ] && return 0; sleep 0.1; done; return 1; }
# Where the widgets stand in the 1280x800 window at the top left of the screen.
click() { case $1 in receiver) xy="60 19" ;; rx) xy="267 90" ;; read) xy="1073 122" ;; cancel) xy="1215 786" ;; esac
    xdotool mousemove $xy click 1; }

"$1/gnxsim" --link "$scratch/gnx0" --platforms 6 --flash-records 1500 --baud 9600 </dev/null >/dev/null 2>&1 &
"$1/OrviaGonioManager" >"$log" 2>&1 &
window=$(timeout 30 xdotool search --sync --onlyvisible --name "Orvia Gonio Manager" | head -1)
xdotool windowmove "$window" 0 0 windowsize "$window" 1280 800 || fail "no window"
said "Creation of UartLink $scratch/gnx0" || fail "the receiver was not found"

click receiver
said "Platform load: 10%" || fail "the connection did not load the platforms"
xdotool key Escape && click cancel
said "GNX configuration loaded!" || fail "the connection did not end"
said "Platform load: 100% (64 of 64 slots)" && said "cancelled" 0 || fail "the connection's platform load was cut short"
echo "PASS: Escape and a click during the connection's load"
click rx
for n in 1 2; do
    click read
    said "Flash read: 10%" $n || fail "no flash read"
    if [ $n = 1 ]; then click cancel; else xdotool key Escape; fi
    said "Flash read: cancelling once the request under way is answered" $n || fail "the cancel was not taken"
    said "Flash read cancelled after 16384 of" $n || fail "the flash read did not end with its first block"
    at=$(grep "Flash read: cancelling" "$log" | tail -1 | sed 's/.*(\([0-9]*\) of.*/\1/')
    [ "$at" -lt 16384 ] || fail "the cancel was taken only once the block was read ($at bytes)"
    said "Flash read: 100%" 0 || fail "the flash read ended"
    echo "PASS: $([ $n = 1 ] && echo a click on Cancel || echo Escape) during a flash read"
done
