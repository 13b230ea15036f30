#!/usr/bin/env bash
# migrate_test.sh TOOL -- qorldap audit, export and import against the throwaway directories of
# both servers: a slapd with its accesslog database and a 389 instance with its access and
# audit logs, each holding users with keys.
#
# The last line says "N passed, M failed"; the exit status is 1 when any failed.
set -uo pipefail

[ $# -eq 1 ] || { echo "usage: migrate_test.sh TOOL" >&2; exit 2; }
. "$(dirname "${BASH_SOURCE[0]}")/harness.sh"
d389=$tmp/d389 back=$tmp/back
trap '"$directory" stop --dir "$d389" >/dev/null 2>&1; "$directory" stop --dir "$back" >/dev/null 2>&1; "$directory" stop --dir "$tmp/dir" >/dev/null 2>&1; rm -rf "$tmp"' EXIT

start_directory --nosync
"$directory" populate --dir "$tmp/dir" --users 20 --units 3 --keys >"$tmp/populate.log" 2>&1 ||
    { cat "$tmp/populate.log"; echo "0 passed, 1 failed"; exit 1; }
cd "$tmp" || exit 1
slapd_conf=$conf slapd_uri=$LDAP_URI slapd_admin=$LDAP_BINDDN slapd_pw=$LDAP_BINDPW
user=cn=user3,ou=unit0,o=root

# An ordinary account with a password, made by the administrator: reader.
add_reader() {  # URI ADMIN PASSWORD
    printf 'dn: cn=reader,o=root\nobjectClass: inetOrgPerson\ncn: reader\nsn: r\nuserPassword: reader-pw\n' |
        ldapadd -x -H "$1" -D "$2" -w "$3" >/dev/null 2>&1
}
# The reader asks for the user's private key (the access rules give it nothing) and the key
# service reads it through the tool: one of them is flagged.
read_keys() {  # URI
    ldapsearch -x -H "$1" -D cn=reader,o=root -w reader-pw -b "$user" -s base 'signPrikey;binary' >/dev/null 2>&1
    run get-key "$user" -o key.der
}
# The audit of the user's entry: the reader's read flagged, the key service's not.
audit_rows() {  # NAME, then audit's options
    local name=$1
    shift
    run audit --entry "$user" "$@"
    expect_ok "$name: the reader's private-key read is listed" "by cn=reader,o=root"
    check "$name: and flagged" eval 'grep "by cn=reader,o=root" "$tmp/out" | grep -qi "signPrikey;binary.*FLAGGED"'
    check "$name: the key service's read is listed, not flagged" eval 'grep "by cn=qorldap,ou=services,o=root" "$tmp/out" | grep -qi signPrikey && ! grep "by cn=qorldap,ou=services,o=root" "$tmp/out" | grep -q FLAGGED'
    run audit --entry "$user" --json "$@"
    check "$name: --json marks the reader's read flagged" eval 'grep "\"by\": \"cn=reader,o=root\"" "$tmp/out" | grep -q "\"flagged\": true"'
    sleep 2
    run audit --entry "$user" --since 1s "$@"
    expect_ok "$name: --since leaves out what came before" "0 accesses to key attributes, 0 flagged"
}

# --- audit --------------------------------------------------------------------------------------

group "audit: OpenLDAP's accesslog database"
add_reader "$slapd_uri" "$slapd_admin" "$slapd_pw"
read_keys "$slapd_uri"
audit_rows "slapd"
no "a log database that is not there: one line" 1 "no audit log at cn=nothere" audit --logdb cn=nothere
no "--log and --logdb together" 2 "exclude each other" audit --log x --logdb cn=accesslog
no "a --since that is no time" 2 "--since takes a date" audit --since yesterday

group "audit: 389's access and audit logs"
if "$directory" start --server 389ds --dir "$d389" --nosync >"$tmp/start389.log" 2>&1; then
    e() { sed -n "s/^$1=//p" "$d389/env" | tr -d "'"; }
    conf=$d389/conf
    add_reader "$(e LDAP_URI)" "$(e LDAP_BINDDN)" "$(e LDAP_BINDPW)"
    printf 'dn: ou=unit0,o=root\nobjectClass: organizationalUnit\nou: unit0\n\ndn: %s\nobjectClass: qorPerson\ncn: user3\nsignPrikey;binary: not really a key\n' "$user" |
        ldapadd -x -H "$(e LDAP_URI)" -D "$(e LDAP_BINDDN)" -w "$(e LDAP_BINDPW)" >/dev/null 2>&1
    read_keys "$(e LDAP_URI)"
    audit_rows "389" --log "$d389/ds/log"
    run audit --log "$d389/ds/log/audit" --entry "$user"
    expect_ok "389: the audit log alone lists the key written, and by whom" "add      $user  signPrikey;binary  by cn=directory manager"
    mkfifo fifo
    no "389: a log that is no file: one line" 1 "fifo: not a regular file (a FIFO)" audit --log fifo
    no "389: a log that is not there: one line" 1 "cannot read $tmp/nothere" audit --log "$tmp/nothere"
    conf=$slapd_conf
else
    fail "389 Directory Server did not start" "$(tail -n 5 "$tmp/start389.log")"
fi

echo
echo "$passed passed, $failed failed"
[ "$failed" = 0 ]
