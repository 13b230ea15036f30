#!/usr/bin/env bash
# Makes the seed corpus of fuzz_pkcs12 (tests/fuzz/corpus/fuzz_pkcs12/) with the openssl tool:
# small bundles and keys under the password "fuzz" the target opens them with, one plain bundle
# under the empty password. The files are committed; run this only to renew them (new keys).
set -euo pipefail

here="$(cd "$(dirname "$0")" && pwd)"
out="$here/corpus/fuzz_pkcs12"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
mkdir -p "$out" && cd "$work" && pass=pass:fuzz

# RSA (1024 bits: small seeds) and EC keys; one subject in UTF-8 outside ASCII.
openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:1024 -out rsa.key 2>/dev/null
openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out ec.key
openssl req -new -x509 -key rsa.key -days 3650 -out rsa.crt \
    -subj '/C=CN/ST=Beijing/O=Qor Fuzz/OU=Keys/CN=fuzz user/emailAddress=fuzz@example.invalid'
openssl req -new -x509 -key ec.key -subj '/O=Qor Fuzz/OU=Keys/CN=ec user' -days 3650 -out ec.crt
openssl req -new -x509 -key ec.key -utf8 -subj '/C=CN/O=启明/OU=密钥/CN=李雷' -days 3650 \
    -out utf8.crt

# Bundles as current tools write them (few iterations: quick to open), with an extra
# certificate, with the legacy algorithms, with no encryption and no MAC, and with no key.
openssl pkcs12 -export -inkey rsa.key -in rsa.crt -passout "$pass" -iter 64 -out "$out/rsa.p12"
openssl pkcs12 -export -inkey ec.key -in ec.crt -passout "$pass" -iter 64 -out "$out/ec.p12"
openssl pkcs12 -export -inkey ec.key -in utf8.crt -certfile rsa.crt -passout "$pass" -iter 64 \
    -out "$out/ec_chain.p12"
openssl pkcs12 -export -legacy -inkey rsa.key -in rsa.crt -passout "$pass" -iter 64 \
    -out "$out/rsa_legacy.p12"
openssl pkcs12 -export -inkey ec.key -in utf8.crt -passout pass: -keypbe NONE -certpbe NONE \
    -nomac -out "$out/ec_plain.p12"
openssl pkcs12 -export -nokeys -in ec.crt -passout "$pass" -iter 64 -out "$out/cert_only.p12"

# A certificate alone (GetCertInfo), and a key stored as Convert2Key writes it (DecryptKey).
openssl x509 -in utf8.crt -outform DER -out "$out/utf8_cert.der"
openssl pkcs8 -topk8 -in ec.key -v2 aes-256-cbc -v2prf hmacWithSHA256 -iter 64 \
    -passout "$pass" -outform DER -out "$out/ec_key.p8"
chmod 644 "$out"/*
ls -l "$out"
