#!/usr/bin/env bash
# Builds the libFuzzer targets (ASan + UBSan) in build-fuzz/ (or FUZZ_BUILD), replays each one's
# crashes/<target>/ (fixed findings stay fixed), fuzzes it SECONDS (default 5) from its corpus;
# new crashes, leaks, hangs (FUZZ_TIMEOUT s) are kept there. Last line "N passed, M failed".
set -uo pipefail
seconds=${1:-5} here=$(cd "$(dirname "$0")" && pwd) passed=0 limit=-timeout=${FUZZ_TIMEOUT:-30}
[[ "$seconds" =~ ^[1-9][0-9]*$ ]] || { echo "usage: $0 [SECONDS]" >&2; exit 2; }
build=${FUZZ_BUILD:-$(dirname "$(dirname "$here")")/build-fuzz} work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$build/logs" && cmake -S "$here" -B "$build" -DCMAKE_CXX_COMPILER=clang++ \
    -DCMAKE_C_COMPILER=clang >"$build/build.log" 2>&1 && cmake --build "$build" -j"$(nproc)" \
    >>"$build/build.log" 2>&1 || { tail -20 "$build/build.log"; echo "0 passed, 1 failed"; exit 1; }
targets=(${FUZZ_TARGETS:-fuzz_pkcs12 fuzz_ini_reader fuzz_dn_text})
for target in "${targets[@]}"; do
    log=$build/logs/$target.log crashes=$here/crashes/$target
    mkdir -p "$work/$target" "$crashes" && cp "$here/corpus/$target/"* "$work/$target/"
    kept=("$crashes"/*)
    if [ -f "${kept[0]}" ] && ! "$build/$target" "$limit" "${kept[@]}" >"$log.replay" 2>&1; then
        echo "$target: a kept input in tests/fuzz/crashes/$target fails again, see $log.replay"
    elif "$build/$target" "$work/$target" -max_total_time="$seconds" "$limit" \
        -print_final_stats=1 -artifact_prefix="$crashes/" >"$log" 2>&1; then
        echo "$target: $(sed -n 's/^stat::number_of_executed_units: *//p' "$log") execs, 0 crashes"
        passed=$((passed + 1))
    else
        echo "$target: a crash, see $log" && grep -E "ERROR: |line [0-9]+: |SUMMARY" "$log"
    fi
    rmdir "$crashes" "$here/crashes" 2>/dev/null  # kept only when they hold something
done
echo "$passed passed, $((${#targets[@]} - passed)) failed"
[ "$passed" = ${#targets[@]} ]
