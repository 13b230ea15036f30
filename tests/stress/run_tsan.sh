#!/usr/bin/env bash
# run_tsan.sh -- the stress test under ThreadSanitizer, against a throwaway directory.
#
#   tests/stress/run_tsan.sh [BUILD_DIR]        BUILD_DIR defaults to build-tsan at the root
#
# Configures BUILD_DIR as a Debug build with -DQORLDAP_TSAN=ON, builds stress_test, starts a
# directory in BUILD_DIR/stress-directory (--nosync; stopped however this script ends), runs
# the test with halt_on_error (the first race ends the run) and exits with the test's status.
# QORLDAP_STRESS_ROUNDS is passed on (rounds per thread, default 200).
#
# No suppression file is given to ThreadSanitizer: nothing in libldap has been reported (it is
# loaded with dlopen and not instrumented, so only its calls into intercepted functions are
# seen), and our own code must never need one. Should a report inside libldap ever appear, a
# file here would name that libldap function, with a comment saying why it is not ours.
#
# Last line: "N passed, M failed" (the test cases of stress_test; a ThreadSanitizer report or a
# crash counts as a failure of the case it happened in).
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
root=$(cd "$here/../.." && pwd)
build=${1:-$root/build-tsan}
jobs=$(nproc 2>/dev/null || echo 2)
directory=$root/scripts/directory
dir=$build/stress-directory
log=$build/stress_test.log

summary() {  # passed failed
    echo "$1 passed, $2 failed"
}

echo "==> configuring $build (Debug, ThreadSanitizer)"
if ! cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Debug -DQORLDAP_TSAN=ON >/dev/null ||
    ! cmake --build "$build" -j"$jobs" --target stress_test; then
    echo "run_tsan.sh: build failed" >&2
    summary 0 1
    exit 1
fi
binary=$(find "$build" -name stress_test -type f -perm -u+x | head -n1)
[ -n "$binary" ] || { echo "run_tsan.sh: stress_test not found in $build" >&2; summary 0 1; exit 1; }

if "$directory" status --dir "$dir" >/dev/null 2>&1; then
    echo "run_tsan.sh: a server from $dir is already running; not touching it" >&2
    summary 0 1
    exit 1
fi
trap '"$directory" stop --dir "$dir" >&2 || true' EXIT
"$directory" start --dir "$dir" --nosync >&2
set -a
# shellcheck source=/dev/null
. "$dir/env"
set +a
export QORLDAP_TEST_DIR=$dir

echo "==> running $binary"
status=0
TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1" "$binary" 2>&1 | tee "$log" ||
    status=${PIPESTATUS[0]}

passed=$(grep -c '^\[       OK \] .* ([0-9]* ms)$' "$log" || true)
failed=$(grep -c '^\[  FAILED  \] .* ([0-9]* ms)$' "$log" || true)
reports=$(grep -c 'WARNING: ThreadSanitizer' "$log" || true)
echo "==> ThreadSanitizer reports: $reports; exit status $status"
if [ "$status" != 0 ] && [ "$failed" = 0 ]; then
    # Ended before gtest could report the case that was running (a race with halt_on_error,
    # a crash, the hang guard): that case failed.
    failed=1
fi
if [ "$reports" != 0 ] && [ "$status" = 0 ]; then
    status=1
fi
summary "$passed" "$failed"
exit "$status"
