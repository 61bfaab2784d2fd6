#!/usr/bin/env bash
# `make run` ends at once, leaving no process behind, when the window closes or on Ctrl-C.
# Runs scripts/run.sh on a scratch tree whose bin/ points at the built programs.
set -uo pipefail
top=$1
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
mkdir -p "$scratch/bin"
ln -s "$2/OrviaGonioManager" "$2/gnxsim" "$scratch/bin/"
export QT_QPA_PLATFORM=offscreen

fail() { echo "FAIL ($way): $1"; exit 1; }
# Waits up to 20 s for a condition.
until_true() { for _ in $(seq 200); do eval "$1" && return 0; sleep 0.1; done; return 1; }
child() { ps -o pid=,comm= --ppid "$1" | awk -v name="$2" 'index($2, name) == 1 { print $1 }'; }

for way in "window closed" "Ctrl-C"; do
    # As from a terminal: a job started in the background here would ignore SIGINT.
    setsid env --default-signal=INT "$top/scripts/run.sh" "$scratch" gnx234 >"$scratch/run.log" 2>&1 &
    run=$!
    until_true '[ -n "$(child $run OrviaGonioMan)" ] && [ -e "$scratch/gnx0" ]' ||
        fail "nothing started: $(cat "$scratch/run.log")"
    program=$(child $run OrviaGonioMan)
    sim=$(child $run gnxsim)
    if [ "$way" = "window closed" ]; then kill -TERM "$program"; else kill -INT -- "-$run"; fi
    until_true '! kill -0 $run 2>/dev/null' || { kill -KILL -- "-$run"; fail "make run did not end"; }
    for pid in $program $sim; do
        kill -0 "$pid" 2>/dev/null && { kill -KILL "$pid"; fail "process $pid left behind"; }
    done
    [ ! -e "$scratch/gnx0" ] || fail "the emulator's link is left behind"
    echo "PASS: $way"
done
