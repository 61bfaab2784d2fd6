#!/usr/bin/env bash
# Runs every benchmark executable found in <build>/bin (named bench_*) and prints its figures.
set -euo pipefail
build=${1:-build}
cd "$build/bin"
status=0
for b in bench_*; do
    [ -x "$b" ] || continue
    echo "== $b"
    QT_QPA_PLATFORM=offscreen "./$b" || status=1
done
exit $status
