#!/usr/bin/env bash
# run_faults.sh [--binary FAULT_TEST] [BUILD_DIR] [-- ARG...]: builds fault_test in BUILD_DIR
# (default build-faults, RelWithDebInfo) unless given; starts BUILD_DIR/fault-directory before it
# (the free functions read their settings at load); runs it with the ARGs (it stops and restarts
# that directory itself). Last line "N passed, M failed"; exits with the program's status.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
root=$(cd "$here/../.." && pwd)
usage="usage: run_faults.sh [--binary FAULT_TEST] [BUILD_DIR] [-- ARG...]"
binary=""
build=$root/build-faults
while [ $# -gt 0 ]; do
    case $1 in
        --binary) binary=${2:?$usage}; shift 2 ;;
        --) shift; break ;;
        -*) echo "$usage" >&2; exit 2 ;;
        *) build=$1; shift ;;
    esac
done
directory=$root/scripts/directory
dir=$build/fault-directory
log=$build/fault_test.log
fail() { echo "run_faults.sh: $1" >&2; echo "0 passed, 1 failed"; exit 1; }
mkdir -p "$build"

if [ -z "$binary" ]; then
    echo "==> configuring $build (RelWithDebInfo)"
    { cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null &&
        cmake --build "$build" -j"$(nproc)" --target fault_test; } || fail "build failed"
    binary=$(find "$build" -name fault_test -type f -perm -u+x | head -n1)
fi
[ -x "$binary" ] || fail "no fault_test program"
! "$directory" status --dir "$dir" >/dev/null 2>&1 || fail "a server from $dir is running already"
trap '"$directory" stop --dir "$dir" >&2 || true' EXIT
"$directory" start --dir "$dir" --nosync >&2
# shellcheck source=/dev/null
set -a && . "$dir/env" && set +a
export QORLDAP_TEST_DIR=$dir

echo "==> running $binary (directory on port $LDAP_PORT)"
status=0
"$binary" "$@" 2>&1 | tee "$log" || status=${PIPESTATUS[0]}
passed=$(grep -c '^\[       OK \] .* ([0-9]* ms)$' "$log" || true)
failed=$(grep -c '^\[  FAILED  \] .* ([0-9]* ms)$' "$log" || true)
# Ended before gtest reported the running case (a watchdog abort, a crash): that case failed.
[ "$status" = 0 ] || [ "$failed" != 0 ] || failed=1
echo "$passed passed, $failed failed"
exit "$status"
