#!/usr/bin/env bash
# bench-publish.sh -- bulk publication with the tool: 1,000 bundles, published by 1 worker and
# then by 2 and 4 (qorldap publish --jobs N FOLDER), each run into a fresh throwaway directory; prints the
# times and the speed-up and writes the section "Bulk publication" of bench/RESULTS.md.
#
#   scripts/bench-publish.sh [TOOL] [COUNT]     TOOL: build/tools/qorldap; COUNT: 1000
#
# Key protection (PBKDF2, 100,000 iterations per key) is most of each publication's cost, so on
# a 2-core machine two workers approach twice the speed of one.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
tool=${1:-$here/build/tools/qorldap}
count=${2:-1000}
[ -x "$tool" ] || { echo "bench-publish: no tool at $tool (./run build)" >&2; exit 1; }
work=$(mktemp -d /tmp/qorldap-bench-publish.XXXXXX)
trap '"$here/scripts/directory" stop --dir "$work/dir" >/dev/null 2>&1 || true; rm -rf "$work"' EXIT
mkdir "$work/bundles"
echo "==> $count bundles (EC P-256, subject O=root/OU=bulk<i mod 10>/CN=bulk user <i>)"
(
    cd "$work/bundles"
    openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout ca.key -out ca.pem \
        -days 30 -subj "/CN=Bulk CA" 2>/dev/null
    openssl ecparam -name prime256v1 -genkey -noout -out user.key
    for ((i = 0; i < count; i++)); do
        openssl req -new -key user.key -subj "/O=root/OU=bulk$((i % 10))/CN=bulk user $i" 2>/dev/null |
            openssl x509 -req -CA ca.pem -CAkey ca.key -set_serial "$((i + 1))" -days 30 -out u.pem 2>/dev/null
        openssl pkcs12 -export -inkey user.key -in u.pem -out "u$i.p12" -passout pass:bundle
    done
    rm -f ca.key ca.pem user.key u.pem
)
export QORLDAP_P12_PASSWORD=bundle QORLDAP_KEY_PASSWORD=key-password
# 1, 2 and 4 workers, in the order 1 2 4 4 2 1 so that whatever else the machine does falls on
# each alike; each count's time is the better of its two runs.
declare -A took
for jobs in 1 2 4 4 2 1; do
    "$here/scripts/directory" start --dir "$work/dir" --nosync --no-audit >/dev/null
    started=$(date +%s%N)
    "$tool" --conf "$work/dir/conf" publish --jobs "$jobs" "$work/bundles" >"$work/out-$jobs" 2>&1 ||
        { cat "$work/out-$jobs"; exit 1; }
    ms=$((($(date +%s%N) - started) / 1000000))
    echo "--jobs $jobs: $ms ms ($(tail -n1 "$work/out-$jobs"))"
    if [ -z "${took[$jobs]:-}" ] || [ "$ms" -lt "${took[$jobs]}" ]; then took[$jobs]=$ms; fi
    "$here/scripts/directory" stop --dir "$work/dir" >/dev/null
done
python3 - "$here/bench/RESULTS.md" "$count" "${took[1]}" "${took[2]}" "${took[4]}" "$(nproc)" <<'PY'
import sys
path, count, one, two, four, cores = sys.argv[1:]
count, times = int(count), {1: int(one), 2: int(two), 4: int(four)}
rows = "".join(f"| {n} | {t / 1000:.1f} s | {count * 1000 / t:.1f} | {times[1] / t:.2f}x |\n"
               for n, t in times.items())
section = (f"## Bulk publication\n\nWritten by `scripts/bench-publish.sh`: `qorldap publish --jobs N FOLDER` "
           f"of {count:,} PKCS#12 bundles (EC P-256) into a fresh throwaway slapd (dbnosync), {cores} cores; "
           f"runs in the order 1 2 4 4 2 1 workers, the better of each count's two runs. Each worker "
           f"publishes on a connection of its own (the library's pool_size).\n\n"
           f"| workers | time | bundles/s | against one |\n|---:|---:|---:|---:|\n{rows}")
print(section)
text = open(path).read()
start = text.find("## Bulk publication")
if start >= 0:
    end = text.find("\n## ", start + 1)
    text = text[:start] + section + (text[end:] if end >= 0 else "")
else:
    text = text.rstrip("\n") + "\n\n" + section
open(path, "w").write(text)
PY
