#!/usr/bin/env bash
# run_memcheck.sh [BUILD_DIR] [GTEST_ARG...]: the server tests under valgrind's memcheck, built in
# BUILD_DIR (default build-memcheck), on a directory of their own. valgrind.supp waives only the
# connection a destroyed CLdap keeps open, by design. Fails when a test fails, on any valgrind
# error and on memory definitely or indirectly lost. Last line "N passed, M failed".
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
root=$(cd "$here/../.." && pwd)
build=${1:-$root/build-memcheck}
[ $# -gt 0 ] && shift
dir=$build/memcheck-directory log=$build/memcheck.log
fail() { echo "run_memcheck.sh: $1" >&2; echo "0 passed, 1 failed"; exit 1; }
command -v valgrind >/dev/null 2>&1 || fail "valgrind not found"
{ cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null &&
    cmake --build "$build" -j"$(nproc)" --target server_tests; } || fail "build failed"
trap '"$root/scripts/directory" stop --dir "$dir" >&2 || true' EXIT
"$root/scripts/directory" start --dir "$dir" --nosync >&2
set -a && . "$dir/env" && set +a
export QORLDAP_TEST_DIR=$dir
status=0
valgrind --leak-check=full --show-leak-kinds=definite,indirect --errors-for-leak-kinds=definite,indirect \
    --error-exitcode=3 --suppressions="$here/valgrind.supp" --num-callers=40 --log-file="$log" \
    "$build/tests/server_tests" "$@" 2>&1 | tee "$build/memcheck.out" || status=${PIPESTATUS[0]}
passed=$(grep -c '^\[       OK \]' "$build/memcheck.out" || true)
failed=$(grep -c '^\[  FAILED  \]' "$build/memcheck.out" || true)
errors=$(sed -n 's/.*ERROR SUMMARY: \([0-9,]*\) errors.*/\1/p' "$log" | tail -n1 | tr -d ,)
[ "${errors:-none}" = 0 ] || { echo "FAIL valgrind: ${errors:-no} error summary; see $log"; failed=$((failed + 1)); }
[ "$status" = 0 ] || [ "$failed" != 0 ] || failed=1  # ended by a crash
echo "$passed passed, $failed failed"
[ "$failed" = 0 ]
