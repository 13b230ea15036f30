#!/usr/bin/env bash
# bench-scale.sh -- the lookup by name, the password change by name and the key read by DN on
# directories of 1,000 to 1,000,000 users holding keys, each next to its raw-libldap
# counterpart; writes the section "At scale" of bench/RESULTS.md. Not part of ./run test.
#
#   scripts/bench-scale.sh [SIZES...]      default: 1000 10000 100000 1000000
#
# For each size: a throwaway slapd (dbnosync) filled by scripts/directory populate --keys
# (10 units), then build-bench/bench/qorldap_bench_scale. The walk (the default lookup) is
# measured where one call stays under 10 s, and once at the first size where it does not.
# Needs about 9 GB of disk and 5 minutes for the million.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$here"
sizes=("$@")
[ ${#sizes[@]} -gt 0 ] || sizes=(1000 10000 100000 1000000)
PATH=$PATH:/usr/sbin:/sbin
export LDAPNOINIT=1
cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DQORLDAP_BUILD_BENCH=ON \
    -DQORLDAP_BUILD_TESTS=OFF -DQORLDAP_BUILD_TOOLS=OFF >/dev/null
cmake --build build-bench -j"$(nproc)" --target qorldap_bench_scale >/dev/null
work=$(mktemp -d /tmp/qorldap-bench-scale.XXXXXX)
trap 'scripts/directory stop --dir "$work/dir" >/dev/null 2>&1 || true; rm -rf "$work"' EXIT
walk=1
for n in "${sizes[@]}"; do
    echo "==> $n users"
    scripts/directory start --dir "$work/dir" --nosync --no-audit >/dev/null
    scripts/directory populate --dir "$work/dir" --users "$n" --units 10 --keys | tee "$work/populate-$n.txt"
    set -a; . "$work/dir/env"; set +a
    # The database in the page cache before anything is measured, at every size alike: a
    # directory that has served for a while holds its hot pages in memory, and a first touch of
    # the disk would fall on whichever side of a pair happens to run first.
    cat "$work/dir/db/"*.mdb >/dev/null
    flags=(--benchmark_min_time=0.5 --benchmark_repetitions=3 --benchmark_out_format=json)
    build-bench/bench/qorldap_bench_scale --users "$n" --units 10 "${flags[@]}" \
        --benchmark_out="$work/fast-$n.json"
    if [ "$walk" = 1 ]; then
        # One walk first: sizes where it passes 10 s get that one call only, and no larger size.
        build-bench/bench/qorldap_bench_scale --users "$n" --units 10 --walk \
            --benchmark_filter='walk' --benchmark_min_time=0 --benchmark_repetitions=1 \
            --benchmark_out_format=json --benchmark_out="$work/walk1-$n.json"
        if python3 -c "import json,sys; d=json.load(open(sys.argv[1])); sys.exit(0 if max(b['library_us'] for b in d['benchmarks']) < 10e6 else 1)" "$work/walk1-$n.json"; then
            build-bench/bench/qorldap_bench_scale --users "$n" --units 10 --walk \
                --benchmark_filter='walk' "${flags[@]}" --benchmark_out="$work/walk-$n.json"
        else
            cp "$work/walk1-$n.json" "$work/walk-$n.json"
            walk=0
        fi
    fi
    if [ "$n" = "${sizes[-1]}" ]; then
        build-bench/bench/qorldap_bench_scale --users "$n" --units 10 --memory 100000 | tee "$work/memory.txt"
    fi
    scripts/directory stop --dir "$work/dir" >/dev/null
done
python3 bench/scale_results.py "$work" bench/RESULTS.md
