#!/usr/bin/env bash
# migrate-roundtrip.sh [BUILD_DIR] [--users N] -- carries a populated key tree OpenLDAP -> 389 ->
# OpenLDAP with qorldap export and import, timing each step, and compares every key value of
# the three directories as each one's manager reads it (ldapsearch). Needs root (389).
#
# Three throwaway directories in a fresh mktemp folder, all stopped and removed at the end:
# a slapd filled by "scripts/directory populate --users N --units N/100 --keys" (default
# 10,000 users), a 389 instance and a fresh slapd. Exit status 0 when every key came back
# byte for byte.
set -uo pipefail
project=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=$project/build users=10000
while [ $# -gt 0 ]; do
    case $1 in
        --users) users=${2:?--users N}; shift ;;
        -h | --help) sed -n '2,9p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
        *) build=$1 ;;
    esac
    shift
done
q=$build/tools/qorldap directory=$project/scripts/directory
[ -x "$q" ] || { echo "migrate-roundtrip: no $q (build first)" >&2; exit 2; }
units=$((users / 100 > 0 ? users / 100 : 1))
work=$(mktemp -d "${TMPDIR:-/tmp}/qorldap-roundtrip.XXXXXX")
trap 'for d in a b c; do "$directory" stop --dir "$work/$d" >/dev/null 2>&1; done; rm -rf "$work"' EXIT
cd "$work" || exit 1

"$directory" start --dir "$work/a" --nosync >/dev/null || exit 1
"$directory" populate --dir "$work/a" --users "$users" --units "$units" --keys || exit 1
"$directory" start --server 389ds --dir "$work/b" --nosync >/dev/null || exit 1
"$directory" start --dir "$work/c" --nosync >/dev/null || exit 1

step() {  # TITLE, then the command
    local title=$1 started
    shift
    started=$(date +%s%N)
    "$@" || { echo "migrate-roundtrip: $title failed" >&2; exit 1; }
    printf '  %s: %d ms\n' "$title" $((($(date +%s%N) - started) / 1000000))
}
step "export from OpenLDAP" "$q" --conf "$work/a/conf" export "$(sed -n "s/^LDAP_BASEDN=//p" a/env | tr -d "'")" -o a.ldif
step "import into 389" "$q" --conf "$work/b/conf" import a.ldif
step "export from 389" "$q" --conf "$work/b/conf" export "$(sed -n "s/^LDAP_BASEDN=//p" b/env | tr -d "'")" -o b.ldif
step "import into a fresh OpenLDAP" "$q" --conf "$work/c/conf" import b.ldif
step "check of it against the first manifest" "$q" --conf "$work/c/conf" import a.ldif --check

# Every key value as "dn attribute:: base64", sorted, as the directory's manager reads it.
keys_of() {
    (
        set -a
        . "$1/env"
        set +a
        ldapsearch -LLL -o ldif-wrap=no -E pr=1000/noprompt -x -H "$LDAP_URI" -D "$LDAP_BINDDN" \
            -w "$LDAP_BINDPW" -b "$LDAP_BASEDN" \
            '(|(signPubcer;binary=*)(cryptPubcer;binary=*)(signPrikey;binary=*)(cryptPrikey;binary=*))' \
            signPubcer signPrikey cryptPubcer cryptPrikey 2>/dev/null |
            awk '/^dn: /{dn=substr($0,5)} /;binary::/{print tolower(dn), $0}' | sort
    )
}
for d in a b c; do keys_of "$work/$d" >"$d.keys"; done
echo "  key values: $(wc -l <a.keys) in OpenLDAP, $(wc -l <b.keys) in 389, $(wc -l <c.keys) back in OpenLDAP"
if [ -s a.keys ] && cmp -s a.keys b.keys && cmp -s a.keys c.keys; then
    echo "migrate-roundtrip: every key value byte for byte the same in all three"
else
    echo "migrate-roundtrip: the key values differ" >&2
    exit 1
fi
