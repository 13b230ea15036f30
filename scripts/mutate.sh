#!/usr/bin/env bash
# mutate.sh -- how many single-line faults the tests catch. A tool, not a test.
#
#   scripts/mutate.sh [--list] [--only ID[,ID...]] [--work DIR]
#
# Copies the working tree (tracked and untracked files, not ignored ones) into DIR (default: a
# new temporary folder), builds it once, then for each fault of scripts/mutants.txt: applies it
# to the copy, rebuilds, runs the fast suites (every ctest entry but link_tests and demo; the
# link tests too for faults marked fast+link), restores the file and notes whether some test
# failed (killed) or none did (survived). A fault that does not build is left out of the count.
# Ends with "killed K of N" and the survivors by name. The developer's tree is never touched.
# --list checks that every fault applies (its original text occurs exactly once) and stops.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
list=$root/scripts/mutants.txt
only=""
work=""
check_only=0
while [ $# -gt 0 ]; do
    case $1 in
        --list) check_only=1 ;;
        --only) only=",$2,"; shift ;;
        --work) work=$2; shift ;;
        *) echo "usage: scripts/mutate.sh [--list] [--only ID,...] [--work DIR]" >&2; exit 2 ;;
    esac
    shift
done

# One fault a line: id, file, suites, original, replacement; "\n" in a text stands for a line
# break (a line dropped next to its neighbour), "\|" for a "|" that would split the fields.
faults() {
    grep -v '^\s*\(#\|$\)' "$list" | sed 's/\\|/\x01/g' |
        awk -F' [|] ' 'NF == 5 { print $1 "\x1f" $2 "\x1f" $3 "\x1f" $4 "\x1f" $5; next }
                       { print "bad line: " $0 > "/dev/stderr"; exit 1 }'
}
decode() {
    local t=${1//$'\x01'/|}
    printf '%s' "${t//\\n/$'\n'}"
}
# The file's text with the first occurrence of $2 replaced by $3; fails unless it occurs once.
replace_once() {
    local file=$1 from=$2 to=$3 text rest
    text=$(cat "$file"; printf x)
    text=${text%x}
    rest=${text#*"$from"}
    [ "$rest" != "$text" ] || return 1
    [ "${rest#*"$from"}" = "$rest" ] || return 2
    printf '%s' "${text%%"$from"*}$to$rest"
}

src=$root
if [ "$check_only" = 0 ]; then
    work=${work:-$(mktemp -d /tmp/qorldap-mutate.XXXXXX)}
    src=$work/src
    rm -rf "$src" && mkdir -p "$src"
    # Files deleted in the working tree but not yet in git are left out.
    (cd "$root" && git ls-files -co --exclude-standard | grep -vxF -f <(git ls-files -d; echo /) |
        tr '\n' '\0' | xargs -0 tar cf -) | tar xf - -C "$src"
    ln -sfn "$root/../shared" "$work/shared" 2>/dev/null || true
    echo "==> building a copy in $work"
    cmake -S "$src" -B "$work/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
    cmake --build "$work/build" -j"$(nproc)" >"$work/build.log" 2>&1 ||
        { echo "the unmutated copy does not build; see $work/build.log" >&2; exit 1; }
    (cd "$work/build" && ctest -j"$(nproc)" -E '^(link_tests|demo)$' >"$work/baseline.log" 2>&1) ||
        { echo "the unmutated copy fails its tests; see $work/baseline.log" >&2; exit 1; }
fi

missing=0
killed=0
total=0
unbuilt=0
survivors=()
while IFS=$'\x1f' read -r id file suites from to; do
    [ -z "$only" ] || [[ "$only" == *",$id,"* ]] || continue
    from=$(decode "$from")
    to=$(decode "$to")
    target=$src/$file
    if ! mutated=$(replace_once "$target" "$from" "$to"); then
        echo "$id: does not apply to $file (its text is missing or not unique)" >&2
        missing=$((missing + 1))
        continue
    fi
    if [ "$check_only" = 1 ]; then
        echo "$id applies to $file"
        continue
    fi
    cp -p "$target" "$work/original"
    printf '%s' "$mutated" >"$target"
    verdict=survived
    if ! cmake --build "$work/build" -j"$(nproc)" >"$work/$id.build.log" 2>&1; then
        verdict=unbuilt
    else
        exclude='^(link_tests|demo)$'
        [ "$suites" = "fast+link" ] && exclude='^demo$'
        if ! (cd "$work/build" && ctest -j"$(nproc)" --timeout 300 -E "$exclude" >"$work/$id.test.log" 2>&1); then
            verdict=killed
        fi
    fi
    cp -p "$work/original" "$target"
    touch "$target"
    case $verdict in
        killed) killed=$((killed + 1)); total=$((total + 1)) ;;
        survived) total=$((total + 1)); survivors+=("$id ($file)") ;;
        unbuilt) unbuilt=$((unbuilt + 1)) ;;
    esac
    printf '%-8s %-4s %s: %s\n' "$verdict" "$id" "$file" "$(head -c 70 <<<"$from" | head -n1)"
done < <(faults)

[ "$check_only" = 1 ] && exit $((missing > 0))
echo "not applied: $missing"
cmake --build "$work/build" -j"$(nproc)" >/dev/null 2>&1 || true
echo "unbuilt: $unbuilt (left out)"
for s in "${survivors[@]}"; do echo "survived: $s"; done
echo "killed $killed of $total"
