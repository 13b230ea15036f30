#!/usr/bin/env bash
# run_faults.sh -- the directory stopped and restarted under a running process.
#
#   tests/faults/run_faults.sh [--binary FAULT_TEST] [BUILD_DIR] [-- ARG...]
#
# BUILD_DIR defaults to build-faults at the root. Without --binary, configures BUILD_DIR as a
# RelWithDebInfo build and builds fault_test there; with it, runs that program as it is (BUILD_DIR
# then only holds the directory). Picks a free port on 127.0.0.1, starts a directory in
# BUILD_DIR/fault-directory on that port (--nosync) before the program starts (the free
# functions read their settings when the library is loaded), runs the program, which stops and
# restarts that directory on the same port itself, and stops the directory however this script
# ends. Exits with the program's status. ARGs go to the program (--gtest_filter=...).
#
# Last line: "N passed, M failed" (the test cases of fault_test; a watchdog abort or a crash
# counts as a failure of the case it happened in).
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
root=$(cd "$here/../.." && pwd)
usage() { echo "usage: run_faults.sh [--binary FAULT_TEST] [BUILD_DIR] [-- ARG...]" >&2; exit 2; }
binary=""
build=$root/build-faults
while [ $# -gt 0 ]; do
    case $1 in
        --binary) [ $# -ge 2 ] || usage; binary=$2; shift 2 ;;
        --) shift; break ;;
        -*) usage ;;
        *) build=$1; shift ;;
    esac
done
jobs=$(nproc 2>/dev/null || echo 2)
directory=$root/scripts/directory
dir=$build/fault-directory
mkdir -p "$build"
log=$build/fault_test.log

if [ -z "$binary" ]; then
    echo "==> configuring $build (RelWithDebInfo)"
    if ! cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null ||
        ! cmake --build "$build" -j"$jobs" --target fault_test; then
        echo "run_faults.sh: build failed" >&2
        echo "0 passed, 1 failed"
        exit 1
    fi
    binary=$(find "$build" -name fault_test -type f -perm -u+x | head -n1)
fi
if [ -z "$binary" ] || [ ! -x "$binary" ]; then
    echo "run_faults.sh: no fault_test program" >&2
    echo "0 passed, 1 failed"
    exit 1
fi

if "$directory" status --dir "$dir" >/dev/null 2>&1; then
    echo "run_faults.sh: a server from $dir is already running; not touching it" >&2
    echo "0 passed, 1 failed"
    exit 1
fi

# A port nothing listens on now; the directory keeps it across the restart.
free_port() {
    local p tries
    if command -v python3 >/dev/null 2>&1 &&
        p=$(python3 -c 'import socket
s = socket.socket()
s.bind(("127.0.0.1", 0))
print(s.getsockname()[1])
s.close()' 2>/dev/null) && [ -n "$p" ]; then
        echo "$p"
        return 0
    fi
    for ((tries = 0; tries < 50; tries++)); do
        p=$((20000 + RANDOM % 40000))
        (exec 3<>"/dev/tcp/127.0.0.1/$p") 2>/dev/null || { echo "$p"; return 0; }
    done
    return 1
}
port=$(free_port) || { echo "run_faults.sh: no free port" >&2; echo "0 passed, 1 failed"; exit 1; }

# A test that froze the server (SIGSTOP) and was then ended by its watchdog leaves it frozen:
# let it run again so that it stops at once.
# shellcheck disable=SC2317  # runs from the EXIT trap
cleanup() {
    local pid
    pid=$(cat "$dir/slapd.pid" 2>/dev/null || true)
    if [ -n "$pid" ]; then
        kill -CONT "$pid" 2>/dev/null || true
    fi
    "$directory" stop --dir "$dir" >&2 || true
}
trap cleanup EXIT
"$directory" start --dir "$dir" --port "$port" --nosync >&2
set -a
# shellcheck source=/dev/null
. "$dir/env"
set +a
export QORLDAP_TEST_DIR=$dir

echo "==> running $binary (directory on port $port)"
status=0
"$binary" "$@" 2>&1 | tee "$log" || status=${PIPESTATUS[0]}

passed=$(grep -c '^\[       OK \] .* ([0-9]* ms)$' "$log" || true)
failed=$(grep -c '^\[  FAILED  \] .* ([0-9]* ms)$' "$log" || true)
if [ "$status" != 0 ] && [ "$failed" = 0 ]; then
    failed=1  # ended before gtest reported the running case: a watchdog abort or a crash
fi
echo "$passed passed, $failed failed"
exit "$status"
