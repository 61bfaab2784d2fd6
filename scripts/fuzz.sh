#!/usr/bin/env bash
# Builds the libFuzzer targets of fuzz/ with clang (address and undefined-behaviour sanitizers) and
# runs each for a bounded time from its seed corpus. Fails on any crash or sanitizer report.
#   FUZZ_SECONDS  time per target (default 30)    FUZZ_BUILD  build directory (default fuzz-build)
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${FUZZ_BUILD:-$root/fuzz-build}
seconds=${FUZZ_SECONDS:-30}
targets=(fuzz_gpsformats fuzz_position fuzz_flash_platform fuzz_flash_dump)

cmake -S "$root/fuzz" -B "$build" -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j "${JOBS:-2}" >/dev/null

export ASAN_OPTIONS=${ASAN_OPTIONS:-abort_on_error=1:detect_leaks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}
export LSAN_OPTIONS=${LSAN_OPTIONS:-suppressions=$root/fuzz/lsan.supp}
export QT_QPA_PLATFORM=offscreen

status=0
summary=()
for t in "${targets[@]}"; do
    corpus="$build/corpus/$t"
    mkdir -p "$corpus" "$build/artifacts"
    log="$build/$t.log"
    extra=()
    [ -f "$root/fuzz/${t#fuzz_}.dict" ] && extra+=("-dict=$root/fuzz/${t#fuzz_}.dict")
    echo "== $t (${seconds}s)"
    if "$build/$t" "$corpus" "$root/fuzz/corpus/$t" "${extra[@]}" -max_total_time="$seconds" -timeout=10 \
        -rss_limit_mb=2048 -max_len=8192 -print_final_stats=1 -artifact_prefix="$build/artifacts/$t-" \
        >"$log" 2>&1; then
        result=ok
    else
        result=FAILED
        status=1
        tail -n 40 "$log"
    fi
    if grep -qE "ERROR: (Address|Leak|Undefined)Sanitizer|runtime error:" "$log"; then
        result=FAILED
        status=1
        grep -E -A20 "ERROR: |runtime error:" "$log" | head -n 40
    fi
    runs=$(grep -oE "Done [0-9]+ runs in [0-9]+ second" "$log" | tail -n 1 || true)
    execs=$(grep -oE "stat::number_of_executed_units: *[0-9]+" "$log" | grep -oE "[0-9]+$" || echo "?")
    cov=$(grep -oE "cov: [0-9]+" "$log" | tail -n 1 || true)
    summary+=("$(printf '%-22s %-6s %12s executions  %s  (%s)' "$t" "$result" "$execs" "$cov" "$runs")")
done

echo
printf '%s\n' "${summary[@]}"
exit $status
