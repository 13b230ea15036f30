#!/usr/bin/env bash
# access_test.sh TOOL -- the shipped access rules from outside, on a Debian-style OpenLDAP
# (cn=config, Debian's own rules, olcAccess.ldif applied as README says, after the rules of
# the earlier releases) and on 389 Directory Server (aci.ldif over the earlier ACIs). Every
# attack is tried as the key service, as another account in ou=services, as an ordinary user
# and anonymously, and must leave the directory as it was; what the library and the tool
# need must still work.
set -uo pipefail
[ $# -eq 1 ] || { echo "usage: access_test.sh TOOL" >&2; exit 2; }
. "$(dirname "${BASH_SOURCE[0]}")/harness.sh"
project=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
prepare=$project/scripts/qorldap-prepare
d389=$tmp/d389
trap '"$directory" stop --dir "$d389" >/dev/null 2>&1; "$directory" stop --dir "$tmp/dir" >/dev/null 2>&1; rm -rf "$tmp"' EXIT
base=dc=example,dc=com
people=ou=People,$base
services=ou=services,$base
relay=cn=mailrelay,$services
li="cn=Li Lei,$people"
han="cn=Han Mei,$people"
quiet() { "$@" >"$tmp/out" 2>"$tmp/err"; }
# The values of attr in dn as the given client sees them, one per line.
values() { ldapsearch -LLL -o ldif-wrap=no "${@:3}" -b "$1" -s base '(objectClass=*)' "$2" 2>/dev/null |
    sed -n "s/^$2[;:][^ ]* //Ip"; }
exists() { ldapsearch -LLL "${admin[@]}" -b "$1" -s base dn >/dev/null 2>&1; }
# who=(...): the ldap tools' options for one of the four clients.
as() {
    case $1 in
        service) who=(-x -H "$uri" -D "$svc" -w "$svc_pw") ;;
        relay) who=(-x -H "$uri" -D "$relay" -w relay-pw) ;;
        user) who=(-x -H "$uri" -D "$han" -w han-mei-pw) ;;
        anonymous) who=(-x -H "$uri") ;;
    esac
}
# The mail relay sets its own password (389 takes the password modify operation over TLS only).
own_password() { printf 'dn: %s\nchangetype: modify\nreplace: userPassword\nuserPassword: %s\n' "$relay" "$2" |
    quiet ldapmodify -x -H "$uri" -D "$relay" -w "$1"; }
binds() { ldapwhoami -x -H "$uri" -D "$1" -w "$2" >/dev/null 2>&1; }

group "the two forms of the OpenLDAP rules say the same"
# slapd.conf lines (continuations joined) against cn=config values (unfolded, index dropped).
conf_rules() { sed -e '/^#/d' -e '/^$/d' "$project/schema/acl/slapd-access.conf" | sed -e ':a' -e 'N' -e '$!ba' -e 's/\n\t/ /g' |
    sed -e 's/^access //' -e 's/[[:space:]]\+/ /g'; }
ldif_rules() { sed -e '/^#/d' "$project/schema/acl/olcAccess.ldif" | sed -e ':a' -e 'N' -e '$!ba' -e 's/\n //g' |
    sed -n 's/^olcAccess: {[0-9]*}//p' | sed -e 's/[[:space:]]\+/ /g'; }
check "slapd-access.conf and olcAccess.ldif hold the same eleven rules" eval '[ "$(conf_rules | wc -l)" = 11 ] && diff <(conf_rules) <(ldif_rules) >"$tmp/out"'
check "olcAccess.ldif turns add-content checks on" grep -qx 'olcAddContentAcl: TRUE' "$project/schema/acl/olcAccess.ldif"
check "slapd-access.conf says to" grep -q '^#   add_content_acl on$' "$project/schema/acl/slapd-access.conf"

tree_ldif() {
    cat <<EOF
dn: $people
objectClass: organizationalUnit
ou: People

dn: $li
objectClass: inetOrgPerson
objectClass: posixAccount
cn: Li Lei
sn: Li
mail: lilei@example.com
uid: lilei
uidNumber: 1001
gidNumber: 1001
homeDirectory: /home/lilei
userPassword: li-lei-pw

dn: $han
objectClass: inetOrgPerson
cn: Han Mei
sn: Han
userPassword: han-mei-pw

dn: $services
objectClass: organizationalUnit
ou: services

dn: $relay
objectClass: applicationProcess
objectClass: simpleSecurityObject
cn: mailrelay
userPassword: relay-pw
EOF
}

# Bundles: Li Lei exists already; Zhang Wei goes to a unit that does not exist yet.
openssl req -x509 -newkey rsa:2048 -nodes -keyout "$tmp/ca.key" -out "$tmp/ca.pem" -days 2 -subj "/CN=Test CA" 2>/dev/null
for who in "People/Li Lei" "Sales/Zhang Wei"; do
    f=$tmp/$(basename "${who// /}")
    openssl req -newkey rsa:2048 -nodes -keyout "$f.key" -subj "/O=Example/OU=${who%/*}/CN=${who#*/}" 2>/dev/null |
        openssl x509 -req -CA "$tmp/ca.pem" -CAkey "$tmp/ca.key" -CAcreateserial -days 2 -outform DER -out "$f.der" 2>/dev/null
    openssl pkcs12 -export -inkey "$f.key" -in <(openssl x509 -inform DER -in "$f.der") -out "$f.p12" -passout pass:bundle-pw
done
export QORLDAP_P12_PASSWORD=bundle-pw QORLDAP_KEY_PASSWORD=key-pw

# What the library and the tool need, as the key service with the inetorgperson example.
legitimate() {
    local server=$1
    mkdir -p "$tmp/$server"
    conf=$tmp/$server
    sed -e "s/^host=.*/host=127.0.0.1/" -e "s/^port=.*/port=$port/" -e "s|^bind_dn=.*|bind_dn=$svc|" \
        -e "s|^bind_password=.*|bind_password=$svc_pw|" -e '/^tls/d' "$project/schema/examples/inetorgperson/soap.ini" >"$conf/soap.ini"
    cp "$project/schema/examples/inetorgperson/ldap.ini" "$conf/"
    LDAP_URI=$uri LDAP_BINDDN=$admin_dn LDAP_BINDPW=$admin_pw "$prepare" --subtree --apply \
        --filter '(objectClass=inetOrgPerson)' "$people" >"$tmp/out" 2>&1
    check "$server: qorldap-prepare gives the people qorKeyHolder" grep -q "gave qorKeyHolder to 2 entries" "$tmp/out"
    ok "$server: keys go onto an existing inetOrgPerson" "(signing pair) to cn=li lei" publish "$tmp/LiLei.p12"
    ok "$server: both pairs" "(encryption pair) to cn=li lei" publish --crypt "$tmp/LiLei.p12"
    # user_certificate: the key service copies the encryption certificate to the person's own
    # userCertificate, which the access rules let it write.
    echo user_certificate=yes >>"$conf/soap.ini"
    ok "$server: with user_certificate, the encryption pair again" "(encryption pair) to cn=li lei" publish --crypt "$tmp/LiLei.p12"
    check "$server: the key service wrote userCertificate, the encryption certificate" eval \
        '[ -n "$(values "$li" "userCertificate;binary" "${admin[@]}")" ] && [ "$(values "$li" "userCertificate;binary" "${admin[@]}")" = "$(values "$li" "cryptPubcer;binary" "${admin[@]}")" ]'
    ok "$server: with user_certificate, rm-key --crypt" "removed the encryption private key" rm-key "$li" --crypt
    check "$server: and the copy went with the key" test -z "$(values "$li" "userCertificate;binary" "${admin[@]}")"
    ok "$server: the encryption pair back" "(encryption pair) to cn=li lei" publish --crypt "$tmp/LiLei.p12"
    sed -i '/^user_certificate=/d' "$conf/soap.ini"
    ok "$server: a bundle goes into a new path (ou=Sales made on the way)" "to cn=zhang wei, ou=sales" publish "$tmp/ZhangWei.p12"
    ok "$server: a second publication to the entry it made" "(encryption pair) to cn=zhang wei, ou=sales" publish --crypt "$tmp/ZhangWei.p12"
    check "$server: Zhang Wei is a qorPerson below a new ou" test "$(values "cn=zhang wei,ou=Sales,$base" objectClass "${admin[@]}" | grep -v '^top$')" = qorPerson
    ok "$server: the tool changes an entry it made" "modified" modify "cn=zhang wei, ou=Sales, $base" sn=Zhang mail=zw@example.com
    ok "$server: a key is removed" "removed the signing private key" rm-key "$li"
    check "$server: an ordinary user reads a certificate" test -n "$(values "$li" "signPubcer;binary" -x -H "$uri" -D "$han" -w han-mei-pw)"
    check "$server: the key service reads the encryption key" test -n "$(values "$li" "cryptPrikey;binary" -x -H "$uri" -D "$svc" -w "$svc_pw")"
    ok "$server: the service deletes an entry it made" "deleted" delete "cn=zhang wei, ou=Sales, $base"
    # The site's own rights of the other accounts, below ou=services too, stay as they were.
    check "$server: the mail relay still reads what the site lets it (mail)" test "$(values "$li" mail -x -H "$uri" -D "$relay" -w relay-pw)" = lilei@example.com
    check "$server: the mail relay still changes its own password" eval 'own_password relay-pw relay-pw2 && binds "$relay" relay-pw2 && own_password relay-pw2 relay-pw'
    check "$server: users still see the mail relay's entry" eval 'values "$relay" cn -x -H "$uri" -D "$han" -w han-mei-pw | grep -qx mailrelay'
}

# Each attack: the ldap tools' request as $who, then whether the harm is there (0: it is), as
# the directory manager sees it. An attack that worked is undone, so the next rows still count.
intruder_ldif() {
    printf 'dn: cn=intruder,%s\nobjectClass: %s\nobjectClass: posixAccount\ncn: intruder\nsn: x\nuid: intruder\n' "$people" "$1"
    printf 'uidNumber: 0\ngidNumber: 0\nhomeDirectory: /root\n'
    [ "$1" = inetOrgPerson ] && printf 'userPassword: taken\n'
    return 0
}
harm_add_root_account() {
    intruder_ldif inetOrgPerson | ldapadd "${who[@]}" >/dev/null 2>&1
    exists "cn=intruder,$people" && { ldapdelete "${admin[@]}" "cn=intruder,$people"; return 0; }
    return 1
}
harm_add_root_qorperson() {
    intruder_ldif qorPerson | ldapadd "${who[@]}" >/dev/null 2>&1
    exists "cn=intruder,$people" && { ldapdelete "${admin[@]}" "cn=intruder,$people"; return 0; }
    return 1
}
harm_add_group() {
    printf 'dn: cn=admins,%s\nobjectClass: groupOfNames\ncn: admins\nmember: %s\n' "$people" "$han" |
        ldapadd "${who[@]}" >/dev/null 2>&1
    exists "cn=admins,$people" && { ldapdelete "${admin[@]}" "cn=admins,$people"; return 0; }
    return 1
}
harm_add_bindable_unit() {
    printf 'dn: ou=intruders,%s\nobjectClass: organizationalUnit\nou: intruders\nuserPassword: taken\n' "$people" |
        ldapadd "${who[@]}" >/dev/null 2>&1
    exists "ou=intruders,$people" && { ldapdelete "${admin[@]}" "ou=intruders,$people"; return 0; }
    return 1
}
harm_take_over_user() {
    ldapdelete "${who[@]}" "$han" >/dev/null 2>&1
    printf 'dn: %s\nobjectClass: inetOrgPerson\ncn: Han Mei\nsn: Han\nuserPassword: taken\n' "$han" |
        ldapadd "${who[@]}" >/dev/null 2>&1
    if binds "$han" taken || ! exists "$han"; then
        ldapdelete "${admin[@]}" "$han" >/dev/null 2>&1
        printf 'dn: %s\nobjectClass: inetOrgPerson\ncn: Han Mei\nsn: Han\nuserPassword: han-mei-pw\n' "$han" | ldapadd "${admin[@]}" >/dev/null
        return 0
    fi
    return 1
}
harm_rename_user() {
    ldapmodrdn "${who[@]}" "$li" "cn=Li Lei2" >/dev/null 2>&1
    exists "$li" || { ldapmodrdn "${admin[@]}" -r "cn=Li Lei2,$people" "cn=Li Lei"; return 0; }
    return 1
}
harm_move_user() {
    ldapmodrdn "${who[@]}" -s "$services" "$li" "cn=Li Lei" >/dev/null 2>&1
    exists "$li" || { ldapmodrdn "${admin[@]}" -s "$people" "cn=Li Lei,$services" "cn=Li Lei"; return 0; }
    return 1
}
harm_change_mail() {
    printf 'dn: %s\nchangetype: modify\nreplace: mail\nmail: thief@example.org\n' "$li" | ldapmodify "${who[@]}" >/dev/null 2>&1
    [ "$(values "$li" mail "${admin[@]}")" = thief@example.org ] || return 1
    printf 'dn: %s\nchangetype: modify\nreplace: mail\nmail: lilei@example.com\n' "$li" | ldapmodify "${admin[@]}" >/dev/null
}
harm_set_password() {
    printf 'dn: %s\nchangetype: modify\nreplace: userPassword\nuserPassword: taken\n' "$li" | ldapmodify "${who[@]}" >/dev/null 2>&1
    binds "$li" taken || return 1
    printf 'dn: %s\nchangetype: modify\nreplace: userPassword\nuserPassword: li-lei-pw\n' "$li" | ldapmodify "${admin[@]}" >/dev/null
}
harm_make_root() {
    printf 'dn: %s\nchangetype: modify\nadd: objectClass\nobjectClass: posixAccount\n-\nadd: uid\nuid: hanmei\n-\nadd: uidNumber\nuidNumber: 0\n-\nadd: gidNumber\ngidNumber: 0\n-\nadd: homeDirectory\nhomeDirectory: /root\n' "$han" |
        ldapmodify "${who[@]}" >/dev/null 2>&1
    [ -n "$(values "$han" uidNumber "${admin[@]}")" ] || return 1
    printf 'dn: %s\nchangetype: modify\ndelete: objectClass\nobjectClass: posixAccount\n-\ndelete: uid\n-\ndelete: uidNumber\n-\ndelete: gidNumber\n-\ndelete: homeDirectory\n' "$han" |
        ldapmodify "${admin[@]}" >/dev/null
}
# userCertificate on a person the site gave no keys: a certificate of the writer's choosing
# there logs in as that person wherever a login compares it with userCertificate.
harm_plant_user_certificate() {
    local wu="cn=Wu Di,$people" harm=1
    printf 'dn: %s\nobjectClass: inetOrgPerson\ncn: Wu Di\nsn: Wu\nuserPassword: wu-di-pw\n' "$wu" | ldapadd "${admin[@]}" >/dev/null 2>&1
    printf 'dn: %s\nchangetype: modify\nadd: userCertificate;binary\nuserCertificate;binary:< file://%s\n' "$wu" "$tmp/LiLei.der" |
        ldapmodify "${who[@]}" >/dev/null 2>&1
    [ -n "$(values "$wu" "userCertificate;binary" "${admin[@]}")" ] && harm=0
    ldapdelete "${admin[@]}" "$wu" >/dev/null 2>&1
    return $harm
}
harm_read_private_key() { [ -n "$(values "$li" "cryptPrikey;binary" "${who[@]}")$(values "$li" "userPsw;binary" "${who[@]}")" ]; }
harm_overwrite_certificate() {
    local before
    before=$(values "$li" "signPubcer;binary" "${admin[@]}")
    printf 'dn: %s\nchangetype: modify\nreplace: signPubcer;binary\nsignPubcer;binary: forged\n' "$li" | ldapmodify "${who[@]}" >/dev/null 2>&1
    [ "$(values "$li" "signPubcer;binary" "${admin[@]}")" != "$before" ]
}
# A name's values go into the entry unchecked (slapd): a login made by renaming an entry of
# one's own, a unit and a service account that bind by their names.
harm_rename_into_root_login() {
    printf 'dn: cn=tmp,%s\nchangetype: add\nobjectClass: qorPerson\ncn: tmp\n\n' "$people" >"$tmp/rdn.ldif"
    printf 'dn: cn=tmp,%s\nchangetype: modrdn\nnewrdn: cn=tmp+objectClass=posixAccount+uid=toor+uidNumber=0+gidNumber=0+homeDirectory=/root+userPassword=hunter2\ndeleteoldrdn: 0\n\n' "$people" >>"$tmp/rdn.ldif"
    printf 'dn: cn=tmp+gidNumber=0+homeDirectory=/root+objectClass=posixAccount+uid=toor+uidNumber=0+userPassword=hunter2,%s\nchangetype: modrdn\nnewrdn: uid=toor\ndeleteoldrdn: 0\n' "$people" >>"$tmp/rdn.ldif"
    ldapmodify "${who[@]}" -f "$tmp/rdn.ldif" >/dev/null 2>&1
    local harm=1 dn
    binds "uid=toor,$people" hunter2 && harm=0
    for dn in "cn=tmp,$people" "cn=tmp+gidNumber=0+homeDirectory=/root+objectClass=posixAccount+uid=toor+uidNumber=0+userPassword=hunter2,$people" "uid=toor,$people"; do
        exists "$dn" && ldapdelete "${admin[@]}" "$dn"
    done
    return $harm
}
# add_bound DN PASSWORD LDIF: the add (LDIF on stdin, as $who), then whether DN binds with PASSWORD.
add_bound() {
    local harm=1
    ldapadd "${who[@]}" >/dev/null 2>&1
    binds "$1" "$2" && harm=0
    exists "$1" && ldapdelete "${admin[@]}" "$1"
    return $harm
}
harm_add_unit_with_password_name() {
    printf 'dn: ou=x3+userPassword=pw3,%s\nobjectClass: organizationalUnit\nou: x3\n' "$base" | add_bound "ou=x3+userPassword=pw3,$base" pw3
}
harm_add_account_in_services() {
    printf 'dn: ou=relay2+userPassword=pw,%s\nobjectClass: organizationalUnit\nou: relay2\n' "$services" | add_bound "ou=relay2+userPassword=pw,$services" pw
}
harm_rename_unit_to_password() {
    printf 'dn: ou=evil,%s\nobjectClass: organizationalUnit\nou: evil\n' "$base" | ldapadd "${who[@]}" >/dev/null 2>&1
    printf 'dn: ou=evil,%s\nchangetype: modrdn\nnewrdn: userPassword=pw1\ndeleteoldrdn: 0\n' "$base" | ldapmodify "${who[@]}" >/dev/null 2>&1
    local harm=1 dn
    binds "userPassword=pw1,$base" pw1 && harm=0
    for dn in "ou=evil,$base" "userPassword=pw1,$base"; do exists "$dn" && ldapdelete "${admin[@]}" "$dn"; done
    return $harm
}
# An entry below a person or an account: the administrator can no longer delete it (66).
# add_kept DN: the add (LDIF on stdin, as $who), then whether DN is there.
add_kept() {
    ldapadd "${who[@]}" >/dev/null 2>&1
    exists "$1" || return 1
    ldapdelete "${admin[@]}" "$1"
}
harm_add_below_user() { printf 'dn: cn=child,%s\nobjectClass: qorPerson\ncn: child\n' "$li" | add_kept "cn=child,$li"; }
harm_add_below_account() { printf 'dn: cn=child,%s\nobjectClass: qorPerson\ncn: child\n' "$relay" | add_kept "cn=child,$relay"; }
harm_add_in_services() { printf 'dn: cn=fake,%s\nobjectClass: qorPerson\ncn: fake\n' "$services" | add_kept "cn=fake,$services"; }
# 389's operational attributes that a client may set on any entry: a lock, a time limit, a
# password policy.
harm_add_operational() {
    local a harm=1
    for a in "nsAccountLock: true" "nsIdleTimeout: 99999" "pwdpolicysubentry: cn=nothing,$base"; do
        printf 'dn: ou=op,%s\nobjectClass: organizationalUnit\nou: op\n%s\n' "$base" "$a" | add_kept "ou=op,$base" && harm=0
    done
    return $harm
}
# The key service's entry must look like one that does not exist: the same result code.
harm_see_the_service() {
    local hidden missing
    hidden=$(ldapsearch "${who[@]}" -b "$svc" -s base dn 2>/dev/null | grep -c '^dn:')
    [ "$hidden" = 0 ] || return 0
    ldapsearch "${who[@]}" -b "$svc" -s base dn >/dev/null 2>&1
    hidden=$?
    ldapsearch "${who[@]}" -b "cn=nobody,$services" -s base dn >/dev/null 2>&1
    missing=$?
    [ "$server" = 389 ] && [ "$1" != anonymous ] && return 1  # 389: see README, "Security model"
    [ "$hidden" != "$missing" ]
}

attacks() {
    local server=$1 actor row
    for actor in service relay user anonymous; do
        as "$actor"
        for row in "add_root_account:adds an inetOrgPerson + posixAccount with uidNumber 0 and a password" \
            "add_root_qorperson:adds a qorPerson + posixAccount with uidNumber 0" \
            "add_group:adds a groupOfNames with a member" \
            "add_bindable_unit:adds an organizationalUnit with a userPassword" \
            "take_over_user:deletes a user and adds it again with its own password" \
            "rename_user:renames an existing user" \
            "move_user:moves an existing user" \
            "change_mail:changes an existing user's mail" \
            "set_password:sets an existing user's password" \
            "make_root:gives an existing user posixAccount with uidNumber 0" \
            "plant_user_certificate:writes userCertificate on a person the site gave no keys" \
            "read_private_key:reads a private key or userPsw" \
            "overwrite_certificate:overwrites a certificate" \
            "see_the_service:tells the key service's entry from a missing one" \
            "rename_into_root_login:renames an entry of its own into a posixAccount with uidNumber 0 and a password" \
            "add_unit_with_password_name:adds a unit whose name carries a userPassword" \
            "add_account_in_services:adds a bindable entry in ou=services" \
            "rename_unit_to_password:renames a unit of its own to a userPassword name" \
            "add_below_user:adds an entry below an existing user" \
            "add_below_account:adds an entry below another service account" \
            "add_in_services:adds an entry in ou=services" \
            "add_operational:adds a unit carrying 389's nsAccountLock, nsIdleTimeout or pwdpolicysubentry"; do
            case $actor:${row%%:*} in service:read_private_key | service:overwrite_certificate | service:see_the_service) continue ;; esac
            check "$server: the $actor cannot: ${row#*:}" eval "! harm_${row%%:*} $actor"
        done
    done
}

group "OpenLDAP (cn=config, Debian's rules): the earlier rules replaced as README says"
start_directory --bare --nosync --base "$base"
uri=$LDAP_URI port=$LDAP_PORT admin_dn=$LDAP_BINDDN admin_pw=$LDAP_BINDPW
admin=(-x -H "$uri" -D "$admin_dn" -w "$admin_pw")
config=(-Q -Y EXTERNAL -H "$LDAP_LDAPI_URI")
svc=cn=qorldap,$services svc_pw=$(openssl rand -base64 48)
check "the schema and the tree load" eval 'quiet ldapadd "${config[@]}" -f "$project/schema/qorldap.ldif" && tree_ldif | quiet ldapadd "${admin[@]}"'
DB=$(ldapsearch -LLL "${config[@]}" -b cn=config "(olcSuffix=$base)" dn | sed -n 's/^dn: //p')
# A site that followed the earlier README: the earlier rules and a clear password.
sed -e "s/@BASE@/$base/g" -e "s/@SERVICES@/$services/g" -e "s/^dn: olcDatabase={1}mdb,cn=config/dn: $DB/" \
    "$project/tests/tool/earlier/olcAccess.ldif" | quiet ldapmodify "${config[@]}"
printf 'dn: %s\nobjectClass: applicationProcess\nobjectClass: simpleSecurityObject\ncn: qorldap\nuserPassword: %s\n' "$svc" "$svc_pw" |
    quiet ldapadd "${admin[@]}"
# README, "Using an existing directory", updating: the rules of an earlier release out (the
# four of the first, the eight of the next), the new ones in.
rules() { ldapsearch -LLL -o ldif-wrap=no "${config[@]}" -b "$DB" -s base olcAccess; }
remove_earlier_rules() {
    local RULES N=0 i
    RULES=$(rules)
    [ "$(grep -c -e "^olcAccess: {[0-3]}.*dn.children=\"$services\"" -e "^olcAccess: {[0-3]}to dn.subtree=\"$services\"" <<<"$RULES")" = 4 ] && N=4
    grep -q "^olcAccess: {0}to dn.exact=\"$svc\" " <<<"$RULES" &&
        grep -q "^olcAccess: {7}.* attrs=entry,ou,cn,sn,mail,description,o by dn.exact=\"$svc\" write" <<<"$RULES" && N=8
    [ "$N" = 0 ] || { printf 'dn: %s\nchangetype: modify\ndelete: olcAccess\n' "$DB"; for ((i = 0; i < N; i++)); do printf 'olcAccess: {%d}\n' "$i"; done; } |
        ldapmodify "${config[@]}"
}
check "the earlier rules are the first four" test "$(rules | grep -c '^olcAccess: {[0-3]}.*ou=services')" = 4
check "they are removed in one modify" eval 'quiet remove_earlier_rules && [ "$(rules | grep -c "^olcAccess:")" = 3 ] && ! rules | grep -qF "$services"'
sed -e "s/@BASE@/$base/g" -e "s/@SERVICE@/$svc/g" -e "s/^dn: olcDatabase={1}mdb,cn=config/dn: $DB/" \
    "$project/tests/tool/earlier/olcAccess-8.ldif" | quiet ldapmodify "${config[@]}"
check "the eight rules of the next release are removed in one modify" eval '[ "$(rules | grep -c "^olcAccess:")" = 11 ] && quiet remove_earlier_rules &&
    [ "$(rules | grep -c "^olcAccess:")" = 3 ] && ! rules | grep -qF "$svc"'
check "olcAccess.ldif applies" eval 'sed -e "s/@BASE@/$base/g" -e "s/@SERVICES@/$services/g" -e "s/@SERVICE@/$svc/g" -e "s/^dn: olcDatabase={1}mdb,cn=config/dn: $DB/" \
    "$project/schema/acl/olcAccess.ldif" | quiet ldapmodify "${config[@]}"'
ldapsearch -LLL -o ldif-wrap=no "${config[@]}" -b "$DB" -s base olcAccess olcAddContentAcl >"$tmp/acl"
check "eleven rules of ours, then Debian's three, none of the earlier ones" eval '[ "$(grep -c "^olcAccess:" "$tmp/acl")" = 14 ] &&
    grep -q "^olcAccess: {11}to attrs=userPassword" "$tmp/acl" && ! grep -qF "dn.children=\"$services\"" "$tmp/acl"'
check "add-content checks are on" grep -qx 'olcAddContentAcl: TRUE' "$tmp/acl"
check "the update takes none of this release's rules out" eval 'quiet remove_earlier_rules && [ "$(rules | grep -c "^olcAccess:")" = 14 ]'
check "the service's password is stored hashed" eval 'printf "dn: %s\nchangetype: modify\nreplace: userPassword\nuserPassword: %s\n" "$svc" "$(slappasswd -s "$svc_pw")" |
    quiet ldapmodify "${admin[@]}" && values "$svc" userPassword "${admin[@]}" | base64 -d | grep -q "^{SSHA}" && binds "$svc" "$svc_pw"'
server=OpenLDAP
legitimate OpenLDAP
attacks OpenLDAP
printf 'dn: cn=mine,%s\nobjectClass: qorPerson\ncn: mine\n' "$people" | quiet ldapadd -x -H "$uri" -D "$svc" -w "$svc_pw"
check "OpenLDAP: the key service renames not even an entry it made, and deletes it" eval '! quiet ldapmodrdn -x -H "$uri" -D "$svc" -w "$svc_pw" "cn=mine,$people" cn=yours &&
    exists "cn=mine,$people" && quiet ldapdelete -x -H "$uri" -D "$svc" -w "$svc_pw" "cn=mine,$people" && ! exists "cn=mine,$people"'
check "OpenLDAP: a search for the key service gets 32, as for a missing entry" eval 'ldapsearch -x -H "$uri" -b "$svc" -s base >/dev/null 2>&1; test $? = 32'
"$directory" stop --dir "$tmp/dir" >/dev/null 2>&1

group "389 Directory Server: the earlier ACIs replaced as README says"
if "$directory" start --server 389ds --dir "$d389" --nosync --base "$base" >"$tmp/start389.log" 2>&1; then
    e() { sed -n "s/^$1=//p" "$d389/env" | tr -d "'"; }
    uri=$(e LDAP_URI) port=$(e LDAP_PORT) admin_dn=$(e LDAP_BINDDN) admin_pw=$(e LDAP_BINDPW)
    admin=(-x -H "$uri" -D "$admin_dn" -w "$admin_pw")
    svc=$(e QORLDAP_SERVICE_DN) svc_pw=$(e QORLDAP_SERVICE_PW)
    tree_ldif | sed "/^dn: $services\$/,/^\$/d" | quiet ldapadd "${admin[@]}"
    # The instance starts with the current ACIs; a site that followed the earlier README has
    # the earlier ones instead.
    qorldap_acis() { ldapsearch -LLL -o ldif-wrap=no "${admin[@]}" -b "$base" -s base aci | grep '^aci: .*acl "qorldap: '; }
    { printf 'dn: %s\nchangetype: modify\ndelete: aci\n' "$base"; qorldap_acis; } | quiet ldapmodify "${admin[@]}"
    sed -e "s/@BASE@/$base/g" -e "s/@SERVICES@/$services/g" "$project/tests/tool/earlier/aci.ldif" | quiet ldapmodify "${admin[@]}"
    check "the earlier twelve ACIs are there" test "$(qorldap_acis | wc -l)" = 12
    # README, "389 Directory Server", updating: every qorldap ACI out, the file's in.
    check "they are removed in one modify" eval 'OLD=$(qorldap_acis); [ -z "$OLD" ] || printf "dn: %s\nchangetype: modify\ndelete: aci\n%s\n" "$base" "$OLD" | quiet ldapmodify "${admin[@]}"'
    check "aci.ldif applies" eval 'sed -e "s/@BASE@/$base/g" -e "s/@SERVICES@/$services/g" -e "s/@SERVICE@/$svc/g" "$project/schema/389ds/aci.ldif" | quiet ldapmodify "${admin[@]}"'
    check "eighteen ACIs of ours, the site's two kept" eval '[ "$(qorldap_acis | wc -l)" = 18 ] && [ "$(ldapsearch -LLL -o ldif-wrap=no "${admin[@]}" -b "$base" -s base aci | grep -c "acl \"site: ")" = 2 ]'
    server=389
    legitimate 389
    attacks 389
    printf 'dn: cn=mine,%s\nobjectClass: qorPerson\ncn: mine\n' "$people" | quiet ldapadd -x -H "$uri" -D "$svc" -w "$svc_pw"
    check "389: the key service renames not even an entry it made" eval '! quiet ldapmodrdn -x -H "$uri" -D "$svc" -w "$svc_pw" "cn=mine,$people" cn=yours && exists "cn=mine,$people"'
    printf 'dn: cn=mine,%s\nchangetype: modify\nadd: objectClass\nobjectClass: posixAccount\n-\nadd: uid\nuid: mine\n-\nadd: uidNumber\nuidNumber: 2000\n-\nadd: gidNumber\ngidNumber: 2000\n-\nadd: homeDirectory\nhomeDirectory: /home/mine\n' "$people" |
        quiet ldapmodify "${admin[@]}"
    check "389: nor deletes one the administrator gave another class" eval '! quiet ldapdelete -x -H "$uri" -D "$svc" -w "$svc_pw" "cn=mine,$people" && exists "cn=mine,$people"'
    check "389: an anonymous search for the key service finds nothing, as for a missing entry" eval '[ -z "$(ldapsearch -x -LLL -H "$uri" -b "$svc" -s base dn 2>/dev/null)" ]'
else
    fail "389 Directory Server did not start" "$(tail -n 5 "$tmp/start389.log")"
fi

echo
echo "$passed passed, $failed failed"
[ "$failed" = 0 ]
