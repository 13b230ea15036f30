#!/usr/bin/env bash
# tool_test.sh TOOL -- the qorldap command-line tool against a throwaway directory of its own.
#
# Every check runs the tool as a user would and looks at its exit status, its output and its
# one-line failure messages; stored data is checked with openssl and ldapsearch, not with the
# tool alone. The last line says "N passed, M failed"; the exit status is 1 when any failed.
set -uo pipefail

[ $# -eq 1 ] || { echo "usage: tool_test.sh TOOL" >&2; exit 2; }
. "$(dirname "${BASH_SOURCE[0]}")/harness.sh"

# --- a directory, a CA and three users -----------------------------------------------------

start_directory --nosync
cd "$tmp" || exit 1
make_user() {  # name, subject, key algorithm options...: a key, a certificate and a bundle
    local name=$1 subject=$2
    shift 2
    openssl genpkey "$@" -out "$name.key" && openssl req -new -utf8 -key "$name.key" -subj "$subject" |
        openssl x509 -req -CA ca.pem -CAkey ca.key -CAcreateserial -days 2 -out "$name.pem" &&
        openssl x509 -in "$name.pem" -outform DER -out "$name.der" && openssl pkcs12 -export \
        -inkey "$name.key" -in "$name.pem" -out "$name.p12" -passout pass:bundle-pw
}
{ openssl req -x509 -newkey rsa:2048 -nodes -keyout ca.key -out ca.pem -days 2 -subj "/CN=Test CA" &&
    make_user li "/C=CN/O=Acme/OU=Sales/CN=Li Lei" -algorithm RSA &&
    make_user wang "/C=CN/O=Acme/OU=Research/CN=Wang Fang" -algorithm EC -pkeyopt ec_paramgen_curve:SM2 &&
    make_user zhao "/C=CN/O=Acme/OU=Sales/CN=Zhao Min" -algorithm EC -pkeyopt ec_paramgen_curve:P-256 &&
    make_user plus "/C=CN/O=Acme/OU=R\+D/CN=Plus" -algorithm EC -pkeyopt ec_paramgen_curve:P-256 &&
    make_user zhang "/C=CN/O=Acme/OU=销售/CN=张伟" -algorithm EC -pkeyopt ec_paramgen_curve:P-256
} >"$tmp/openssl.log" 2>&1 || { cat "$tmp/openssl.log"; echo "0 passed, 1 failed"; exit 1; }
li="cn=li lei, ou=sales, o=root"
wang="cn=wang fang, ou=research, o=root"
zhao="cn=zhao min, ou=sales, o=root"

# Settings folders that fail: no server on port 1, a wrong password, a misspelt tls key, none.
mkdir unreachable badpsw badtls empty longdn
sed 's/^port=.*/port=1/' "$conf/soap.ini" >unreachable/soap.ini
sed 's/^psw=.*/psw=not-the-password/' "$conf/soap.ini" >badpsw/soap.ini
{ cat "$conf/soap.ini"; echo "tls=yes"; } >badtls/soap.ini
sed 's/^managerdn=.*/managerdn=cn=qorldap,ou=services,dc=example,dc=com/' "$conf/soap.ini" >longdn/soap.ini
for d in unreachable badpsw badtls longdn; do cp "$conf/ldap.ini" $d/; done
export QORLDAP_P12_PASSWORD=bundle-pw
export QORLDAP_KEY_PASSWORD=key-pw
unset QORLDAP_OLD_PASSWORD QORLDAP_NEW_PASSWORD QORLDAP_CONF_DIR

# --- the checks ----------------------------------------------------------------------------

group "command line"
run_bare
check "no command: usage on stderr, status 2" test "$status" = 2 -a -n "$(grep 'usage: qorldap' "$tmp/err")"
no "an unknown command" 2 'unknown command "frobnicate"' frobnicate
no "a missing argument" 2 "get-cert: missing argument" get-cert
no "an unknown option" 2 "get-cert: unknown option --bogus" get-cert "$li" --bogus
no "a value given to a flag" 2 "get-cert: --pem takes no value" get-cert "$li" --pem=yes
for c in publish get-cert get-key put-cert put-key rm-key passwd show tree ls add modify delete config; do ok "$c --help" "usage: qorldap $c" "$c" --help; done

group "config and connection failures"
run config
expect_ok "config shows the folder's settings" "port       $LDAP_PORT" "managerdn  cn=qorldap,ou=services,o=root" \
    "psw        ********" "tls        none (clear text)" "timeout    10 s (the tool's default; soap.ini sets none)" "$conf/soap.ini"
check "config never shows the bind password" test -z "$(grep secret "$tmp/out")"
# The library publishes a certificate and its key in one request only with atomic_publish =
# yes; the tool always gives it that setting (qorldap/Settings.h), whatever the file says, and
# leaves the file's own timeout in force. Each row: the lines added to soap.ini, then what
# config shows.
rows=("|timeout    10 s (the tool's default; soap.ini sets none)|gives the library the timeout and atomic_publish"
    "timeout=7|timeout    7 s for connecting|gives the library atomic_publish over"
    "atomic_publish=no|timeout    10 s (the tool's default|gives the library the timeout and atomic_publish"
    $'timeout=7\natomic_publish=yes|timeout    7 s for connecting|gives the library atomic_publish over')
n=0
for row in "${rows[@]}"; do
    IFS='|' read -r lines timeout given <<<"${row//$'\n'/;}"
    n=$((n + 1)) && mkdir "atomic$n" && cp "$conf/ldap.ini" "atomic$n/"
    { cat "$conf/soap.ini"; printf '%s\n' "${lines//;/$'\n'}"; } >"atomic$n/soap.ini"
    cp "atomic$n/soap.ini" "atomic$n/soap.ini.before"
    run_bare --conf "$tmp/atomic$n" config
    expect_ok "soap.ini + [${lines//;/ }]: the library publishes atomically" "atomic_publish yes" "$timeout" "$given" "$tmp/atomic$n/soap.ini"
    check "  and the file is left as it was" same_file "atomic$n/soap.ini" "atomic$n/soap.ini.before"
done
QORLDAP_CONF_DIR=$tmp/unreachable run_bare --conf "$conf" config --check
expect_ok "--conf wins over QORLDAP_CONF_DIR, also for the library" "connection: ok"
run_bare --conf "$tmp/unreachable" ls o=root
expect_fail "an unreachable server, in the directory library's words" 1 "nothing answers at 127.0.0.1:1 (the connection is refused; check host and port in $tmp/unreachable/soap.ini); the directory answered: can't contact LDAP server (-1)"
# libldap gives the same -1 for a port where nothing listens and for a failed TLS handshake;
# the first is not a TLS fault. Each row: the settings changed, what config --check says.
rows=("port=1;tls=starttls|nothing answers at 127.0.0.1:1 (the connection is refused"
    "port=1;tls=ldaps|nothing answers at 127.0.0.1:1 (the connection is refused"
    "host=ldaps://127.0.0.1:1|nothing answers at 127.0.0.1:1 (the connection is refused"
    "host=127.0.0.1:1 ldap://127.0.0.1:2;tls=starttls|nothing answers at 127.0.0.1:1, 127.0.0.1:2 (the"
    "tls=starttls|cannot set up TLS with the directory at 127.0.0.1 port $LDAP_PORT (check tls_cacert"
    "tls=ldaps|cannot set up TLS with the directory at 127.0.0.1 port $LDAP_PORT (check tls_cacert")
# settings_with FOLDER KEYS: FOLDER with the test's settings and KEYS (";" between them) first
# in [ldap], where a key wins over the file's own line of it.
settings_with() {
    mkdir "$1" && cp "$conf/ldap.ini" "$1/" &&
        awk -v keys="${2//;/$'\n'}" '{ print } /^\[ldap\]$/ { print keys }' "$conf/soap.ini" >"$1/soap.ini"
}
n=0
for row in "${rows[@]}"; do
    IFS='|' read -r keys want <<<"$row"
    n=$((n + 1)) && settings_with "refused$n" "$keys"
    run_bare --conf "$tmp/refused$n" config --check --timeout 5
    expect_fail "config --check with ${keys//;/ }" 1 "$want"
done
run_bare --conf "$tmp/longdn" config --check
expect_fail "a managerdn the library would cut is refused" 1 "managerdn in $tmp/longdn/soap.ini has 40 characters; the library keeps 32"
run_bare --conf "$tmp/badpsw" show o=root
expect_fail "a wrong bind password, in the server's words" 1 "connect: 0x16000010 cannot connect to the directory at 127.0.0.1 port $LDAP_PORT (check host, port, managerdn and psw in $tmp/badpsw/soap.ini); the directory answered: invalid credentials (49)"
run_bare --conf "$tmp/badtls" ls o=root
expect_fail "a misspelt tls key refuses before connecting" 1 "tls=yes in $tmp/badtls/soap.ini is not a spelling"
# The topology config shows. Each row: the keys put first in [ldap], what config shows of them.
rows=("host=127.0.0.1:$LDAP_PORT 127.0.0.1:2|providers  127.0.0.1:$LDAP_PORT, 127.0.0.1:2 (host: every call, on the first"
    "read_host=127.0.0.1:3 127.0.0.1:4;pool_size=16|read hosts 127.0.0.1:3, 127.0.0.1:4 (read_host: the free functions' reads"
    "read_host=127.0.0.1:3 127.0.0.1:4;pool_size=16|pool_size  16 (the free functions share up to 16 connections"
    "read_host=127.0.0.1:3|read hosts 127.0.0.1:3 (read_host), unused: reads go to them only with"
    "pool_size=4;failback=30;idle_check=0|failback   30 s (connections go back to the first provider"
    "pool_size=4;failback=30;idle_check=0|idle_check 0 (an idle connection is used unchecked)"
    "pool_size=300|link keys  refused: pool_size=300 is not a spelling the library knows"
    "timeout=7|timeout    7 s")
n=0
for row in "${rows[@]}"; do
    IFS='|' read -r keys want <<<"$row"
    n=$((n + 1)) && settings_with "topology$n" "$keys"
    run_bare --conf "$tmp/topology$n" config
    expect_ok "config with ${keys//;/ }" "$want"
done
check "  one host and no key of the pool: no topology" eval '! grep -q "^topology" "$tmp/out"'
run_bare --conf "$tmp/topology7" ls o=root
expect_fail "a pool key out of the library's range refuses before connecting" 1 "pool_size=300 in $tmp/topology7/soap.ini is not a spelling"
run_bare --conf "$tmp/empty" ls o=root
expect_fail "a folder without soap.ini" 1 "no soap.ini at $tmp/empty/soap.ini"
# A server that takes connections and never answers; the private copy of the settings goes.
perl -MIO::Socket::INET -e '$s = IO::Socket::INET->new(LocalAddr => "127.0.0.1", Listen => 5) or die;
    open(P, ">", "silent.port") && print(P $s->sockport) && close(P); sleep 60' & silent=$!
for _ in {1..100}; do [ -s silent.port ] && break; sleep 0.1; done
mkdir silent tmpdir && sed "s/^port=.*/port=$(cat silent.port)/" "$conf/soap.ini" >silent/soap.ini
TMPDIR=$tmp/tmpdir run_bare --conf "$tmp/silent" ls o=root --timeout 1
expect_fail "--timeout: a silent server is given up" 1 "the directory answered: timed out (-5)"
kill $silent
check "and the private copy of the settings is gone" test -z "$(ls tmpdir)"

group "publish"
QORLDAP_P12_PASSWORD=wrong run publish li.p12
expect_fail "a wrong bundle password, named as such" 1 "publish: li.p12: 0x16000014 the bundle's password does not open it; nothing was written"
no "a missing bundle file" 1 "cannot read $tmp/missing.p12" publish "$tmp/missing.p12"
env -u QORLDAP_P12_PASSWORD "${detach[@]}" "$tool" --conf "$conf" publish li.p12 >"$tmp/out" 2>"$tmp/err" </dev/null
status=$? err=$(cat "$tmp/err")
expect_fail "no password and no terminal: no prompt" 2 "set QORLDAP_P12_PASSWORD"
QORLDAP_KEY_PASSWORD="" run publish li.p12
expect_fail "an empty key password" 2 "empty"
ok "publish stores the signing pair and names the entry" "published li.p12 (signing pair) to cn=li lei, ou=sales, o=root" publish li.p12
no "a subject value the library cannot store" 1 "plus.p12: 0x16000014 subject attribute OU holds the character '+'; nothing was written" publish plus.p12
run ls o=root
check "and nothing was written" test -n "$out" -a -z "$(grep -i 'r+d' "$tmp/out")"
ok "publish --crypt, the encryption pair" "published li.p12 (encryption pair)" publish li.p12 --crypt
ok "an SM2 bundle" "(encryption pair)" publish wang.p12 --crypt
printf 'bundle-pw\nignored line\n' >p12.pw
printf 'file-key-pw\n' >key.pw
QORLDAP_P12_PASSWORD=wrong QORLDAP_KEY_PASSWORD=wrong run publish zhao.p12 --p12-pass-file p12.pw --key-pass-file key.pw
expect_ok "password files win over the environment" "published zhao.p12 (signing pair)"
stored_value "$zhao" 'signPrikey;binary' >zhao-direct.p8
check "the stored key opens with the file's first line" opens zhao-direct.p8 file-key-pw
openssl asn1parse -inform DER -in zhao-direct.p8 >zhao.asn1 2>&1
check "the stored key: PBKDF2, a 16-byte salt, 100000 iterations" \
    test -n "$(grep -A1 'l= *16 prim: OCTET STRING' zhao.asn1 | grep 'INTEGER *:0186A0')"
env -u QORLDAP_KEY_PASSWORD "$tool" --conf "$conf" publish wang.p12 --public-only >"$tmp/out" 2>"$tmp/err" </dev/null
status=$? out=$(cat "$tmp/out") err=$(cat "$tmp/err")
expect_ok "--public-only needs no key password" "published wang.p12 (signing certificate only)"

group "publish: subject values that would name another entry"
# openssl req -subj reads a backslash as escaping the next character ("\n" is "n"), but takes
# every other byte of its argument as it is: control characters go in as the bytes themselves
# (printf), the characters of DN syntax as they are ("+" escaped, as -subj would split on it).
# A NUL cannot be in an argument, so it is not among them. Each row: the attribute, the value,
# what the library's refusal names, passed on by the tool. The first is a subject whose O adds
# lines naming cn=bob, ou=sales.
rows=("O|$(printf 'Acme\nOU=sales\nCN=bob')|O holds a line feed (0x0A)"
    "O|$(printf 'Ac\rme')|O holds a carriage return (0x0D)"
    "OU|$(printf 'Sa\tles')|OU holds a tab (0x09)"
    "L|$(printf 'Beijing\033[2J')|L holds a control character (0x1B)"
    "CN|$(printf 'bo\177b')|CN holds a control character (0x7F)"
    "OU|a,b|OU holds the character ','" "OU|a\+b|OU holds the character '+'" "OU|a\"b|OU holds the character '\"'"
    "OU|bo\\\\62|OU holds the character '\\'" "OU|a<b|OU holds the character '<'" "OU|a>b|OU holds the character '>'"
    "OU|a;b|OU holds the character ';'" "CN|cn=bob|CN holds the character '='" "CN|#0403626f62|CN holds the character '#'"
    'CN| bob|CN holds a blank at the start' 'CN|bob |CN holds a blank at the end' 'CN|bob  smith|CN holds two blanks in a row')
n=0
for row in "${rows[@]}"; do
    attr=${row%%|*} value=${row#*|} want=${row##*|}
    value=${value%|*}
    n=$((n + 1)) subject="/C=CN/O=Acme/OU=Sales/CN=row $n"
    case $attr in
        O) subject="/C=CN/O=$value/OU=Sales/CN=row $n" ;;
        OU) subject="/C=CN/O=Acme/OU=$value/CN=row $n" ;;
        L) subject="/C=CN/L=$value/O=Acme/OU=Sales/CN=row $n" ;;
        CN) subject="/C=CN/O=Acme/OU=Sales/CN=$value" ;;
    esac
    make_user "row$n" "$subject" -algorithm EC -pkeyopt ec_paramgen_curve:P-256 >>"$tmp/openssl.log" 2>&1 ||
        { fail "row $n: openssl made no bundle"; continue; }
    no "$want" 1 "row$n.p12: 0x16000014 subject attribute $want; nothing was written" publish "row$n.p12"
done
ldapsearch -x -D "$LDAP_BINDDN" -w "$LDAP_BINDPW" -LLL -H "$LDAP_URI" -b o=root '(|(cn=bob*)(cn=row*)(cn=*smith)(ou=a*)(ou=bo*)(cn=#*))' dn >written.ldif 2>&1
check "nothing of them was written" test ! -s written.ldif

group "publish: weak keys"
# Below 112-bit security, or on a curve given by its parameters: refused by the library (the
# tool gives it refuse_weak_keys = yes) naming the key, nothing written, unless --allow-weak-key.
# Each row: the bundle, its key's genpkey options, the name.
openssl genpkey -genparam -algorithm DSA -pkeyopt dsa_paramgen_bits:1024 -pkeyopt dsa_paramgen_q_bits:160 \
    -out dsa1024.param >>"$tmp/openssl.log" 2>&1
rows=("rsa1024|-algorithm RSA -pkeyopt rsa_keygen_bits:1024|RSA 1024 bits, 80-bit security"
    "dsa1024|-paramfile dsa1024.param|DSA 1024 bits, 80-bit security"
    "p192|-algorithm EC -pkeyopt ec_paramgen_curve:prime192v1|EC prime192v1, 80-bit security"
    "s112|-algorithm EC -pkeyopt ec_paramgen_curve:secp112r1|EC secp112r1, 56-bit security"
    "explicit|-algorithm EC -pkeyopt ec_paramgen_curve:P-256 -pkeyopt ec_param_enc:explicit|an EC key with explicit parameters")
for row in "${rows[@]}"; do
    IFS='|' read -r name options want <<<"$row"
    # shellcheck disable=SC2086 # the options are words
    make_user "$name" "/C=CN/O=Acme/OU=Weak/CN=$name" $options >>"$tmp/openssl.log" 2>&1 ||
        { fail "$name: openssl made no bundle"; continue; }
    no "$want" 1 "$name.p12: 0x16000014 the bundle's key is $want" publish "$name.p12"
done
no "--public-only does not let a weak certificate through" 1 "the bundle's key is RSA 1024 bits, 80-bit security (at least 112 needed); --allow-weak-key publishes it all the same; nothing was written" publish rsa1024.p12 --public-only
ldapsearch -x -D "$LDAP_BINDDN" -w "$LDAP_BINDPW" -LLL -H "$LDAP_URI" -b o=root '(ou=weak)' dn >written.ldif 2>&1
check "nothing of them was written" test ! -s written.ldif
ok "--allow-weak-key publishes it all the same" "published rsa1024.p12 (signing pair) to cn=rsa1024, ou=weak, o=root" \
    publish rsa1024.p12 --allow-weak-key
make_user p224 "/C=CN/O=Acme/OU=Weak/CN=p224" -algorithm EC -pkeyopt ec_paramgen_curve:secp224r1 >>"$tmp/openssl.log" 2>&1
ok "a curve of 224 bits is enough" "published p224.p12" publish p224.p12
for dn in "cn=rsa1024, ou=weak, o=root" "cn=p224, ou=weak, o=root" "ou=weak, o=root"; do run delete "$dn"; done

group "publish many"
mkdir bundles && cp li.p12 zhao.p12 bundles/ && echo junk >bundles/junk.pfx && echo other >bundles/notes.txt
run publish bundles --jobs 2 --report report.txt --public-only
check "a folder: its bundles, a broken one reported, status 1" test "$status" = 1 -a -n "$(grep '^2 published, 1 failed in' "$tmp/out")" \
    -a -n "$(grep '^bundles/junk.pfx: 0x16000014' report.txt)" -a "$(wc -l <report.txt)" = 1
printf '%s\n' li.p12 missing.p12 | "${detach[@]}" "$tool" --conf "$conf" publish --from-stdin --public-only >"$tmp/out" 2>"$tmp/err"
check "paths from standard input, and the missing one named" test $? = 1 -a -n "$(grep '^1 published, 1 failed' "$tmp/out")" -a -n "$(grep 'publish: cannot read missing.p12' "$tmp/err")"

group "publish: paths that are not bundles"
# Each kind gets a line of its own and a report entry, whether found in a folder, named or
# listed on standard input; the good bundle beside them is published. A FIFO blocked open()
# for ever and a symlink loop ended the run with a filesystem exception: the runs are bounded
# by timeout so that a hang fails instead of stopping the suite.
mkdir special && cp li.p12 special/good.p12 && mkfifo special/fifo.p12 && ln -s loop.p12 special/loop.p12 &&
    mkdir special/folder.p12
kinds=("special/fifo.p12|not a regular file (a FIFO)" "special/loop.p12|symlink loop"
    "special/folder.p12|not a regular file (a folder)")
if [ "$(id -u)" != 0 ]; then  # root reads a file of mode 000
    cp li.p12 special/locked.p12 && chmod 000 special/locked.p12
    kinds+=("special/locked.p12|unreadable (Permission denied)")
fi
bounded=(timeout -k 5 60 setsid -w)
for way in found named listed; do
    words=(special) input=/dev/null rows=("${kinds[@]}")
    # A folder named on the command line is walked, not read: a device stands in for it.
    [ $way = found ] || rows=("${rows[@]/#special\/folder.p12|*//dev/null|not a regular file (a character device)}")
    [ $way = named ] && words=(special/good.p12 "${rows[@]%%|*}")
    [ $way = listed ] && words=(-) input=special.list && printf '%s\n' special/good.p12 "${rows[@]%%|*}" >special.list
    rm -f special.txt
    "${bounded[@]}" "$tool" --conf "$conf" publish "${words[@]}" --public-only --report special.txt \
        <"$input" >"$tmp/out" 2>"$tmp/err"
    status=$? out=$(cat "$tmp/out") err=$(cat "$tmp/err")
    bad=""
    for row in "${rows[@]}"; do
        line="${row%%|*}: ${row#*|}"
        [ "$(grep -cxF "qorldap: publish: $line" "$tmp/err")" = 1 ] && grep -qxF "$line" special.txt || bad+=" [$line]"
    done
    check "$way: one line and one report entry for each of ${#rows[@]} kinds, the bundle published" \
        test "$status" = 1 -a -z "$bad" -a -n "$(grep "^1 published, ${#rows[@]} failed in" "$tmp/out")"
done
"${bounded[@]}" "$tool" --conf "$conf" publish special/fifo.p12 --public-only >"$tmp/out" 2>"$tmp/err" </dev/null
status=$? err=$(cat "$tmp/err")
expect_fail "one FIFO alone is refused, not waited on" 1 "publish: special/fifo.p12: not a regular file (a FIFO)"
if [ "$(id -u)" != 0 ]; then
    mkdir locked && cp li.p12 locked/ && chmod 000 locked
    "${bounded[@]}" "$tool" --conf "$conf" publish locked li.p12 --public-only >"$tmp/out" 2>"$tmp/err" </dev/null
    check "a folder that cannot be listed is one failure" test $? = 1 -a -n "$(grep '^1 published, 1 failed' "$tmp/out")" \
        -a -n "$(grep -F 'publish: locked: unreadable (' "$tmp/err")"
    chmod 700 locked
fi

group "ls and show"
run ls -R o=root
expect_ok "ls -R shows the tree, indented by depth" $'o=root\n  ou=sales,o=root\n    cn=li lei,ou=sales,o=root' \
    $'\n    cn=zhao min,ou=sales,o=root' $'\n  ou=research,o=root\n    cn=wang fang,ou=research,o=root'
no "ls of a missing entry" 1 "ls: 0x16000010" ls "ou=nowhere, o=root"
run show "$li"
expect_ok "show describes a user" "dn: $li" "parent: ou=sales, o=root" \
    "template: qorPerson (naming attribute cn, level 2 of 2)" \
    "signing certificate, $(stat -c %s li.der) bytes" "subject    CN=Li Lei,OU=Sales,O=Acme,C=CN" \
    "encryption private key, " "PBES2 (PBKDF2, hmacWithSHA256, 100000 iterations; aes-256-cbc)"
run show "cn=li lei,ou=sales,o=root" --ldif
ldapsearch -x -D "$LDAP_BINDDN" -w "$LDAP_BINDPW" -LLL -H "$LDAP_URI" -b "cn=li lei,ou=sales,o=root" -s base >li.ldif 2>&1
check "show --ldif writes what ldapsearch -LLL writes, byte for byte" same_file "$tmp/out" li.ldif
ok "show --json: the fingerprint as openssl gives it" "\"sha256\": \"$(openssl x509 -in li.pem -noout -fingerprint -sha256 | cut -d= -f2)\"" show "$li" --json
LC_ALL=C ok "tree, in ASCII" $'o=root\n|-- ou=sales\n|   |-- cn=li lei  [sign cert, sign key, crypt cert, crypt key]' tree
LC_ALL=C.UTF-8 ok "tree --depth 1, with box drawing" $'o=root\n├── ou=sales\n├── ou=research\n└── ou=' tree --depth 1
no "show of a missing entry" 1 "show: no such entry: cn=nobody, ou=sales, o=root" show "cn=nobody, ou=sales, o=root"

group "keys"
run get-cert "$li"
check "get-cert: the certificate as published" same_file "$tmp/out" li.der
run get-cert "$li" --pem
check "get-cert --pem writes what openssl writes" same_file "$tmp/out" li.pem
ok "get-cert --output=FILE before the DN" "stored-wang.der" get-cert --crypt --output=stored-wang.der "$wang"
ok "an attached -oFILE, and -- before the DN" "li-attached.der" get-cert -oli-attached.der -- "$li"
check "the SM2 certificate comes back unchanged" same_file stored-wang.der wang.der
run get-key "$li" -o li.p8
check "get-key -o makes a file only its owner reads" test "$(stat -c %a li.p8 2>&1)" = 600
printf 'precious\n' >victim && ln -s victim linked.p8
no "get-key -o does not write through a symbolic link" 1 "cannot write linked.p8: a symbolic link" get-key "$li" -o linked.p8
check "  the file it names is untouched" test "$(cat victim)" = precious
check "the stored key opens with the key password" opens li.p8 key-pw
run get-key "$wang" --crypt -o wang.p8
check "the stored SM2 key opens with the key password" opens wang.p8 key-pw
no "a missing certificate is named" 1 "get-cert: $zhao holds no encryption certificate" get-cert "$zhao" --crypt
no "get-cert of a missing user" 1 "get-cert: 0x16000015" get-cert "cn=ghost, ou=sales, o=root"
ok "put-cert takes PEM" "stored the encryption certificate of $zhao" put-cert "$zhao" wang.pem --crypt
run get-cert "$zhao" --crypt
check "and stores it as DER" same_file "$tmp/out" wang.der
no "put-cert refuses a private key" 1 "li.key: this is a private key; put-cert stores certificates" put-cert "$zhao" li.key
{ cat li.der; printf x; } >li.trailing.der
no "put-cert refuses trailing bytes" 1 "is neither an X.509 certificate nor a public key" put-cert "$zhao" li.trailing.der
openssl pkey -in li.key -pubout -out li.pub
ok "put-cert takes a public key" "stored the encryption public key of $zhao" put-cert "$zhao" li.pub --crypt
run get-cert "$zhao" --crypt --pem
check "get-cert --pem gives it back as a PUBLIC KEY" same_file "$tmp/out" li.pub
no "put-key refuses a certificate" 1 "holds a certificate, not a private key" put-key "$zhao" li.pem
ok "attribute types in any letter case" "wrote the signing certificate of cn=Li Lei,ou=Sales,o=root" get-cert "CN=Li Lei,OU=Sales,O=root" -o li-upper.der
no "a value the library cannot store unescaped" 2 'the value "a+b" of cn' show "cn=a+b, o=root"
openssl pkcs8 -topk8 -nocrypt -in li.key -outform DER -out li.plain.der
no "put-key refuses an unencrypted DER key" 1 "holds an unencrypted key" put-key "$zhao" li.plain.der
# The clear key in the shape of an encrypted one: SEQUENCE { SEQUENCE {}, OCTET STRING key }.
printf 'asn1=SEQUENCE:fake\n[fake]\nalg=SEQUENCE:empty\nkey=FORMAT:HEX,OCTETSTRING:%s\n[empty]\n' \
    "$(od -An -v -tx1 li.plain.der | tr -d ' \n')" >fake.cnf
openssl asn1parse -genconf fake.cnf -noout -out li.fake.der >/dev/null
no "put-key refuses a clear key wrapped to look encrypted" 1 "is not an encrypted PKCS#8 private key" put-key "$zhao" li.fake.der
openssl pkcs8 -topk8 -v2 aes-256-cbc -in li.key -passout pass:other-pw -outform DER -out li.enc.der
ok "put-key takes an encrypted DER key" "stored the encryption private key of $zhao" put-key "$zhao" li.enc.der --crypt
run get-key "$zhao" --crypt
check "and stores it unchanged" same_file "$tmp/out" li.enc.der
ok "put-key --raw stores any bytes" "bytes, unchecked)" put-key "$zhao" li.plain.der --raw --crypt
no "put-key to a missing entry: the directory's 32" 1 "put-key: 32 no such object" put-key "cn=ghost, ou=sales, o=root" li.enc.der

group "passwd and rm-key"
QORLDAP_OLD_PASSWORD=wrong QORLDAP_NEW_PASSWORD=new-pw run passwd "cn=li lei"
expect_fail "a wrong old password: nothing changed" 1 "passwd: 0x16000012 cn=li lei, ou=sales,o=root: the old password does not open the encryption key; nothing was changed"
QORLDAP_OLD_PASSWORD=key-pw QORLDAP_NEW_PASSWORD=new-pw run passwd "cn=wang fang"
expect_fail "a user without a signing key: what was changed" 1 "the encryption key is now under the new password; the signing key is missing"
QORLDAP_OLD_PASSWORD=key-pw QORLDAP_NEW_PASSWORD=new-pw run passwd "cn=nobody"
expect_fail "an unknown user" 1 "passwd: 0x16000010 no user cn=nobody found below o=root"
printf 'key-pw\n' >old.pw
printf 'new-pw\n' >new.pw
no "passwd refuses a DN that the walk by cn does not lead to" 1 "cn=li lei leads it to cn=li lei, ou=sales,o=root, not to cn=li lei,ou=research, o=root; nothing" \
    passwd "cn=li lei,ou=research, o=root"
ok "passwd names the entry it changed" "changed the password of the private keys of cn=li lei, ou=sales,o=root" \
    passwd "cn=li lei" --old-pass-file old.pw --new-pass-file new.pw
for pair in sign crypt; do
    option=()
    [ $pair = crypt ] && option=(--crypt)
    run get-key "$li" "${option[@]}" -o "li-$pair-new.p8"
    check "the $pair key opens with the new password only" opens "li-$pair-new.p8" new-pw
    check "the $pair key no longer opens with the old one" fails_to_open "li-$pair-new.p8" key-pw
done
ok "rm-key removes a key" "removed the encryption private key of $li" rm-key "$li" --crypt
no "the key is gone" 1 "holds no encryption private key" get-key "$li" --crypt
run get-key "$li" -o li-sign-kept.p8
check "the signing key stays" opens li-sign-kept.p8 new-pw
no "rm-key of a missing entry: 32" 1 "rm-key: 32 no such object" rm-key "cn=ghost, ou=sales, o=root"

group "add, modify, delete"
unit="ou=tooltest, o=root"
person="cn=zhang san, $unit"
ok "add takes the naming value from the DN" "added $unit" add "$unit" --class organizationalUnit description=t
check "the naming value is stored" test "$(stored_value "$unit" ou)" = tooltest
no "adding it again" 1 "$unit exists already" add "$unit" --class organizationalUnit
no "a missing parent is named" 1 "its parent ou=nowhere, o=root does not exist" add "cn=x, ou=nowhere, o=root" --class qorPerson
ok "add takes UTF-8 values" "added $person" add "$person" --class qorPerson sn=Zhang "description=测试 ✓"
check "non-ASCII text reaches the directory unchanged" test "$(stored_value "$person" description)" = "测试 ✓"
ok "modify replaces values" "modified $person" modify "$person" mail=zs@example.org sn=San
check "the replaced value is stored" test "$(stored_value "$person" sn)" = San
no "the directory's code with its text" 1 "modify: 17 undefined attribute type: nosuchattribute: attribute type undefined" modify "$person" nosuchattribute=1
no "deleting an entry with children: 66" 1 "delete: 66 not allowed on non-leaf" delete "$unit"
ok "delete removes a leaf" "deleted $person" delete "$person"

group "inputs that hide something"
openssl pkcs8 -topk8 -in zhao.key -v2 aes-256-cbc -passout pass: -outform DER -out empty.p8 2>/dev/null
no "put-key refuses a key under an empty password" 1 "empty password, which protects nothing" put-key "$zhao" empty.p8
cat zhao.pem zhao.key >chain.pem
no "put-cert refuses a file of several PEM blocks" 1 "more than one PEM block" put-cert "$zhao" chain.pem

group "fast_lookup"
mkdir fast && cp "$conf/ldap.ini" fast/ && { cat "$conf/soap.ini"; echo fast_lookup=yes; } >fast/soap.ini
QORLDAP_OLD_PASSWORD=new-pw QORLDAP_NEW_PASSWORD=x run_bare --conf "$tmp/fast" passwd "cn=li lei"
# The library names the user its search found, so the tool tells which key stopped it.
expect_fail "passwd through the one indexed search" 1 "passwd: 0x16000012 cn=li lei, ou=sales,o=root: the user holds no encryption private key; nothing was changed"

group "a subject outside ASCII"
ok "a subject outside ASCII" "published zhang.p12" publish zhang.p12
check "its names are stored once each, as UTF-8" test "$(stored_value "cn=张伟,ou=销售,o=root" cn)" = "张伟"
# show --ldif against ldapsearch -LLL as the rootdn, which reads everything: the tool binds as
# the key service, and the access rules let it read every attribute of the entries it made
# (the keys, objectClass, cn, sn, mail, description), so both see the same entry. Values
# that must go as base64 (a trailing blank, a colon first, the keys, the Chinese cn and DN)
# and one long enough to fold as text, added by the rootdn.
zhang="cn=张伟,ou=销售,o=root"
printf 'dn: %s\nchangetype: modify\nadd: description\ndescription:: %s\ndescription:: %s\n-\nadd: sn\nsn: %s\n' \
    "$zhang" "$(printf 'ends in a blank ' | base64)" "$(printf ':first' | base64)" "$(printf 'Zhang %.0s' {1..20})Wei" |
    ldapmodify -x -D "$LDAP_BINDDN" -w "$LDAP_BINDPW" -H "$LDAP_URI" >/dev/null 2>&1
run show "$zhang" --ldif
ldapsearch -x -D "$LDAP_BINDDN" -w "$LDAP_BINDPW" -LLL -H "$LDAP_URI" -b "$zhang" -s base >zhang.ldif 2>&1
check "show --ldif: a key, a Chinese cn, a trailing blank, byte for byte as ldapsearch -LLL" \
    test -n "$(grep -F 'description:: ZW5kcyBpbiBhIGJsYW5rIA==' zhang.ldif)" -a -n "$(grep '^signPrikey;binary:: ' zhang.ldif)" -a -n "$(grep '^ ' zhang.ldif)"
check "  and the same bytes" same_file "$tmp/out" zhang.ldif
ok "show --json gives every attribute, text as text and keys as base64" '"description": ["ends in a blank ", ":first"]' show "$zhang" --json
check "  the Chinese cn as text, the key as base64" test -n "$(grep -F '"cn": ["张伟"]' "$tmp/out")" -a -n "$(grep -F '"signPubcer;binary": [{"base64": "MI' "$tmp/out")"
# A name the directory would fold into another's (fullwidth letters read as "li lei"): the
# library refuses it, and the tool passes on its reason.
make_user wide "/C=CN/O=Acme/OU=Sales/CN=ｌｉ lei" -algorithm EC -pkeyopt ec_paramgen_curve:P-256 >/dev/null 2>&1
QORLDAP_P12_PASSWORD=bundle-pw QORLDAP_KEY_PASSWORD=x run_bare --conf "$conf" publish wide.p12
expect_fail "a fullwidth name, refused with the library's reason" 1 "0x16000014 subject attribute CN holds the character U+FF4C (the directory reads it as another); nothing was written"
group "Ctrl-C during a bulk run"
# The bundles in flight finish, no new one starts, and the summary and the report still come:
# the report then lists what was not attempted, so that it is the list of what is left to do.
mkdir many && for i in $(seq -w 1 60); do cp zhao.p12 "many/b$i.p12"; done
QORLDAP_P12_PASSWORD=bundle-pw QORLDAP_KEY_PASSWORD=key-pw "$tool" --conf "$conf" publish many \
    --report interrupted.txt >"$tmp/out" 2>"$tmp/err" </dev/null &
pid=$!
sleep 0.7
kill -INT "$pid"
wait "$pid"
status=$?
summary=$(tail -n1 "$tmp/out")
read -r done_ _ failed_ _ skipped_ _ <<<"$summary"
check "exit status 130 and a summary of the three counts: $summary" \
    test "$status" = 130 -a -n "$(grep 'not attempted (interrupted)' <<<"$summary")"
check "  the counts add up to the 60 bundles, some published and some left" \
    test "$((done_ + failed_ + skipped_))" = 60 -a "$done_" -gt 0 -a "$skipped_" -gt 0
check "  the report lists each bundle left, and nothing else" \
    test "$(grep -c 'not attempted (the run was interrupted)' interrupted.txt)" = "$skipped_" -a \
    "$(wc -l <interrupted.txt)" = "$((skipped_ + failed_))"
echo
echo "$passed passed, $failed failed"
[ "$failed" = 0 ]
