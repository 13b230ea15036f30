#!/usr/bin/env bash
# Builds the libFuzzer targets (ASan + UBSan) in build-fuzz/ and runs each for SECONDS (default
# 5; 600 before a release or after touching the text, schema, INI or key code) on a copy of its
# corpus. Inputs kept in tests/fuzz/crashes/<target>/ run first: a fixed finding must stay fixed.
# A new crash, leak or hang (FUZZ_TIMEOUT s, default 30) is kept there, logs in build-fuzz/logs/.
# Prints "fuzz_x: N execs, 0 crashes" per target; FUZZ_TARGETS="a b" limits the run.
set -uo pipefail

seconds="${1:-5}"
[[ "$seconds" =~ ^[1-9][0-9]*$ ]] || { echo "usage: $0 [SECONDS]" >&2; exit 2; }
here="$(cd "$(dirname "$0")" && pwd)"
build="$(cd "$here/../.." && pwd)/build-fuzz"
targets="${FUZZ_TARGETS:-fuzz_dn_text fuzz_separate_data fuzz_ini_reader fuzz_pkcs12 fuzz_field_copies}"
timeout="-timeout=${FUZZ_TIMEOUT:-30}"

mkdir -p "$build/logs"
[ -f "$build/CMakeCache.txt" ] || cmake -S "$here" -B "$build" -DCMAKE_CXX_COMPILER=clang++ \
    -DCMAKE_C_COMPILER=clang >"$build/configure.log" 2>&1 || { cat "$build/configure.log" >&2; exit 1; }
cmake --build "$build" -j"$(nproc)" >"$build/build.log" 2>&1 || { tail -50 "$build/build.log" >&2; exit 1; }

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
# Leaks are checked after every input; undefined behaviour already aborts (no recovery).
export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0:symbolize=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"

failed=0
for target in $targets; do
    log="$build/logs/$target.log"
    crashes="$here/crashes/$target"
    mkdir -p "$work/$target" "$crashes"
    cp "$here/corpus/$target/"* "$work/$target/" 2>/dev/null || true
    kept=("$crashes"/*)
    if [ -f "${kept[0]}" ] && ! "$build/$target" "$timeout" "${kept[@]}" >"$log.replay" 2>&1; then
        echo "$target: a kept input in tests/fuzz/crashes/$target fails again (see $log.replay)"
        failed=1
        continue
    fi
    "$build/$target" "$work/$target" -max_total_time="$seconds" "$timeout" -print_final_stats=1 \
        -artifact_prefix="$crashes/" >"$log" 2>&1
    rc=$?
    execs="$(sed -n 's/^stat::number_of_executed_units: *\([0-9]*\).*/\1/p' "$log" | tail -1)"
    echo "$target: ${execs:-0} execs, $((rc != 0)) crashes"
    if [ "$rc" -ne 0 ]; then
        failed=1
        grep -E "ERROR: |invariant broken|SUMMARY|Test unit written" "$log" | head -8 | sed 's/^/    /'
    fi
    rmdir "$crashes" "$here/crashes" 2>/dev/null  # kept only when they hold something
done
exit "$failed"
