#!/usr/bin/env bash
# run_memcheck.sh [--binary SERVER_TESTS] [BUILD_DIR] [-- GTEST_ARG...]: the server tests under
# valgrind's memcheck, on a directory of their own (BUILD_DIR/memcheck-directory); builds them in
# BUILD_DIR (default build-memcheck) unless given. valgrind.supp waives only the connection a
# destroyed CLdap keeps open, by design. Fails when a test fails, on any valgrind error and on
# memory definitely or indirectly lost. Last line "N passed, M failed": the tests and valgrind.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
root=$(cd "$here/../.." && pwd)
binary=""
build=$root/build-memcheck
while [ $# -gt 0 ]; do
    case $1 in
        --binary) binary=${2:?--binary needs a program}; shift 2 ;;
        --) shift; break ;;
        -*) echo "usage: run_memcheck.sh [--binary SERVER_TESTS] [BUILD_DIR] [-- GTEST_ARG...]" >&2; exit 2 ;;
        *) build=$1; shift ;;
    esac
done
directory=$root/scripts/directory
dir=$build/memcheck-directory
log=$build/memcheck.log
fail() { echo "run_memcheck.sh: $1" >&2; echo "0 passed, 1 failed"; exit 1; }
command -v valgrind >/dev/null 2>&1 || fail "valgrind not found"
if [ -z "$binary" ]; then
    { cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null &&
        cmake --build "$build" -j"$(nproc)" --target server_tests; } || fail "build failed"
    binary=$build/tests/server_tests
fi
[ -x "$binary" ] || fail "no server_tests program at $binary"
mkdir -p "$build"
! "$directory" status --dir "$dir" >/dev/null 2>&1 || fail "a server from $dir is running already"
trap '"$directory" stop --dir "$dir" >&2 || true' EXIT
"$directory" start --dir "$dir" --nosync >&2
set -a && . "$dir/env" && set +a
export QORLDAP_TEST_DIR=$dir

status=0
valgrind --leak-check=full --show-leak-kinds=definite,indirect --errors-for-leak-kinds=definite,indirect \
    --error-exitcode=3 --suppressions="$here/valgrind.supp" --num-callers=40 --log-file="$log" \
    "$binary" "$@" 2>&1 | tee "$build/memcheck.out" || status=${PIPESTATUS[0]}
passed=$(grep -c '^\[       OK \] .* ([0-9]* ms)$' "$build/memcheck.out" || true)
failed=$(grep -c '^\[  FAILED  \] .* ([0-9]* ms)$' "$build/memcheck.out" || true)
[ "$status" = 0 ] || [ "$status" = 3 ] || [ "$failed" != 0 ] || failed=1  # ended by a crash
errors=$(sed -n 's/.*ERROR SUMMARY: \([0-9,]*\) errors.*/\1/p' "$log" | tail -n1 | tr -d ,)
if [ "${errors:-none}" = 0 ]; then  # the leaks of the kinds above count as errors
    passed=$((passed + 1)) && echo "ok   valgrind: no errors, nothing definitely or indirectly lost"
else
    failed=$((failed + 1)) && echo "FAIL valgrind: ${errors:-no} error summary; each error, with its stack, in $log"
fi
echo "$passed passed, $failed failed"
[ "$failed" = 0 ] || exit $((status == 0 ? 1 : status))
