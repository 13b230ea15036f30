#!/usr/bin/env bash
# run_memcheck.sh -- the end-to-end scenario under valgrind's memcheck, against a throwaway
# directory.
#
#   tests/memcheck/run_memcheck.sh [BUILD_DIR]   BUILD_DIR defaults to build-memcheck at the root
#
# Configures BUILD_DIR as a plain RelWithDebInfo build, builds memcheck_scenario, starts a
# directory in BUILD_DIR/memcheck-directory (--nosync; stopped however this script ends) and
# runs the scenario under valgrind with the waivers of valgrind.supp (the connection that is
# held open by design). The run fails when a check of the scenario fails, when valgrind reports
# any error (invalid read or write, use of uninitialised memory, bad free...), or when any
# memory is definitely or indirectly lost. The full valgrind log is BUILD_DIR/memcheck.log.
#
# Last line: "N passed, M failed": the scenario's checks plus one for valgrind's verdict.
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
root=$(cd "$here/../.." && pwd)
build=${1:-$root/build-memcheck}
jobs=$(nproc 2>/dev/null || echo 2)
directory=$root/scripts/directory
dir=$build/memcheck-directory
log=$build/memcheck.log
out=$build/memcheck.out

command -v valgrind >/dev/null 2>&1 || { echo "run_memcheck.sh: valgrind not found" >&2; echo "0 passed, 1 failed"; exit 1; }

echo "==> configuring $build (RelWithDebInfo)"
if ! cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null ||
    ! cmake --build "$build" -j"$jobs" --target memcheck_scenario; then
    echo "run_memcheck.sh: build failed" >&2
    echo "0 passed, 1 failed"
    exit 1
fi
binary=$(find "$build" -name memcheck_scenario -type f -perm -u+x | head -n1)
[ -n "$binary" ] || { echo "run_memcheck.sh: memcheck_scenario not found" >&2; echo "0 passed, 1 failed"; exit 1; }

if "$directory" status --dir "$dir" >/dev/null 2>&1; then
    echo "run_memcheck.sh: a server from $dir is already running; not touching it" >&2
    echo "0 passed, 1 failed"
    exit 1
fi
trap '"$directory" stop --dir "$dir" >&2 || true' EXIT
"$directory" start --dir "$dir" --nosync >&2
set -a
# shellcheck source=/dev/null
. "$dir/env"
set +a
export QORLDAP_TEST_DIR=$dir

echo "==> running $binary under valgrind"
status=0
valgrind --leak-check=full --errors-for-leak-kinds=definite,indirect --error-exitcode=3 \
    --suppressions="$here/valgrind.supp" --track-origins=yes --num-callers=40 \
    --log-file="$log" "$binary" | tee "$out" || status=${PIPESTATUS[0]}

echo "==> valgrind summary (full log: $log)"
grep -E 'ERROR SUMMARY|LEAK SUMMARY|definitely lost:|indirectly lost:|possibly lost:|still reachable:|suppressed:' "$log" |
    sed 's/^==[0-9]*== */    /'

# Bytes of one leak kind in the summary ("0" when there was nothing to summarise).
lost() {
    local n
    n=$(sed -n "s/.*$1 lost: \([0-9,]*\) bytes.*/\1/p" "$log" | tail -n1 | tr -d ,)
    echo "${n:-0}"
}
errors=$(sed -n 's/.*ERROR SUMMARY: \([0-9,]*\) errors.*/\1/p' "$log" | tail -n1 | tr -d ,)
definite=$(lost definitely)
indirect=$(lost indirectly)

verdict_ok=1
if [ -z "$errors" ]; then
    echo "run_memcheck.sh: no ERROR SUMMARY in $log (valgrind did not finish)" >&2
    verdict_ok=0
elif [ "$errors" != 0 ] || [ "$definite" != 0 ] || [ "$indirect" != 0 ]; then
    verdict_ok=0
    echo "run_memcheck.sh: $errors error(s), $definite bytes definitely and $indirect bytes" \
        "indirectly lost. Where (frames in our code marked >>):" >&2
    # Each reported error or loss record, with the frames of the library and the scenario.
    # Our frames: the library's object, or one of our source files (valgrind names a frame by
    # its file's base name once it has the debug information).
    ours=$(for f in "$root"/{engine,binding,interface,platform,tests/memcheck}/*.{cpp,h}; do
        if [ -e "$f" ]; then basename "$f"; fi
    done | sed 's/\./\\./g' | paste -sd'|' -)
    awk -v ours="libqorldap|\\((${ours}):[0-9]+\\)" '
         / (at|by) 0x/ { if ($0 ~ ours) { if (header != "") { print header; header = "" }
                                         print ">> " $0 }
                         next }
         /^==[0-9]+== [^ ]/ { header = $0 }' "$log" | sed 's/==[0-9]*== //' | head -n 200 >&2 || true
fi

# The scenario's own tally, then valgrind's verdict as one more check.
passed=$(sed -n 's/^\([0-9]*\) passed, \([0-9]*\) failed$/\1/p' "$out" | tail -n1)
failed=$(sed -n 's/^\([0-9]*\) passed, \([0-9]*\) failed$/\2/p' "$out" | tail -n1)
if [ -z "$passed" ]; then
    echo "run_memcheck.sh: the scenario did not finish (exit status $status)" >&2
    passed=0
    failed=1
fi
if [ "$verdict_ok" = 1 ]; then
    passed=$((passed + 1))
    echo "ok   valgrind: no errors, nothing definitely or indirectly lost"
else
    failed=$((failed + 1))
    echo "FAIL valgrind: $errors error(s), $definite bytes definitely and $indirect bytes indirectly lost"
fi
echo "$passed passed, $failed failed"
if [ "$failed" != 0 ]; then
    [ "$status" != 0 ] || status=1
    exit "$status"
fi
exit 0
