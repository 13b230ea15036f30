# harness.sh -- sourced by the tool's shell tests: a scratch folder, a throwaway directory, the
# tool run as a user runs it, and checks that count. Expects TOOL as $1 of the sourcing script.
tool=$(cd "$(dirname "$1")" && pwd)/$(basename "$1")
directory=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)/scripts/directory
export LDAPNOINIT=1
tmp=$(mktemp -d "${TMPDIR:-/tmp}/qorldap-tool-test.XXXXXX")
server=()  # (--server 389ds) for the other server
trap '"$directory" stop --dir "$tmp/dir" ${server[@]+"${server[@]}"} >/dev/null 2>&1; rm -rf "$tmp"' EXIT
trap 'exit 130' INT TERM
status=0 out="" err=""
passed=0
failed=0
group() { printf '\n[%s]\n' "$1"; }
pass() { passed=$((passed + 1)); printf 'ok   %s\n' "$1"; }
fail() {
    failed=$((failed + 1))
    printf 'FAIL %s: %s\n       status %s, stdout: %s\n       stderr: %s\n' "$1" "${2:-}" "$status" \
        "$(head -c 600 "$tmp/out" | tr -d '\0')" "$(head -c 600 "$tmp/err")"
}
# Without a controlling terminal a forgotten password ends in a usage error, never a prompt.
detach=(setsid -w)
# run ARGS...: the tool with the test directory's settings; run_bare without them. Both set
# status, out and err.
run_bare() {
    "${detach[@]}" "$tool" "$@" >"$tmp/out" 2>"$tmp/err" </dev/null
    status=$?
    out=$(tr -d '\0' <"$tmp/out")
    err=$(cat "$tmp/err")
}
run() { run_bare --conf "$conf" "$@"; }
# Success: status 0, nothing on stderr, each text on stdout.
expect_ok() {
    local name=$1 text
    shift
    [ "$status" = 0 ] && [ -z "$err" ] || { fail "$name" "expected success"; return; }
    for text in "$@"; do
        [[ $out == *"$text"* ]] || { fail "$name" "stdout lacks: $text"; return; }
    done
    pass "$name"
}
# Failure: the given status and exactly one line on stderr, "qorldap: " and holding text.
expect_fail() {
    if [ "$status" != "$2" ]; then
        fail "$1" "expected exit status $2"
    elif [ "$(printf '%s\n' "$err" | wc -l)" != 1 ] || [[ $err != "qorldap: "* ]] || [[ $err != *"$3"* ]]; then
        fail "$1" "expected one line \"qorldap: ...$3...\" on stderr"
    else
        pass "$1"
    fi
}
check() { local name=$1; shift; if "$@"; then pass "$name"; else fail "$name" "failed: $*"; fi; }
opens() { openssl pkcs8 -inform DER -in "$1" -passin "pass:$2" -out /dev/null >/dev/null 2>&1; }
fails_to_open() { ! opens "$@"; }
same_file() { cmp -s "$1" "$2"; }
# The value of attr in the entry dn, as ldapsearch sees it (base64 values decoded).
stored_value() {
    ldapsearch -x -D "$LDAP_BINDDN" -w "$LDAP_BINDPW" -LLL -o ldif-wrap=no -H "$LDAP_URI" -b "$1" -s base '(objectClass=*)' "$2" >ldif 2>/dev/null
    sed -n "s/^$2:: //Ip" ldif | base64 -d
    sed -n "s/^$2: //Ip" ldif | tr -d '\n'
}

# start_directory OPTIONS...: scripts/directory into $tmp/dir; sets conf and the env's variables.
start_directory() {
    "$directory" start --dir "$tmp/dir" ${server[@]+"${server[@]}"} "$@" >"$tmp/start.log" 2>&1 ||
        { cat "$tmp/start.log"; echo "0 passed, 1 failed"; exit 1; }
    conf=$tmp/dir/conf
    set -a
    . "$tmp/dir/env"
    set +a
}
# ok NAME TEXT ARGS...: the tool succeeds and prints TEXT. no NAME STATUS TEXT ARGS...: it fails
# with STATUS and one "qorldap: " line holding TEXT.
ok() { local name=$1 text=$2; shift 2; run "$@"; expect_ok "$name" "$text"; }
no() { local name=$1 want=$2 text=$3; shift 3; run "$@"; expect_fail "$name" "$want" "$text"; }
