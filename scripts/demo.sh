#!/usr/bin/env bash
# demo.sh BUILD_DIR -- libqorldap from end to end, with the qorldap tool of BUILD_DIR.
#
# Starts a throwaway directory, makes a test CA and two users' PKCS#12 bundles (RSA and SM2),
# publishes them, reads them back and checks them with openssl, changes a user's key
# password, and stops the directory again. Everything lives in a temporary folder that is
# removed at the end. Stops at the first step that fails, with exit status 1.
set -euo pipefail

if [ $# -ne 1 ]; then
    echo "usage: scripts/demo.sh BUILD_DIR" >&2
    exit 2
fi
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
[ -d "$1" ] || { echo "demo: no build folder $1; build first (./run build)" >&2; exit 1; }
build=$(cd "$1" && pwd)
tool=$build/tools/qorldap
directory=$here/directory
[ -x "$tool" ] || { echo "demo: $tool not found; build first" >&2; exit 1; }
command -v openssl >/dev/null || { echo "demo: openssl not found" >&2; exit 1; }

tmp=$(mktemp -d "${TMPDIR:-/tmp}/qorldap-demo.XXXXXX")
step_no=0
step_text=""
finish() {
    local status=$?
    "$directory" stop --dir "$tmp/dir" >/dev/null 2>&1 || true
    rm -rf "$tmp"
    if [ "$status" != 0 ]; then
        echo
        echo "==> the demo FAILED in step $step_no: $step_text" >&2
    fi
    exit "$status"
}
trap finish EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

step() {
    step_no=$((step_no + 1))
    step_text=$1
    printf '\n==> step %d: %s\n' "$step_no" "$1"
}
say() { printf '    %s\n' "$*"; }
# Runs the tool, showing the command as a user would type it.
q() {
    local arg line="    \$ qorldap"
    for arg in "$@"; do
        if [[ $arg =~ ^[A-Za-z0-9_./=:,@+-]+$ ]]; then
            line+=" $arg"
        else
            line+=" \"$arg\""
        fi
    done
    printf '%s\n' "$line"
    "$tool" --conf "$tmp/dir/conf" "$@" 2>&1 | sed 's/^/      /'
    return "${PIPESTATUS[0]}"
}
# Runs a command quietly; its output is shown only when it fails.
quiet() {
    if ! "$@" >"$tmp/last.log" 2>&1; then
        echo "demo: this failed: $*" >&2
        sed 's/^/  /' "$tmp/last.log" >&2
        return 1
    fi
}
describe() {  # label, DER certificate file
    local subject fingerprint
    subject=$(openssl x509 -inform DER -in "$2" -noout -subject -nameopt oneline)
    fingerprint=$(openssl x509 -inform DER -in "$2" -noout -fingerprint -sha256)
    printf '    %-9s %s\n' "$1:" "$subject"
    printf '    %-9s %s\n' "" "$fingerprint"
    printf '%s\n%s\n' "$subject" "$fingerprint" >"$2.txt"
}
opens() {  # DER encrypted key file, password
    openssl pkcs8 -inform DER -in "$1" -passin "pass:$2" -out /dev/null >/dev/null 2>&1
}

export QORLDAP_P12_PASSWORD=bundle-pw
export QORLDAP_KEY_PASSWORD=first-key-pw

step "start a throwaway directory server"
quiet "$directory" start --dir "$tmp/dir" --nosync
say "slapd runs on $(sed -n 's/^LDAP_URI=//p' "$tmp/dir/env"), base DN o=root."
say "The library reads its settings from $tmp/dir/conf (soap.ini, ldap.ini)."
q config

step "make a test CA and two users' PKCS#12 bundles"
cd "$tmp"
quiet openssl req -x509 -newkey rsa:2048 -nodes -keyout ca.key -out ca.pem -days 7 \
    -subj "/C=CN/O=Acme/CN=Acme Test CA"
quiet openssl req -newkey rsa:2048 -nodes -keyout li.key -out li.csr \
    -subj "/C=CN/O=Acme/OU=Sales/CN=Li Lei"
quiet openssl x509 -req -in li.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 7 -out li.pem
quiet openssl pkcs12 -export -inkey li.key -in li.pem -out li-lei.p12 -passout "pass:$QORLDAP_P12_PASSWORD"
say "li-lei.p12     RSA 2048, subject C=CN, O=Acme, OU=Sales, CN=Li Lei"
quiet openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:SM2 -out wang.key
quiet openssl req -new -key wang.key -out wang.csr -subj "/C=CN/O=Acme/OU=Research/CN=Wang Fang"
quiet openssl x509 -req -in wang.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 7 -out wang.pem
quiet openssl pkcs12 -export -inkey wang.key -in wang.pem -out wang-fang.p12 \
    -passout "pass:$QORLDAP_P12_PASSWORD"
say "wang-fang.p12  SM2, subject C=CN, O=Acme, OU=Research, CN=Wang Fang"
say "Both are signed by the test CA and protected by the bundle password."

step "publish the bundles"
say "The tool takes passwords from QORLDAP_P12_PASSWORD and QORLDAP_KEY_PASSWORD here;"
say "at a terminal it would ask for them. The key is stored encrypted under the key password."
say "Li Lei's bundle goes in twice, as signing pair and as encryption pair:"
q publish li-lei.p12
q publish li-lei.p12 --crypt
say "Wang Fang's SM2 bundle goes in as encryption pair:"
q publish wang-fang.p12 --crypt

step "list the tree the bundles created"
say "Each certificate subject names its place: OU=Sales becomes ou=sales, CN=Li Lei cn=li lei."
q ls -R o=root
li="cn=li lei, ou=sales, o=root"
wang="cn=wang fang, ou=research, o=root"

step "read the certificates back and compare them with the originals"
q get-cert "$li" -o stored-li.der
openssl x509 -in li.pem -outform DER -out original-li.der
describe original original-li.der
describe stored stored-li.der
cmp -s original-li.der.txt stored-li.der.txt || { echo "demo: Li Lei's stored certificate differs" >&2; exit 1; }
say "Same subject, same fingerprint."
q get-cert "$wang" --crypt -o stored-wang.der
openssl x509 -in wang.pem -outform DER -out original-wang.der
describe original original-wang.der
describe stored stored-wang.der
cmp -s original-wang.der.txt stored-wang.der.txt || { echo "demo: Wang Fang's stored certificate differs" >&2; exit 1; }
say "Same subject, same fingerprint."

step "read a stored private key and open it with openssl"
q get-key "$li" -o li-key.p8
if opens li-key.p8 "$QORLDAP_KEY_PASSWORD"; then
    say "openssl pkcs8 opens it with the key password: it is encrypted PKCS#8 (PBES2, AES-256)."
else
    echo "demo: openssl cannot open the stored key with the key password" >&2
    exit 1
fi
q get-key "$wang" --crypt -o wang-key.p8
opens wang-key.p8 "$QORLDAP_KEY_PASSWORD" || { echo "demo: the stored SM2 key does not open" >&2; exit 1; }
say "Wang Fang's SM2 key opens the same way."

step "change Li Lei's key password"
say "passwd finds the user by name and re-encrypts both of the user's private keys."
export QORLDAP_OLD_PASSWORD=$QORLDAP_KEY_PASSWORD
export QORLDAP_NEW_PASSWORD=second-key-pw
q passwd "cn=li lei"
for pair in signing encryption; do
    option=()
    [ "$pair" = encryption ] && option=(--crypt)
    "$tool" --conf "$tmp/dir/conf" get-key "$li" "${option[@]}" -o "li-$pair.p8" >/dev/null
    if ! opens "li-$pair.p8" "$QORLDAP_NEW_PASSWORD"; then
        echo "demo: the $pair key does not open with the new password" >&2
        exit 1
    fi
    if opens "li-$pair.p8" "$QORLDAP_OLD_PASSWORD"; then
        echo "demo: the $pair key still opens with the old password" >&2
        exit 1
    fi
    say "The $pair key opens with the new password and no longer with the old one."
done

step "show Li Lei's entry"
q show "$li"

step "stop the directory server"
quiet "$directory" stop --dir "$tmp/dir"
say "Stopped; the temporary files go too."
echo
echo "==> the demo finished: every step worked."
