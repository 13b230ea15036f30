#!/usr/bin/env bash
# bench.sh -- builds the benchmarks, runs them against a throwaway directory and writes
# bench/RESULTS.md. `./run bench` calls it after scripts/install-deps.sh.
#
#   scripts/bench.sh
#
# 1. configures a Release build in build-bench/ with -DQORLDAP_BUILD_BENCH=ON and builds
#    qorldap_bench (public API vs raw libldap) and qorldap_bench_engine (GetFullDN);
# 2. starts a slapd of our own on 127.0.0.1 in a fresh temporary folder with dbnosync
#    (scripts/directory start --nosync --no-audit), stopped and removed on exit whatever happens;
# 3. runs both programs (JSON into the temporary folder; the benchmarks add the entries they
#    need through the library's own InsertLdap), then the memory run (100,000 key reads and
#    100,000 key writes in one process);
# 4. writes bench/RESULTS.md (bench/results.py) and prints it.
# The whole run takes about 3 minutes on 2 cores. The environment may shorten or lengthen it:
#   QORLDAP_BENCH_MIN_TIME      seconds per repetition of a benchmark (default 0.4)
#   QORLDAP_BENCH_REPETITIONS   repetitions, shuffled across all benchmarks (default 5)
#   QORLDAP_BENCH_MEMORY_ROUNDS reads and writes of the memory run (default 100000)
#   QORLDAP_BENCH_NICE          a niceness such as -10 for our slapd and the benchmark programs
#                               (root only), for steadier figures on a machine busy with other
#                               work; unset by default: nothing is reniced
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$here"
jobs=$(nproc 2>/dev/null || echo 2)
build="build-bench"
min_time=${QORLDAP_BENCH_MIN_TIME:-0.4}
repetitions=${QORLDAP_BENCH_REPETITIONS:-5}
memory_rounds=${QORLDAP_BENCH_MEMORY_ROUNDS:-100000}
niceness=${QORLDAP_BENCH_NICE:-}
PATH=$PATH:/usr/sbin:/sbin

step() { printf '\n==> %s\n' "$*"; }

step "building the benchmarks (Release, $build/)"
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DQORLDAP_BUILD_BENCH=ON \
    -DQORLDAP_BUILD_TESTS=OFF -DQORLDAP_BUILD_TOOLS=OFF >/dev/null
cmake --build "$build" -j"$jobs" --target qorldap_bench qorldap_bench_engine qorldap_alloc_probe

work=$(mktemp -d /tmp/qorldap-bench.XXXXXX)
cleanup() {
    scripts/directory stop --dir "$work" >/dev/null 2>&1 || true
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

step "starting a throwaway directory (dbnosync)"
scripts/directory start --dir "$work" --nosync --no-audit
set -a
# shellcheck disable=SC1091
. "$work/env"
set +a
# Keep a user's ldap.conf / .ldaprc away from both the library's and the raw connections.
export LDAPNOINIT=1

run=()
priority="default priority"
if [ -n "$niceness" ]; then
    renice -n "$niceness" -p "$(head -n1 "$work/slapd.pid")" >/dev/null
    run=(nice -n "$niceness")
    priority="slapd and the benchmarks at niceness $niceness"
fi

load_before=$(cut -d' ' -f1-3 /proc/loadavg)
flags=(--benchmark_min_time="$min_time" --benchmark_repetitions="$repetitions"
       --benchmark_enable_random_interleaving=true --benchmark_out_format=json)

step "public API vs raw libldap"
"${run[@]}" "$build/bench/qorldap_bench" "${flags[@]}" --benchmark_out="$work/api.json"
step "engine: GetFullDN vs raw libldap"
"${run[@]}" "$build/bench/qorldap_bench_engine" "${flags[@]}" --benchmark_out="$work/engine.json"
step "memory: $memory_rounds key reads and $memory_rounds key writes in one process"
"${run[@]}" "$build/bench/qorldap_bench" --memory "$memory_rounds" | tee "$work/memory.txt"
step "heap use per operation"
"$build/bench/qorldap_alloc_probe" | tee "$work/alloc.md"
load_after=$(cut -d' ' -f1-3 /proc/loadavg)

cpu=$(sed -n 's/^model name[[:space:]]*:[[:space:]]*//p' /proc/cpuinfo | head -n1)
slapd_version=$(slapd -VV 2>&1 | sed -n 's/.*slapd \([0-9][0-9.]*\).*/\1/p' | head -n1)
libldap_path=$(ldd "$build/bench/qorldap_bench" | awk '/libldap/ {print $3; exit}')
libldap_file=""
if [ -n "$libldap_path" ]; then
    libldap_file=$(basename "$(readlink -f "$libldap_path")")
fi

step "writing bench/RESULTS.md"
# The sections other scripts and hand runs write (at scale, bulk publication, the pool, subtree
# reports, a replica lost) are kept: everything from the first heading this script does not
# write to the end of the file goes back after the sections below.
kept=$work/kept.md
python3 - bench/RESULTS.md "$kept" <<'PY'
import re, sys
ours = ("Library vs raw libldap", "GetFullDN", "Threads: key reads", "Key protection", "Memory",
        "Heap use per operation")
try:
    text = open(sys.argv[1]).read()
except OSError:
    text = ""
sections = re.split(r"(?m)^(?=## )", text)[1:]
open(sys.argv[2], "w").write("".join(s for s in sections if not s[3:].startswith(ours)))
PY
python3 bench/results.py --api "$work/api.json" --engine "$work/engine.json" \
    --memory "$work/memory.txt" --out bench/RESULTS.md \
    --meta "Date: $(date -u '+%Y-%m-%d %H:%M UTC')" \
    --meta "CPU: ${cpu:-unknown}; nproc: $(nproc)" \
    --meta "OpenLDAP: slapd ${slapd_version:-unknown}; libldap ${libldap_file:-unknown}" \
    --meta "Directory: throwaway slapd (back-mdb) on 127.0.0.1, TCP loopback, dbnosync (no sync on every write)" \
    --meta "Build: Release (-O3); Google Benchmark $(dpkg-query -W -f='${Version}' libbenchmark-dev 2>/dev/null || echo '?'), ${repetitions} repetitions of ${min_time} s each, shuffled across all benchmarks (paired ones 1 s each)" \
    --meta "Load average (1/5/15 min): ${load_before} before, ${load_after} after; ${priority} (slapd and the benchmarks share the machine's cores)"
echo
{
    echo
    echo "## Heap use per operation"
    echo
    echo "Bytes the library took with operator new during one call (libldap's own allocations are"
    echo "not counted), against what the call hands back."
    echo
    cat "$work/alloc.md"
    if [ -s "$kept" ]; then
        echo
        cat "$kept"
    fi
} >>bench/RESULTS.md
