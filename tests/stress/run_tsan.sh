#!/usr/bin/env bash
# run_tsan.sh [BUILD_DIR]: builds stress_test with ThreadSanitizer (Debug, -DQORLDAP_TSAN=ON) in
# BUILD_DIR (default build-tsan), runs it with halt_on_error against BUILD_DIR/stress-directory
# (stopped however this ends) and exits with its status; QORLDAP_STRESS_ROUNDS is passed on. No
# suppression file: libldap is dlopened, not instrumented, and our code must never need one.
# Last line "N passed, M failed"; a ThreadSanitizer report or a crash fails the case it ended.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
build=${1:-$root/build-tsan}
directory=$root/scripts/directory
dir=$build/stress-directory
log=$build/stress_test.log
fail() { echo "run_tsan.sh: $1" >&2; echo "0 passed, 1 failed"; exit 1; }

echo "==> configuring $build (Debug, ThreadSanitizer)"
{ cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Debug -DQORLDAP_TSAN=ON >/dev/null &&
    cmake --build "$build" -j"$(nproc)" --target stress_test; } || fail "build failed"
binary=$(find "$build" -name stress_test -type f -perm -u+x | head -n1)
[ -n "$binary" ] || fail "stress_test not found in $build"
! "$directory" status --dir "$dir" >/dev/null 2>&1 || fail "a server from $dir is running already"
trap '"$directory" stop --dir "$dir" >&2 || true' EXIT
"$directory" start --dir "$dir" --nosync >&2
# shellcheck source=/dev/null
set -a && . "$dir/env" && set +a
export QORLDAP_TEST_DIR=$dir QORLDAP_SOURCE_DIR=$root

echo "==> running $binary"
status=0
TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1" "$binary" 2>&1 | tee "$log" ||
    status=${PIPESTATUS[0]}
passed=$(grep -c '^\[       OK \] .* ([0-9]* ms)$' "$log" || true)
failed=$(grep -c '^\[  FAILED  \] .* ([0-9]* ms)$' "$log" || true)
reports=$(grep -c 'WARNING: ThreadSanitizer' "$log" || true)
echo "==> ThreadSanitizer reports: $reports; exit status $status"
[ "$status" = 0 ] || [ "$failed" != 0 ] || failed=1  # ended before gtest reported the case
[ "$reports" = 0 ] || [ "$status" != 0 ] || status=1
echo "$passed passed, $failed failed"
exit "$status"
