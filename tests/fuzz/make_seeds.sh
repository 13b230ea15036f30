#!/usr/bin/env bash
# Makes the seed corpus of fuzz_pkcs12 with the openssl command-line tool: small real bundles
# and keys, under the password "fuzz" that the target opens them with (one plain bundle under
# the empty password, which the target tries too). The generated files
# are committed; run this again only to renew them (every run makes new keys).
#
#   tests/fuzz/make_seeds.sh            # writes tests/fuzz/corpus/fuzz_pkcs12/
set -euo pipefail

here="$(cd "$(dirname "$0")" && pwd)"
out="$here/corpus/fuzz_pkcs12"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
mkdir -p "$out"
cd "$work"

pass=pass:fuzz
subject='/C=CN/ST=Beijing/O=Qor Fuzz/OU=Keys/CN=fuzz user/emailAddress=fuzz@example.invalid'

# Keys: RSA (1024 bits keeps the seeds small and fast; the size does not matter to parsing), EC.
openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:1024 -out rsa.key 2>/dev/null
openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out ec.key
openssl req -new -x509 -key rsa.key -subj "$subject" -days 3650 -out rsa.crt
openssl req -new -x509 -key ec.key -subj '/O=Qor Fuzz/OU=Keys/CN=ec user' -days 3650 -out ec.crt
# A subject in UTF-8 with characters outside ASCII, as GB-speaking users have.
openssl req -new -x509 -key ec.key -utf8 -subj '/C=CN/O=启明/OU=密钥/CN=李雷' -days 3650 \
    -out utf8.crt

# Bundles as current tools write them (PBES2/AES-256, SHA-256 MAC), with few iterations so
# each open is quick.
openssl pkcs12 -export -inkey rsa.key -in rsa.crt -passout "$pass" -iter 64 \
    -out "$out/rsa.p12"
openssl pkcs12 -export -inkey ec.key -in ec.crt -passout "$pass" -iter 64 \
    -out "$out/ec.p12"
# An extra certificate beside the key's own.
openssl pkcs12 -export -inkey ec.key -in utf8.crt -certfile rsa.crt -passout "$pass" -iter 64 \
    -out "$out/ec_chain.p12"
# Legacy algorithms (RC2-40 certificates, 3DES key, SHA-1 MAC), as older exporters write.
openssl pkcs12 -export -legacy -inkey rsa.key -in rsa.crt -passout "$pass" -iter 64 \
    -out "$out/rsa_legacy.p12"
# No encryption and no MAC, under the empty password (a bundle without a MAC opens only
# under that one): changes inside still open, so the fuzzer reaches the key and certificate
# parsing behind the bundle.
openssl pkcs12 -export -inkey ec.key -in utf8.crt -passout pass: -keypbe NONE -certpbe NONE \
    -nomac -out "$out/ec_plain.p12"
# A bundle with a certificate and no key: refused.
openssl pkcs12 -export -nokeys -in ec.crt -passout "$pass" -iter 64 -out "$out/cert_only.p12"

# A certificate alone, for GetCertInfo.
openssl x509 -in utf8.crt -outform DER -out "$out/utf8_cert.der"
# A stored key as Convert2Key writes it (PBES2, PBKDF2-HMAC-SHA256, AES-256-CBC), for DecryptKey.
openssl pkcs8 -topk8 -in ec.key -v2 aes-256-cbc -v2prf hmacWithSHA256 -iter 64 \
    -passout "$pass" -outform DER -out "$out/ec_key.p8"

chmod 644 "$out"/*
ls -l "$out"
