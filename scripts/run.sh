#!/usr/bin/env bash
# Starts the receiver emulator on a pseudo-terminal, then the program connected to it.
# The program runs from <build>/bin so that ../OrviaGonioManager.ini, ../Data/format.vtl
# and ../Logs all resolve inside the build tree.
set -euo pipefail
build=${1:-build}
model=${2:-gnx234}
top=$(cd "$(dirname "$0")/.." && pwd)
bin="$top/$build/bin"
mkdir -p "$top/$build/Data" "$top/$build/Logs"
[ -f "$top/$build/Data/format.vtl" ] || cp "$top/Data/format.vtl" "$top/$build/Data/format.vtl" 2>/dev/null || true

sim_pid=
cleanup() {
    if [ -n "$sim_pid" ]; then
        kill "$sim_pid" 2>/dev/null || true
        wait "$sim_pid" 2>/dev/null || true
    fi
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

if [ -x "$bin/gnxsim" ]; then
    link="$top/$build/gnx0"
    # The end of its control input does not stop the emulator: it runs until it is signalled.
    "$bin/gnxsim" --model "$model" --link "$link" --platforms 6 --flash-records 200 \
        --live-interval 3000 --seed 1 </dev/null >"$top/$build/gnxsim.log" 2>&1 &
    sim_pid=$!
    for _ in $(seq 1 50); do [ -e "$link" ] && break; sleep 0.1; done
    export GNX_EXTRA_PORTS="$link"
fi
cd "$bin"
./OrviaGonioManager
