#!/usr/bin/env bash
# Builds the libFuzzer targets of fuzz/ with clang (address and undefined-behaviour sanitizers) and
# runs each for a bounded time from its seed corpus, or for a number of executions (FUZZ_RUNS, as
# `make fuzz-long` does). Prints a table: target, executions, seconds, findings. Fails on any crash
# or sanitizer report.
#   FUZZ_SECONDS  time per target (default 30)    FUZZ_RUNS  executions per target instead
#   FUZZ_BUILD    build directory (default fuzz-build)
#   FUZZ_TARGETS  the targets to run, separated by spaces (default all)
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${FUZZ_BUILD:-$root/fuzz-build}
seconds=${FUZZ_SECONDS:-30}
runs=${FUZZ_RUNS:-}
if [ -n "$runs" ]; then bound=(-runs="$runs") label="$runs runs"; else bound=(-max_total_time="$seconds") label="${seconds}s"; fi
targets=(fuzz_gpsformats fuzz_position fuzz_flash_platform fuzz_flash_dump fuzz_device_lines fuzz_reports
    fuzz_platform_reply fuzz_settings fuzz_firmware_file fuzz_platforms_csv fuzz_typed_commands fuzz_link_framing)
[ -n "${FUZZ_TARGETS:-}" ] && read -ra targets <<<"$FUZZ_TARGETS"

cmake -S "$root/fuzz" -B "$build" -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j "${JOBS:-2}" >/dev/null

export ASAN_OPTIONS=${ASAN_OPTIONS:-abort_on_error=1:detect_leaks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}
export LSAN_OPTIONS=${LSAN_OPTIONS:-suppressions=$root/scripts/sanitizers.supp}
export QT_QPA_PLATFORM=offscreen

status=0
summary=()
for t in "${targets[@]}"; do
    corpus="$build/corpus/$t"
    mkdir -p "$corpus" "$build/artifacts"
    log="$build/$t.log"
    extra=()
    [ -f "$root/fuzz/${t#fuzz_}.dict" ] && extra+=("-dict=$root/fuzz/${t#fuzz_}.dict")
    echo "== $t ($label)"
    started=$SECONDS
    if "$build/$t" "$corpus" "$root/fuzz/corpus/$t" "${extra[@]}" "${bound[@]}" -timeout=10 \
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
    execs=$(grep -oE "stat::number_of_executed_units: *[0-9]+" "$log" | tail -n 1 | grep -oE "[0-9]+$" || echo "?")
    findings=$([ "$result" = ok ] && echo 0 || echo 1)
    summary+=("$(printf '%-22s %12s %8d %8d' "$t" "$execs" $((SECONDS - started)) "$findings")")
done

echo
printf '%-22s %12s %8s %8s\n' target executions seconds findings
printf '%s\n' "${summary[@]}"
exit $status
