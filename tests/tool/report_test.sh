#!/usr/bin/env bash
# report_test.sh TOOL -- qorldap expiring and verify, the reports over a whole subtree, on
# OpenLDAP and then on 389 Directory Server (when it can be started here).
#
# Each server gets the same rows: users published with the tool, then faults planted the ways
# they arise (a certificate that has expired, a pair half written, another pair's key, a key
# stored unprotected or under too few iterations, bytes that are no certificate). Each check
# fails when the report misses a planted fault or names a sound entry. The last line says
# "N passed, M failed".
set -uo pipefail

[ $# -eq 1 ] || { echo "usage: report_test.sh TOOL" >&2; exit 2; }
. "$(dirname "${BASH_SOURCE[0]}")/harness.sh"

cd "$tmp" || exit 1
export QORLDAP_P12_PASSWORD=bundle-pw QORLDAP_KEY_PASSWORD=key-pw
unset QORLDAP_CONF_DIR

# bundle NAME DAYS CN: a P-256 key, its certificate valid DAYS days (DER too) and NAME.p12.
bundle() {
    openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout "$1.key" \
        -out "$1.pem" -days "$2" -subj "/C=CN/O=Acme/OU=$4/CN=$3" &&
        openssl pkcs12 -export -inkey "$1.key" -in "$1.pem" -out "$1.p12" -passout pass:bundle-pw
}
# A certificate that ended on 2020-12-31 (openssl req cannot date one in the past; ca can).
expired_certificate() {
    printf '[ca]\ndefault_ca=d\n[d]\ndir=.\ndatabase=index.txt\nnew_certs_dir=.\nserial=serial\ndefault_md=sha256\npolicy=p\nunique_subject=no\n[p]\ncommonName=supplied\n' >ca.cnf
    : >index.txt && echo 1000 >serial &&
        openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out old.key &&
        openssl req -new -key old.key -subj /CN=Old -out old.csr &&
        openssl ca -batch -config ca.cnf -selfsign -keyfile old.key -in old.csr \
            -startdate 20200101000000Z -enddate 20201231000000Z -out old.pem
}
{
    bundle fresh 400 "Fresh" Exp && bundle soon 10 "Soon" Exp && bundle other 400 "Other" Exp &&
        for u in good half lone mixed weak clear junk; do bundle "$u" 400 "$u" Ver || exit 1; done &&
        expired_certificate &&
        openssl pkcs8 -topk8 -v2 aes-256-cbc -iter 1000 -in weak.key -passout pass:key-pw -outform DER -out weak.p8 &&
        openssl pkcs8 -topk8 -nocrypt -in clear.key -outform DER -out clear.p8
} >openssl.log 2>&1 || { cat openssl.log; echo "0 passed, 1 failed"; exit 1; }
printf 'key-pw\n' >key.pw

# rows NAME: every check, against the directory started last.
rows() {
    local s=$1 exp ver base=$LDAP_BASEDN
    exp="ou=exp,$base" ver="ou=ver,$base"
    group "$s: expiring"
    run publish fresh.p12 && run publish fresh.p12 --crypt && run publish soon.p12
    check "$s: the users are published" test "$status" = 0
    run expiring "$exp"
    check "$s: one certificate expiring, none expired: status 1" test "$status" = 1
    check "$s: the 10-day certificate is listed with its days and role" eval '[[ $out == *"  sign     "*"CN=Soon,OU=Exp,O=Acme,C=CN  cn=soon,ou=exp,$base"* ]] && [[ $out =~ (^|$'"'\n'"')\ +(9|10)\ \  ]]'
    check "$s: the 400-day ones are not" eval '[[ $out != *"cn=fresh"* ]] && [[ $out == *"0 expired, 1 expiring within 30 days, of 3 certificates"* ]]'
    run expiring "$exp" --within 0
    check "$s: --within 0: nothing expired, status 0" test "$status" = 0 -a -z "$err"
    # The fault: a certificate that has expired, next to fresh's encryption key.
    run put-cert "cn=fresh,$exp" old.pem --crypt
    run expiring "$exp"
    check "$s: an expired certificate: status 2" test "$status" = 2
    check "$s: listed first, negative days, its serial and subject" eval \
        '[[ $(head -1 <<<"$out") =~ ^\ +-[0-9]+\ \ 2020-12-31T00:00:00Z\ \ encrypt\ \ 1000\ \ CN=Old\ \ cn=fresh,ou=exp, ]]'
    run expiring "$exp" --json
    check "$s: --json: both rows, soonest first" eval 'python3 -c "import json,sys; r=json.load(sys.stdin); sys.exit(not ([x[\"serial\"] for x in r][0] == \"1000\" and r[0][\"expired\"] and r[0][\"daysLeft\"] < -1000 and len(r) == 2))" <<<"$out"'
    run expiring "$exp" --csv --within 0
    check "$s: --csv: a header and the expired row, DNs quoted" test "$out" = $'dn,role,subject,serial,notAfter,daysLeft\n'"\"cn=fresh,ou=exp,$base\",encrypt,CN=Old,1000,2020-12-31T00:00:00Z,$(sed -n 's/.*,//p' <<<"$out" | tail -1)"
    run expiring "$exp" --prometheus metrics.prom
    check "$s: --prometheus: a gauge per certificate, the counts, no temporary file left" eval \
        'grep -qx "qorldap_certificate_not_after_timestamp_seconds{dn=\"cn=fresh,ou=exp,$base\",role=\"encrypt\",serial=\"1000\"} 1609372800" metrics.prom &&
         [ "$(grep -c "^qorldap_certificate_not_after" metrics.prom)" = 3 ] && grep -qx "qorldap_certificates_expired 1" metrics.prom &&
         [ -z "$(ls metrics.prom.tmp.* 2>/dev/null)" ]'
    no "$s: expiring below a base that does not exist" 3 "expiring: no such entry: ou=nowhere,$base" expiring "ou=nowhere,$base"
    no "$s: expiring with a window it cannot read" 3 '--within takes a span such as 30d, 12h or 2w, not "3x"' expiring --within 3x
    no "$s: expiring --within -1d" 3 'not "-1d"' expiring "--within=-1d"
    # An option it does not know is no finding: not 2 ("some expired").
    no "$s: expiring with an unknown option" 3 'unknown option' expiring --bogus

    group "$s: verify"
    run publish good.p12 && run publish good.p12 --crypt
    ok "$s: a complete entry: nothing wrong" "checked 1 entries: 2 certificates, 2 private keys (no password: keys not opened); 0 problems in 0 entries" verify "$ver"
    ok "$s: and with the password, both keys open" "2 opened; 0 problems" verify "$ver" --key-password-from key.pw
    # Half-written pairs: a certificate whose key went, a key that came without its certificate.
    run publish half.p12 && run rm-key "cn=half,$ver"
    run put-key "cn=good,$ver" lone.p12 >/dev/null 2>&1  # refused: not a key; lone gets its own
    run add "cn=lone,$ver" --class qorPerson sn=lone
    openssl pkcs8 -topk8 -v2 aes-256-cbc -iter 100000 -in lone.key -passout pass:key-pw -outform DER -out lone.p8
    run put-key "cn=lone,$ver" lone.p8
    # Another pair's certificate over a published one: found only by opening the key.
    run publish mixed.p12 && run put-cert "cn=mixed,$ver" other.pem
    run publish weak.p12 && run put-key "cn=weak,$ver" weak.p8
    run publish clear.p12 && run put-key "cn=clear,$ver" clear.p8 --raw
    run publish junk.p12
    printf 'dn: cn=junk,%s\nchangetype: modify\nreplace: signPubcer;binary\nsignPubcer;binary:: %s\n' "$ver" "$(printf 'not a certificate' | base64)" |
        ldapmodify -x -H "$LDAP_URI" -D "$LDAP_BINDDN" -w "$LDAP_BINDPW" >/dev/null 2>&1
    run verify "$ver"
    check "$s: problems found: status 1" test "$status" = 1
    local row
    for row in "cn=half,$ver: signing certificate without its private key" \
        "cn=lone,$ver: signing private key without its certificate" \
        "cn=weak,$ver: signing private key derives its key with 1000 PBKDF2 iterations, fewer than 100000" \
        "cn=clear,$ver: signing private key is NOT encrypted" \
        "cn=junk,$ver: signing certificate does not parse as an X.509 certificate (17 bytes)"; do
        check "$s: reported: ${row#*: }" grep -qxF "$row" "$tmp/out"
    done
    check "$s: without the password, good and mixed pass" eval '! grep -q "^cn=good\|^cn=mixed" "$tmp/out"'
    check "$s: the count" eval '[[ $out == *"; 5 problems in 5 entries" ]]'
    QORLDAP_PW=key-pw run verify "$ver" --key-password-from env:QORLDAP_PW --json
    check "$s: with the password: the key next to another pair's certificate" eval \
        'python3 -c "import json,sys; r=json.load(sys.stdin); p=[(x[\"dn\"].split(\",\")[0],x[\"problem\"]) for x in r[\"problems\"]]; sys.exit(not ((\"cn=mixed\", \"private key does not belong to its certificate (another pair'"'"'s key)\") in p and len(p) == 6 and r[\"entriesWithProblems\"] == 6))" <<<"$out"'
    QORLDAP_PW=wrong run verify "cn=good,$ver" --key-password-from env:QORLDAP_PW
    check "$s: a wrong password: each key said not to open" eval '[ "$status" = 1 ] && [ "$(grep -c "does not open with the password given" "$tmp/out")" = 2 ]'
    no "$s: verify below a base that does not exist" 3 "verify: no such entry: ou=nowhere,$base" verify "ou=nowhere,$base"
    no "$s: verify with a password variable that is not set" 3 "env:QORLDAP_NO_SUCH: no such variable" verify --key-password-from env:QORLDAP_NO_SUCH
}

start_directory --nosync
rows OpenLDAP
"$directory" stop --dir "$tmp/dir" >/dev/null 2>&1
server=(--server 389ds)
if "$directory" start --dir "$tmp/dir" "${server[@]}" --nosync >"$tmp/start.log" 2>&1; then
    conf=$tmp/dir/conf
    set -a
    . "$tmp/dir/env"
    set +a
    rows "389 DS"
else
    group "389 DS"
    printf 'skip 389 Directory Server does not start here: %s\n' "$(tail -1 "$tmp/start.log")"
fi

printf '\n%d passed, %d failed\n' "$passed" "$failed"
[ "$failed" = 0 ]
