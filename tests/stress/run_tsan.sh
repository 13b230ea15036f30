#!/usr/bin/env bash
# run_tsan.sh [BUILD_DIR]: builds stress_test with ThreadSanitizer (default build-tsan), runs it
# against a directory of its own (stopped however this ends) with halt_on_error, and ends with
# "N passed, M failed". No suppression file: libldap is dlopened, not instrumented, and our code
# must never need one. QORLDAP_STRESS_ROUNDS is passed on.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
build=${1:-$root/build-tsan}
dir=$build/stress-directory
{ cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Debug -DQORLDAP_TSAN=ON >/dev/null &&
    cmake --build "$build" -j"$(nproc)" --target stress_test; } || { echo "0 passed, 1 failed"; exit 1; }
trap '"$root/scripts/directory" stop --dir "$dir" >&2 || true' EXIT
"$root/scripts/directory" start --dir "$dir" --nosync >&2
export QORLDAP_TEST_DIR=$dir QORLDAP_SOURCE_DIR=$root QORLDAP_CONF_DIR=$dir/conf
status=0
TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1" "$build/tests/stress/stress_test" 2>&1 |
    tee "$build/stress_test.log" || status=${PIPESTATUS[0]}
reports=$(grep -c 'WARNING: ThreadSanitizer' "$build/stress_test.log" || true)
passed=$(grep -c '^\[       OK \]' "$build/stress_test.log" || true)
[ "$status" = 0 ] && [ "$reports" = 0 ] || status=1
echo "==> ThreadSanitizer reports: $reports"
echo "$passed passed, $((status != 0)) failed"
exit "$status"
