#!/usr/bin/env bash
# run_tsan.sh [BUILD_DIR]: builds stress_test, pool_stress_test and replication_test with
# ThreadSanitizer (default build-tsan) and runs, each against a directory of its own (stopped
# however this ends) with halt_on_error: stress_test and pool_stress_test (16 threads through the
# free functions' pool) on one slapd, then the free functions' pool under faults
# (replication_test's ReplicationPool: 16 threads, two providers and two consumers, one of each
# killed, a consumer stopped). Ends with "N passed, M failed". No suppression file: libldap is
# dlopened, not instrumented, and our code must never need one. QORLDAP_STRESS_ROUNDS is passed
# on.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
build=${1:-$root/build-tsan}
dir=$build/stress-directory
replicated=$build/replication-directory
{ cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Debug -DQORLDAP_TSAN=ON >/dev/null &&
    cmake --build "$build" -j"$(nproc)" --target stress_test pool_stress_test replication_test; } ||
    { echo "0 passed, 1 failed"; exit 1; }
trap '"$root/scripts/directory" stop --dir "$dir" >&2 || true
      "$root/scripts/directory" stop --dir "$replicated" >&2 || true' EXIT
"$root/scripts/directory" start --dir "$dir" --nosync >&2
"$root/scripts/directory" start --providers 2 --consumers 2 --dir "$replicated" --nosync >&2
export QORLDAP_SOURCE_DIR=$root
status=0
# run NAME DIR OPTIONS COMMAND...: COMMAND under ThreadSanitizer (with OPTIONS besides ours)
# against DIR, its output in NAME.log.
run() {
    local name=$1 d=$2 options=$3
    shift 3
    QORLDAP_TEST_DIR=$d QORLDAP_CONF_DIR=$d/conf TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1$options" \
        "$@" 2>&1 | tee "$build/$name.log" || status=${PIPESTATUS[0]}
}
run stress_test "$dir" "" "$build/tests/stress/stress_test"
run pool_stress_test "$dir" "" "$build/tests/stress/pool_stress_test"
run replication_pool "$replicated" "" \
    "$build/tests/replication/replication_test" --gtest_filter='ReplicationPool.*'
logs=("$build/stress_test.log" "$build/pool_stress_test.log" "$build/replication_pool.log")
reports=$(cat "${logs[@]}" | grep -c 'WARNING: ThreadSanitizer' || true)
passed=$(cat "${logs[@]}" | grep -c '^\[       OK \]' || true)
[ "$status" = 0 ] && [ "$reports" = 0 ] || status=1
echo "==> ThreadSanitizer reports: $reports"
echo "$passed passed, $((status != 0)) failed"
exit "$status"
