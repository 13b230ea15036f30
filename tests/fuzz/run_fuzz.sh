#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, ASan + UBSan) in build-fuzz/ and runs each one for
# SECONDS (default 5) from a copy of its seed corpus, so the committed corpus never grows.
#
#   tests/fuzz/run_fuzz.sh          # quick pass: 5 s per target
#   tests/fuzz/run_fuzz.sh 600      # the longer run: 10 minutes per target, before a release
#                                   # or after touching the text, schema, INI or key code
#
# Prints one line per target, "fuzz_x: N execs, 0 crashes", and exits non-zero when any target
# crashed (a sanitizer report, a broken invariant, a leak or a hang of more than FUZZ_TIMEOUT
# seconds, 30 by default). A crashing input is kept as tests/fuzz/crashes/<target>/crash-*
# (or leak-*, timeout-*), and the target's log as build-fuzz/logs/<target>.log. Inputs kept
# there are replayed before each target runs, so a fixed finding that comes back fails the run.
# To replay one by hand:
#   build-fuzz/<target> tests/fuzz/crashes/<target>/<file>
# FUZZ_TARGETS="fuzz_a fuzz_b" limits the run to those targets.
set -uo pipefail

seconds="${1:-5}"
if ! [[ "$seconds" =~ ^[0-9]+$ ]] || [ "$seconds" -lt 1 ]; then
    echo "usage: $0 [SECONDS]" >&2
    exit 2
fi

here="$(cd "$(dirname "$0")" && pwd)"
root="$(cd "$here/../.." && pwd)"
build="$root/build-fuzz"
targets="${FUZZ_TARGETS:-fuzz_dn_text fuzz_separate_data fuzz_ini_reader fuzz_pkcs12 fuzz_field_copies}"

if [ ! -f "$build/CMakeCache.txt" ]; then
    mkdir -p "$build"
    cmake -S "$here" -B "$build" -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_C_COMPILER=clang \
        >"$build/configure.log" 2>&1 || { cat "$build/configure.log" >&2; exit 1; }
fi
cmake --build "$build" -j"$(nproc)" >"$build/build.log" 2>&1 || {
    tail -50 "$build/build.log" >&2
    exit 1
}

mkdir -p "$build/logs"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

# Leaks are checked after every input; undefined behaviour already aborts (no recovery).
export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0:symbolize=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"

failed=0
for target in $targets; do
    corpus="$work/$target"
    mkdir -p "$corpus" "$here/crashes/$target"
    cp "$here/corpus/$target/"* "$corpus/" 2>/dev/null || true
    log="$build/logs/$target.log"
    # Inputs kept from earlier findings run first, once each: a fixed bug must stay fixed.
    kept=()
    for f in "$here/crashes/$target"/*; do
        [ -f "$f" ] && kept+=("$f")
    done
    if [ "${#kept[@]}" -gt 0 ] &&
        ! "$build/$target" -timeout="${FUZZ_TIMEOUT:-30}" "${kept[@]}" >"$log.replay" 2>&1; then
        echo "$target: a kept input in tests/fuzz/crashes/$target fails again (see $log.replay)"
        failed=1
        continue
    fi
    "$build/$target" "$corpus" \
        -max_total_time="$seconds" \
        -timeout="${FUZZ_TIMEOUT:-30}" \
        -print_final_stats=1 \
        -artifact_prefix="$here/crashes/$target/" \
        >"$log" 2>&1
    rc=$?
    execs="$(sed -n 's/^stat::number_of_executed_units: *\([0-9]*\).*/\1/p' "$log" | tail -1)"
    crashes=0
    if [ "$rc" -ne 0 ]; then
        crashes=1
        failed=1
    fi
    echo "$target: ${execs:-0} execs, $crashes crashes"
    if [ "$rc" -ne 0 ]; then
        grep -E "ERROR: |invariant broken|SUMMARY|Test unit written" "$log" | head -8 | sed 's/^/    /'
    fi
    # Keep the crash folder only when it holds something.
    rmdir "$here/crashes/$target" 2>/dev/null
    rmdir "$here/crashes" 2>/dev/null
done
exit "$failed"
