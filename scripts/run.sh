#!/usr/bin/env bash
# Starts the receiver emulator on a pseudo-terminal, then the program connected to it.
# The program runs from <build>/bin so that ../OrviaGonioManager.ini, ../Data/format.vtl
# and ../Logs all resolve inside the build tree.
set -euo pipefail
build=${1:-build}
model=${2:-gnx234}
scenario=${3:-}
top=$(cd "$(dirname "$0")/.." && pwd)
case $build in
/*) tree=$build ;;
*) tree=$top/$build ;;
esac
bin="$tree/bin"
mkdir -p "$tree/Data" "$tree/Logs"
[ -f "$tree/Data/format.vtl" ] || cp "$top/Data/format.vtl" "$tree/Data/format.vtl" 2>/dev/null || true

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
    link="$tree/gnx0"
    # The end of its control input does not stop the emulator: it runs until it is signalled.
    extra=()
    if [ -n "$scenario" ]; then
        file=$scenario
        [ -f "$file" ] || file="$top/sim/scenarios/$scenario.json"
        [ -f "$file" ] || { echo "run: no scenario $scenario (sim/scenarios/*.json or a file)" >&2; exit 2; }
        extra=(--scenario "$file")
    fi
    "$bin/gnxsim" --model "$model" --link "$link" --platforms 6 --flash-records 200 \
        --live-interval 3000 --seed 1 "${extra[@]}" </dev/null >"$tree/gnxsim.log" 2>&1 &
    sim_pid=$!
    for _ in $(seq 1 50); do [ -e "$link" ] && break; sleep 0.1; done
    export GNX_EXTRA_PORTS="$link"
fi
cd "$bin"
./OrviaGonioManager
