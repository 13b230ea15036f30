#!/usr/bin/env bash
# migrate_test.sh TOOL -- qorldap audit, export and import against the throwaway directories of
# both servers: a slapd with its accesslog database and a 389 instance with its access and
# audit logs, each holding users with keys.
#
# The last line says "N passed, M failed"; the exit status is 1 when any failed.
set -uo pipefail

[ $# -eq 1 ] || { echo "usage: migrate_test.sh TOOL" >&2; exit 2; }
. "$(dirname "${BASH_SOURCE[0]}")/harness.sh"
d389=$tmp/d389 back=$tmp/back third=$tmp/third
trap 'for d in "$d389" "$back" "$third" "$tmp/dir"; do "$directory" stop --dir "$d" >/dev/null 2>&1; done; rm -rf "$tmp"' EXIT

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
    ldapsearch -x -H "$1" -D cn=reader,o=root -w reader-pw -b o=root '(cn=user3)' 'cryptPrikey;binary' >/dev/null 2>&1
    # Keys asked for by OID, and probed by a filter alone (key attributes have no equality
    # rule: slapd refuses a compare of one before it is logged).
    ldapsearch -x -H "$1" -D cn=reader,o=root -w reader-pw -b "$user" -s base 1.3.6.1.4.1.32473.1.1.4 >/dev/null 2>&1
    ldapsearch -x -H "$1" -D cn=reader,o=root -w reader-pw -b "$user" -s base '(userPsw=*)' 1.1 >/dev/null 2>&1
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
    check "$name: a subtree search above the entry reaches it, and is flagged" eval 'grep -i "read (sub) o=root  cryptPrikey;binary  by cn=reader,o=root" "$tmp/out" | grep -q FLAGGED'
    local probe
    for probe in "read     $user  cryptPrikey  by" "read     $user  userPsw  by"; do
        check "$name: flagged: ${probe%  by}" eval 'grep -F "$probe cn=reader,o=root" "$tmp/out" | grep -q FLAGGED'
    done
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
ldapsearch -x -H "$slapd_uri" -D cn=reader,o=root -w reader-pw -b "cn=x"$'\n'"2026-01-01T00:00:00Z  read     forged,o=root" -s base 'signPrikey;binary' >/dev/null 2>&1
run audit
check "slapd: a line feed in a DN stays inside its row" eval '! grep -q "^2026-01-01T00:00:00Z" "$tmp/out" && grep -qF "cn=x\x0A2026-01-01" "$tmp/out"'
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
    # Reads that would hide from the audit: a quote in a filter value or in an attribute name
    # that writes a false attrs= into the log line, and a search sent right behind a bind as
    # the key service that fails (389 may run the searches first and log the bind's result
    # after them: none of them is the key service's).
    reader=(-x -H "$(e LDAP_URI)" -D cn=reader,o=root -w reader-pw)
    ldapsearch "${reader[@]}" -b o=root -s one '(description= attrs="cn")' 'signPrikey;binary' >/dev/null 2>&1
    ldapsearch "${reader[@]}" -b ou=unit0,o=root -s one '(objectClass=*)' 'x" attrs="cn' 'cryptPrikey;binary' >/dev/null 2>&1
    python3 - "$(e LDAP_PORT)" "$(e QORLDAP_SERVICE_DN)" o=root <<'PY'
import socket, sys, time
def tlv(tag, body):
    n = len(body)
    return bytes([tag]) + (bytes([n]) if n < 128 else bytes([0x82]) + n.to_bytes(2, "big")) + body
num = lambda v: tlv(0x02, bytes([v]))
text = lambda v: tlv(0x04, v.encode())
bind = tlv(0x60, num(3) + text(sys.argv[2]) + tlv(0x80, b"wrong"))
search = tlv(0x63, text(sys.argv[3]) + tlv(0x0A, b"\0") + tlv(0x0A, b"\0") + num(0) + num(0) +
             tlv(0x01, b"\0") + tlv(0x87, b"objectClass") + tlv(0x30, text("userPsw;binary")))
c = socket.create_connection(("127.0.0.1", int(sys.argv[1])))
c.sendall(tlv(0x30, num(1) + bind) + b"".join(tlv(0x30, num(i) + search) for i in range(2, 8)))
time.sleep(0.5)
c.close()
PY
    run audit --log "$d389/ds/log"
    for probe in "read (one) o=root  signprikey;binary  by cn=reader,o=root" \
        "read (one) ou=unit0,o=root  cryptprikey;binary  by cn=reader,o=root" \
        "read     o=root  userpsw;binary  by (anonymous)"; do
        check "389: flagged: $probe" eval 'grep -iF "$probe" "$tmp/out" | grep -q FLAGGED'
    done
    check "389: none of the searches behind the failed bind is the key service's" eval '! grep -iF "read     o=root  userpsw;binary  by cn=qorldap" "$tmp/out"'
    # 389 writes the DNs clients send as they come: a line feed in one ends the line.
    ldapsearch "${reader[@]}" -b "cn=x"$'\n'"fake,o=root" -s base 'signPrikey;binary' >/dev/null 2>&1
    run audit --log "$d389/ds/log"
    check "389: a line the server did not begin is flagged" eval 'grep -F "fake,o=root" "$tmp/out" | grep -q "FLAGGED: a line the server did not begin"'
    # Whole lines written so (a bind of another connection as the key service, with its
    # result; a search never answered): each shows in the numbers of its connection's requests.
    t="[25/Nov/2026:10:00:0" r="nentries=0 wtime=0 optime=0 etime=0"
    {
        printf '\t389-Directory/2.3.1 B2025.016.1616\n\tlocalhost:1 (/etc/dirsrv/slapd-x)\n\n'
        for c in 1 2 3; do
            printf '%s0.1 +0000] conn=%s fd=6%s slot=6%s connection from 127.0.0.1 to 127.0.0.1\n' "$t" $c $c $c
            printf '%s0.2 +0000] conn=%s op=0 BIND dn="cn=reader,o=root" method=128 version=3\n' "$t" $c
            printf '%s0.3 +0000] conn=%s op=0 RESULT err=0 tag=97 %s dn="cn=reader,o=root"\n' "$t" $c "$r"
        done
        printf '%s1.1 +0000] conn=2 op=1 SRCH base="cn=x"\n' "$t"
        for c in 1 3; do
            printf '%s1.1 +0000] conn=%s op=1 BIND dn="cn=qorldap,ou=services,o=root" method=128 version=3\n' "$t" $c
            printf '%s1.1 +0000] conn=%s op=1 RESULT err=0 tag=97 %s dn="cn=qorldap,ou=services,o=root"\n' "$t" $c "$r"
        done
        printf '%s1.1 +0000] conn=3 op=2 SRCH base="%s" scope=0 filter="(objectClass=*)" attrs="cryptprikey;binary"\n' "$t" "$user"
        printf '%s1.1 +0000] x" scope=0 filter="(objectClass=*)" attrs="cn"\n' "$t"
        printf '%s1.2 +0000] conn=2 op=1 RESULT err=34 tag=101 %s\n' "$t" "$r"
        printf '%s2.1 +0000] conn=1 op=1 SRCH base="%s" scope=0 filter="(objectClass=*)" attrs="signprikey;binary"\n' "$t" "$user"
        printf '%s2.2 +0000] conn=1 op=1 RESULT err=0 tag=101 nentries=1 wtime=0 optime=0 etime=0\n' "$t"
        for c in 1 2 3; do printf '%s3.%s +0000] conn=%s op=2 fd=6%s Disconnect - Cleanly Closed Connection - U1\n' "$t" $c $c $c; done
    } >written.log
    run audit --log written.log
    check "389: a bind written into the log, then the connection's own search with that number: flagged" eval 'grep -q "FLAGGED: request op=1 twice on its connection" "$tmp/out"'
    check "389: a search written into the log, never answered: flagged" eval 'grep "cryptprikey;binary  by cn=qorldap" "$tmp/out" | grep -q "FLAGGED: request op=2 had no result once its connection closed"'
    run audit --log "$d389/ds/log/audit" --entry "$user"
    expect_ok "389: the audit log alone lists the key written, and by whom" "add      $user  signPrikey;binary  by cn=directory manager"
    mkfifo fifo
    no "389: a log that is no file: one line" 1 "fifo: not a regular file (a FIFO)" audit --log fifo
    no "389: a log that is not there: one line" 1 "cannot read $tmp/nothere" audit --log "$tmp/nothere"
    conf=$slapd_conf
else
    fail "389 Directory Server did not start" "$(tail -n 5 "$tmp/start389.log")"
fi

# --- export and import ------------------------------------------------------------------------

# Every key value below o=root as the administrator reads it: "dn attribute base64" lines, sorted.
keys_of() {  # URI ADMIN PASSWORD
    ldapsearch -LLL -o ldif-wrap=no -x -H "$1" -D "$2" -w "$3" -b o=root \
        '(|(signPubcer;binary=*)(cryptPubcer;binary=*)(signPrikey;binary=*)(cryptPrikey;binary=*))' \
        signPubcer signPrikey cryptPubcer cryptPrikey 2>/dev/null |
        awk '/^dn: /{dn=substr($0,5)} /;binary::/{print tolower(dn), $0}' | sort
}
# The reader and its read above are not part of what is carried over.
group "export: OpenLDAP"
conf=$slapd_conf
run export o=root -o reader.ldif  # with the reader, which the key service may not add
ldapdelete -x -H "$slapd_uri" -D "$slapd_admin" -w "$slapd_pw" cn=reader,o=root >/dev/null 2>&1
run export o=root -o tree.ldif
expect_ok "the key subtree with its manifest" "exported 25 entries below o=root to tree.ldif (80 key values in tree.ldif.manifest)"
# The entries in the order a paged search brings them, as export reads them.
ldapsearch -LLL -E pr=500/noprompt -x -H "$slapd_uri" -D "$QORLDAP_SERVICE_DN" -w "$QORLDAP_SERVICE_PW" -b o=root 2>/dev/null |
    grep -v '^# pagedresults: ' >ldapsearch.ldif
check "byte for byte what ldapsearch -LLL writes" same_file tree.ldif ldapsearch.ldif
check "readable by its owner only, both" test "$(stat -c %a tree.ldif tree.ldif.manifest | sort -u)" = 600
no "a BASE that does not exist: one line" 1 "no such entry: ou=nowhere,o=root; nothing written" export ou=nowhere,o=root -o nowhere.ldif
check "  and no file left" test ! -e nowhere.ldif -a ! -e nowhere.ldif.partial -a ! -e nowhere.ldif.manifest
# In a folder others may write to, links planted at the names export writes under.
printf 'precious\n' >victim
ln -s victim planted.ldif.partial && ln -s victim planted.ldif.manifest.partial
run export o=root -o planted.ldif
expect_ok "links planted at the .partial names are replaced, not followed" "exported 25 entries"
check "  the file they named is untouched, the export a file of its own" eval '[ "$(cat victim)" = precious ] && [ ! -L planted.ldif ] && [ ! -L planted.ldif.manifest ] && [ "$(stat -c %a planted.ldif)" = 600 ]'
keys_of "$slapd_uri" "$slapd_admin" "$slapd_pw" >keys.slapd
run export cn=user5,ou=unit2,o=root -o one.ldif
expect_ok "one entry" "exported 1 entries below cn=user5,ou=unit2,o=root to one.ldif (4 key values"

group "import: OpenLDAP to 389 and back"
if [ -r "$d389/env" ]; then
    conf=$d389/conf
    ldapdelete -x -H "$(e LDAP_URI)" -D "$(e LDAP_BINDDN)" -w "$(e LDAP_BINDPW)" cn=reader,o=root >/dev/null 2>&1
    # The 389 directory holds user3 with another key since the audit above: refused, nothing written.
    no "a different key is not overwritten" 1 "signPrikey;binary of $user differs from the directory's; nothing written (--replace overwrites them)" import tree.ldif
    check "  and nothing was written" test -z "$(ldapsearch -x -LLL -H "$(e LDAP_URI)" -D "$(e LDAP_BINDDN)" -w "$(e LDAP_BINDPW)" -b cn=user0,ou=unit0,o=root -s base dn 2>/dev/null)"
    run import tree.ldif --replace
    expect_ok "with --replace every entry goes in and is checked" "entries added, 1 updated" "80 key values checked against tree.ldif.manifest"
    run import tree.ldif
    expect_ok "a second run finds everything there" "0 entries added, 0 updated, 25 already there"
    check "389 holds every key byte for byte" eval 'cmp -s keys.slapd <(keys_of "$(e LDAP_URI)" "$(e LDAP_BINDDN)" "$(e LDAP_BINDPW)")'
    # One byte of one imported key changed in the directory: the check against the manifest says which.
    ldapsearch -LLL -o ldif-wrap=no -x -H "$(e LDAP_URI)" -D "$(e LDAP_BINDDN)" -w "$(e LDAP_BINDPW)" -b "cn=user7,ou=unit1,o=root" -s base 'cryptPrikey;binary' |
        sed -n 's/^cryptPrikey;binary:: //p' | base64 -d >k7.der
    printf '\x5a' | dd of=k7.der bs=1 seek=100 conv=notrunc 2>/dev/null
    printf 'dn: cn=user7,ou=unit1,o=root\nchangetype: modify\nreplace: cryptPrikey;binary\ncryptPrikey;binary:< file://%s\n' "$tmp/k7.der" |
        ldapmodify -x -H "$(e LDAP_URI)" -D "$(e LDAP_BINDDN)" -w "$(e LDAP_BINDPW)" >/dev/null
    no "one byte changed in an imported key is caught" 1 "check against the manifest failed: cryptPrikey;binary of cn=user7,ou=unit1,o=root differs" import tree.ldif --check
    run import tree.ldif --replace
    expect_ok "  and --replace writes it back" "1 updated"
    run export o=root -o back.ldif
    expect_ok "389 exports the tree" "exported 25 entries below o=root to back.ldif (80 key values"
    if "$directory" start --dir "$back" --nosync >"$tmp/startback.log" 2>&1; then
        conf=$back/conf
        run import one.ldif
        expect_ok "one user into a directory without its unit: the unit is made first" "1 entries added, 0 updated, 0 already there, 1 levels made"
        run import back.ldif
        expect_ok "a fresh OpenLDAP takes 389's export (objectClass top and all)" "21 entries added, 0 updated, 4 already there"
        b() { sed -n "s/^$1=//p" "$back/env" | tr -d "'"; }
        check "OpenLDAP holds every key byte for byte after the round trip" eval 'cmp -s keys.slapd <(keys_of "$(b LDAP_URI)" "$(b LDAP_BINDDN)" "$(b LDAP_BINDPW)")'
    else
        fail "a second slapd did not start" "$(tail -n 5 "$tmp/startback.log")"
    fi
    conf=$slapd_conf
else
    fail "no 389 directory to import into" ""
fi

group "import: a failure half-way, and the same import again"
if "$directory" start --dir "$third" --nosync >"$tmp/startthird.log" 2>&1; then
    conf=$third/conf
    t() { sed -n "s/^$1=//p" "$third/env" | tr -d "'"; }
    no "an entry no export of keys holds is refused before anything is written" 1 \
        "cn=reader,o=root has objectClass inetOrgPerson, which an export of keys does not hold; nothing written (--any-entry adds it as it is)" import reader.ldif
    no "with --any-entry, the entry the target refuses stops the import, naming what stays" 1 \
        "50 writing cn=reader,o=root: insufficient access (50): no write access to entry; import stopped after 0 levels, 3 entries added and 0 updated, which stay; run the same import again" import reader.ldif --any-entry
    check "  what was written before it stays" eval '[ -n "$(ldapsearch -x -LLL -H "$(t LDAP_URI)" -D "$(t LDAP_BINDDN)" -w "$(t LDAP_BINDPW)" -b ou=unit2,o=root -s base dn 2>/dev/null)" ]'
    check "  no key went in" eval '[ -z "$(keys_of "$(t LDAP_URI)" "$(t LDAP_BINDDN)" "$(t LDAP_BINDPW)")" ]'
    printf 'dn: cn=reader,o=root\nobjectClass: inetOrgPerson\ncn: reader\nsn: r\n' |
        ldapadd -x -H "$(t LDAP_URI)" -D "$(t LDAP_BINDDN)" -w "$(t LDAP_BINDPW)" >/dev/null 2>&1
    run import reader.ldif --any-entry
    expect_ok "the cause put right, the same import goes on from there" "20 entries added, 0 updated, 6 already there"
    conf=$slapd_conf
else
    fail "a third slapd did not start" "$(tail -n 5 "$tmp/startthird.log")"
fi

group "import: an LDIF changed by hand, with a manifest to match, as the directory manager"
# The manifest holds digests only: whoever may change the file may write a manifest for it.
# Each row: what, the manifest's base, the entries, what import says (nothing is written).
forge() {  # BASE NAME: stdin to NAME, and NAME.manifest as export writes it
    cat >"$2"
    { echo "# qorldap export manifest"; echo "base: $1"
      echo "entries: $(grep -c '^dn:' "$2")"; echo "values: 0"
      echo "ldif-sha256: $(sha256sum "$2" | cut -d' ' -f1)"; } >"$2.manifest"
}
cp -r "$slapd_conf" strong
sed -i "s/^managerdn=.*/managerdn=$slapd_admin/; s/^psw=.*/psw=$slapd_pw/" strong/soap.ini
conf=$tmp/strong
while IFS='|' read -r name base ldif says; do
    printf "$ldif\n" | forge "$base" forged.ldif
    no "$name" 1 "$says" import forged.ldif
    check "  $name: nothing written" eval '[ -z "$(ldapsearch -x -LLL -H "$slapd_uri" -D "$slapd_admin" -w "$slapd_pw" -b o=root "(|(cn=forged*)(ou=forged*))" dn </dev/null 2>/dev/null)" ]'
done <<'ROWS'
an entry outside the manifest's base|ou=unit0,o=root|dn: cn=forged,o=root\nobjectClass: qorPerson\ncn: forged\n|cn=forged,o=root is not below the manifest's base ou=unit0,o=root
a name that climbs out with an escaped comma|o=root|dn: cn=forged\\,o=root\nobjectClass: qorPerson\ncn: forged\n|is no DN import writes: the value of "cn=forged\" holds "\"
a name that brings a password in|o=root|dn: ou=forged+userPassword=pw,o=root\nobjectClass: organizationalUnit\nou: forged\n|holds "+" (0x2B)
a root login|o=root|dn: cn=forged,o=root\nobjectClass: inetOrgPerson\nobjectClass: posixAccount\ncn: forged\nsn: f\nuid: forged\nuidNumber: 0\ngidNumber: 0\nhomeDirectory: /root\nuserPassword: pw\n|cn=forged,o=root has objectClass inetOrgPerson, which an export of keys does not hold; nothing written (--any-entry adds it as it is)
a bind account|o=root|dn: cn=forged,o=root\nobjectClass: qorPerson\nobjectClass: simpleSecurityObject\ncn: forged\nuserPassword: pw\n|has objectClass simpleSecurityObject
a password on a template class|o=root|dn: cn=forged,o=root\nobjectClass: qorPerson\ncn: forged\nuserPassword: pw\n|cn=forged,o=root holds userPassword, which
a password by OID with an option|o=root|dn: cn=forged,o=root\nobjectClass: qorPerson\ncn: forged\n2.5.4.35;x-a: pw\n|holds 2.5.4.35;x-a
a group with a member|o=root|dn: cn=forged,o=root\nobjectClass: groupOfNames\ncn: forged\nmember: cn=admin,o=root\n|has objectClass groupOfNames
an alias|o=root|dn: cn=forged,o=root\nobjectClass: alias\nobjectClass: extensibleObject\ncn: forged\naliasedObjectName: cn=admin,o=root\n|has objectClass alias
a change record|o=root|dn: cn=admin,o=root\nchangetype: modify\nreplace: description\ndescription: forged\n|line 2: a change record (changetype:) is no export
a value read from a file|o=root|dn: cn=forged,o=root\nobjectClass: qorPerson\ncn: forged\ndescription:< file:///etc/passwd\n|line 4: the value of description is a URL (description:<), which import does not read
a carriage return in a value|o=root|dn: cn=forged,o=root\nobjectClass: qorPerson\ncn: forged\ndescription: a\rb\n|line 4: the value of description holds a carriage return (0x0D)
one entry twice|o=root|dn: cn=forged,o=root\nobjectClass: qorPerson\ncn: forged\n\ndn: CN=Forged, o=root\nobjectClass: qorPerson\ncn: forged\n|CN=Forged, o=root comes twice
ROWS
conf=$slapd_conf

group "import: exports that are not whole"
head -c 5000 tree.ldif >cut.ldif && cp tree.ldif.manifest cut.ldif.manifest
no "an LDIF cut short: one line" 1 "cut.ldif: ends inside an entry (truncated?); nothing written" import cut.ldif
awk 'BEGIN{RS="";ORS="\n\n"} NR<=20' tree.ldif >short.ldif && cp tree.ldif.manifest short.ldif.manifest
no "an LDIF cut at an entry's end" 1 "short.ldif holds 20 entries, its manifest 25" import short.ldif
cp tree.ldif changed.ldif && cp tree.ldif.manifest changed.ldif.manifest
python3 - changed.ldif <<'PY'
import sys
p = sys.argv[1]; s = open(p).read(); i = s.index("signPrikey;binary:: ") + 40
s = s[:i] + ("A" if s[i] != "A" else "B") + s[i + 1:]; open(p, "w").write(s)
PY
no "a key that does not match the manifest" 1 "signPrikey;binary of cn=user0,ou=unit0,o=root does not match changed.ldif.manifest; nothing written" import changed.ldif
cp tree.ldif nomanifest.ldif
no "no manifest" 1 "cannot read nomanifest.ldif.manifest" import nomanifest.ldif
no "--replace with --check" 2 "exclude --check" import tree.ldif --replace --check

echo
echo "$passed passed, $failed failed"
[ "$failed" = 0 ]
