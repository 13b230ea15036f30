#!/usr/bin/env bash
# existing_test.sh TOOL -- the README's "Using an existing directory", step by step, on a
# Debian-style directory that knows nothing of libqorldap: cn=config, a dcObject base, people as
# inetOrgPerson (+ posixAccount) under an ou with labeledURIObject, Debian's access rules.
set -uo pipefail
[ $# -eq 1 ] || { echo "usage: existing_test.sh TOOL" >&2; exit 2; }
. "$(dirname "${BASH_SOURCE[0]}")/harness.sh"
project=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
prepare=$project/scripts/qorldap-prepare

start_directory --bare --nosync --base dc=example,dc=com
cd "$tmp" || exit 1
base=dc=example,dc=com
people=ou=People,$base
services=ou=services,$base
admin=(-x -H "$LDAP_URI" -D "$LDAP_BINDDN" -w "$LDAP_BINDPW")
config=(-Q -Y EXTERNAL -H "$LDAP_LDAPI_URI")
# The values of attr in dn as the given client sees them, one per line (base64 as stored).
values() { ldapsearch -LLL -o ldif-wrap=no "${@:3}" -b "$1" -s base '(objectClass=*)' "$2" 2>/dev/null |
    sed -n "s/^$2[;:][^ ]* //Ip"; }
quiet() { "$@" >"$tmp/out" 2>"$tmp/err"; }

tree_ldif() {
    cat <<EOF
dn: $people
objectClass: organizationalUnit
objectClass: labeledURIObject
ou: People
labeledURI: https://example.com/people

dn: cn=Li Lei,$people
objectClass: inetOrgPerson
objectClass: posixAccount
cn: Li Lei
sn: Li
uid: lilei
uidNumber: 1001
gidNumber: 1001
homeDirectory: /home/lilei

dn: cn=Han Mei,$people
objectClass: inetOrgPerson
cn: Han Mei
sn: Han
userPassword: han-mei-pw
EOF
}
tree_ldif | ldapadd "${admin[@]}" >/dev/null

group "1. the schema loads into cn=config and leaves the directory as it was"
check "ldapadd -Y EXTERNAL loads schema/qorldap.ldif" quiet ldapadd "${config[@]}" -f "$project/schema/qorldap.ldif"
check "loading it twice is refused and changes nothing" eval '! quiet ldapadd "${config[@]}" -f "$project/schema/qorldap.ldif" && grep -q "Duplicate" "$tmp/err"'
check "a dcObject base stays writable" quiet ldapmodify "${admin[@]}" <<<"dn: $base
changetype: modify
replace: description
description: still ours"
check "an ou with labeledURIObject stays writable" quiet ldapmodify "${admin[@]}" <<<"dn: $people
changetype: modify
replace: labeledURI
labeledURI: https://example.com/staff"
check "an inetOrgPerson + posixAccount user can still be added" quiet ldapadd "${admin[@]}" <<<"dn: cn=Wang Wu,$people
objectClass: inetOrgPerson
objectClass: posixAccount
cn: Wang Wu
sn: Wang
uid: wangwu
uidNumber: 1002
gidNumber: 1002
homeDirectory: /home/wangwu"

group "2. access control and 3. the key service's identity"
database=$(ldapsearch -LLL "${config[@]}" -b cn=config "(olcSuffix=$base)" dn | sed -n 's/^dn: //p')
service_dn="cn=libqorldap key service 0001,$services"
service_pw=$(openssl rand -base64 48)
check "olcAccess.ldif applies to the database" eval 'sed -e "s/@BASE@/$base/g" -e "s/@SERVICES@/$services/g" -e "s/@SERVICE@/$service_dn/g" \
    -e "s/^dn: olcDatabase={1}mdb,cn=config/dn: $database/" "$project/schema/acl/olcAccess.ldif" | quiet ldapmodify "${config[@]}"'
check "a 60-character service DN with a 64-character password" test "${#service_dn}/${#service_pw}" = 60/64
check "service.ldif adds the identity" eval 'sed -e "s/@SERVICES@/$services/g" -e "s|@PASSWORD_HASH@|$(slappasswd -s "$service_pw")|" \
    -e "s/^dn: cn=qorldap,/dn: cn=libqorldap key service 0001,/" -e "s/^cn: qorldap/cn: libqorldap key service 0001/" \
    "$project/schema/acl/service.ldif" | quiet ldapadd "${admin[@]}"'

group "4. existing entries prepared"
export LDAP_URI LDAP_BINDDN LDAP_BINDPW
"$prepare" --subtree --filter '(objectClass=inetOrgPerson)' "$people" >"$tmp/out" 2>&1
check "the dry run lists the three people and changes nothing" eval 'grep -q "would give qorKeyHolder to 3 entries" "$tmp/out" && test -z "$(values "cn=Li Lei,$people" objectClass "${admin[@]}" | grep -i qorKeyHolder)"'
check "--apply gives them qorKeyHolder" eval '"$prepare" --subtree --filter "(objectClass=inetOrgPerson)" --apply "$people" | grep -q "gave qorKeyHolder to 3 entries"'
check "a second run changes nothing" eval '"$prepare" --subtree --filter "(objectClass=inetOrgPerson)" --apply "$people" | grep -q "nothing to do"'
check "a wrong base DN is refused with the server's words" eval '! "$prepare" ou=nowhere,$base 2>&1 | grep -q "No such object (32)"; test ${PIPESTATUS[0]} = 1'
check "a filter that matches nothing is refused" eval '! "$prepare" --filter "(cn=nobody)" --subtree "$people" 2>/dev/null'
check "a missing admin password is a usage error" eval 'env -u LDAP_BINDPW "$prepare" "$people" 2>/dev/null; test $? = 2'

group "5. settings and 6. publication"
mkdir qconf
sed -e "s/^host=.*/host=127.0.0.1/" -e "s/^port=.*/port=$LDAP_PORT/" -e "s|^bind_dn=.*|bind_dn=$service_dn|" \
    -e "s|^bind_password=.*|bind_password=$service_pw|" -e '/^tls/d' "$project/schema/examples/inetorgperson/soap.ini" >qconf/soap.ini
cp "$project/schema/examples/inetorgperson/ldap.ini" qconf/
conf=$tmp/qconf
openssl req -x509 -newkey rsa:2048 -nodes -keyout ca.key -out ca.pem -days 2 -subj "/CN=Test CA" 2>/dev/null
for who in "Li Lei" "Zhang Wei"; do
    f=${who// /}
    openssl req -newkey rsa:2048 -nodes -keyout "$f.key" -subj "/O=Example/OU=People/CN=$who" 2>/dev/null |
        openssl x509 -req -CA ca.pem -CAkey ca.key -CAcreateserial -days 2 -outform DER -out "$f.der" 2>/dev/null
    openssl pkcs12 -export -inkey "$f.key" -certfile ca.pem -in <(openssl x509 -inform DER -in "$f.der") \
        -out "$f.p12" -passout pass:bundle-pw
done
export QORLDAP_P12_PASSWORD=bundle-pw QORLDAP_KEY_PASSWORD=key-pw
ok "an existing inetOrgPerson receives the signing pair" "published LiLei.p12 (signing pair)" publish LiLei.p12
ok "and the encryption pair" "published LiLei.p12 (encryption pair)" publish --crypt LiLei.p12
ok "a new user is created as qorPerson" "published ZhangWei.p12" publish ZhangWei.p12
check "Li Lei keeps its classes" test "$(values "cn=Li Lei,$people" objectClass "${admin[@]}" | sort | tr '\n' ' ')" = "inetOrgPerson posixAccount qorKeyHolder "
check "Zhang Wei is a qorPerson" test "$(values "cn=Zhang Wei,$people" objectClass "${admin[@]}")" = qorPerson
run get-cert "cn=Li Lei, ou=People, $base" -o li.der
check "the certificate reads back byte-exact" cmp -s li.der LiLei.der
QORLDAP_OLD_PASSWORD=key-pw QORLDAP_NEW_PASSWORD=new-pw run passwd "cn=Li Lei"
expect_ok "the password change by name finds the existing user" "changed the password"
run get-key "cn=Li Lei, ou=People, $base" -o li.p8
check "the key opens with openssl under the new password" openssl pkcs8 -inform DER -in li.p8 -passin pass:new-pw -out /dev/null
ok "rm-key removes it" "removed the signing private key" rm-key "cn=Li Lei, ou=People, $base"
sed 's/^A1=qorPerson/A1=inetOrgPerson/; s/^\[qorPerson\]/[inetOrgPerson]/' "$project/schema/examples/inetorgperson/ldap.ini" >qconf/ldap.ini
openssl req -x509 -newkey rsa:2048 -nodes -keyout n.key -out n.pem -days 2 -subj "/O=Example/OU=People/CN=New One" 2>/dev/null
openssl pkcs12 -export -inkey n.key -in n.pem -out n.p12 -passout pass:bundle-pw
no "a level whose class needs more than its name says which" 1 "object class violation (65): object class 'inetOrgPerson' requires attribute 'sn'" publish n.p12

group "7. who sees what (the attacks on these rules are access_test's)"
li=("cn=Li Lei,$people" "cryptPrikey;binary")
check "the site's own rules stay: an anonymous client still reads a name" test "$(values "cn=Li Lei,$people" sn -x -H "$LDAP_URI")" = Li

group "undo"
check "--undo takes the keys and the class back" eval '"$prepare" --subtree --filter "(cn=Li Lei)" --undo --apply "$people" | grep -q "took the keys and qorKeyHolder from 1 entry"'
check "Li Lei is as it was" test "$(values "cn=Li Lei,$people" objectClass "${admin[@]}" | sort | tr '\n' ' ')/$(values "${li[@]}" "${admin[@]}")" = "inetOrgPerson posixAccount /"

group "389 Directory Server: the same tree, the 389 schema and ACIs, the same publication"
d389=$tmp/d389
trap '"$directory" stop --server 389ds --dir "$d389" >/dev/null 2>&1; "$directory" stop --dir "$tmp/dir" >/dev/null 2>&1; rm -rf "$tmp"' EXIT
if "$directory" start --server 389ds --dir "$d389" --nosync --base "$base" >"$tmp/start389.log" 2>&1; then
    e() { sed -n "s/^$1=//p" "$d389/env" | tr -d "'"; }
    admin=(-x -H "$(e LDAP_URI)" -D "$(e LDAP_BINDDN)" -w "$(e LDAP_BINDPW)")
    check "a dcObject base, a labeledURIObject ou, an inetOrgPerson + posixAccount user" eval 'tree_ldif | quiet ldapadd "${admin[@]}"'
    check "loading the 389 schema again changes nothing" quiet ldapmodify "${admin[@]}" -f "$project/schema/389ds/qorldap-schema.ldif"
    check "the base stays writable" quiet ldapmodify "${admin[@]}" <<<"dn: $base
changetype: modify
replace: description
description: still ours"
    LDAP_URI=$(e LDAP_URI) LDAP_BINDDN=$(e LDAP_BINDDN) LDAP_BINDPW=$(e LDAP_BINDPW) "$prepare" --subtree --apply \
        --filter '(objectClass=inetOrgPerson)' "$people" >"$tmp/out" 2>&1
    check "qorldap-prepare gives the people qorKeyHolder" grep -q "gave qorKeyHolder to 2 entries" "$tmp/out"
    sed -e "s/^host=.*/host=127.0.0.1/" -e "s/^port=.*/port=$(e LDAP_PORT)/" -e '/^tls/d' \
        -e "s|^bind_dn=.*|bind_dn=$(e QORLDAP_SERVICE_DN)|" -e "s|^bind_password=.*|bind_password=$(e QORLDAP_SERVICE_PW)|" \
        "$project/schema/examples/inetorgperson/soap.ini" >qconf/soap.ini
    cp "$project/schema/examples/inetorgperson/ldap.ini" qconf/
    ok "an existing inetOrgPerson receives its keys" "published LiLei.p12" publish LiLei.p12
    ok "both pairs" "published LiLei.p12" publish --crypt LiLei.p12
    run get-cert "cn=Li Lei, ou=People, $base" -o li389.der
    check "the certificate reads back byte-exact" cmp -s li389.der LiLei.der
    QORLDAP_OLD_PASSWORD=key-pw QORLDAP_NEW_PASSWORD=new-pw run passwd "cn=Li Lei"
    expect_ok "the password change by name" "changed the password"
    check "an anonymous search gets no private key" test -z "$(values "cn=Li Lei,$people" "signPrikey;binary" -x -H "$(e LDAP_URI)")"
    # 389 keeps a value written without ";binary" as an attribute of its own.
    check "another tool adds a plain signPubcer next to signPubcer;binary" quiet ldapmodify "${admin[@]}" <<<"dn: cn=Li Lei,$people
changetype: modify
add: signPubcer
signPubcer:: $(base64 -w0 LiLei.der)"
    LDAP_URI=$(e LDAP_URI) LDAP_BINDDN=$(e LDAP_BINDDN) LDAP_BINDPW=$(e LDAP_BINDPW) "$prepare" --subtree --undo --apply \
        --filter '(cn=Li Lei)' "$people" >"$tmp/out" 2>&1
    check "--undo takes both forms and the class back" grep -q "took the keys and qorKeyHolder from 1 entry" "$tmp/out"
    check "Li Lei holds neither form nor qorKeyHolder" test -z "$(ldapsearch -LLL -o ldif-wrap=no "${admin[@]}" \
        -b "cn=Li Lei,$people" -s base '(objectClass=*)' signPubcer 'signPubcer;binary' objectClass | grep -i 'signPubcer\|qorKeyHolder')"
else
    fail "389 Directory Server did not start" "$(tail -n 5 "$tmp/start389.log")"
fi

echo
echo "$passed passed, $failed failed"
[ "$failed" = 0 ]
