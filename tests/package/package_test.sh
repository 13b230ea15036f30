#!/usr/bin/env bash
# package_test.sh DIST -- the Debian packages built by scripts/package.sh into DIST, installed
# into this machine and used as a user of them would, then purged.
#
# It installs libqorldap7, libqorldap-dev and qorldap with apt-get, checks the tool's version
# and where it finds its library, compiles a small C++ caller against the installed headers
# through pkg-config and through CMake's find_package, runs the README's five-minute tour with
# the installed tool and schema against a throwaway directory (the caller reads the
# certificate the tour published), then purges the packages and checks that not one of their
# files is left. Installing into the machine needs root: without it the test says so and is
# skipped. Packages of these names installed before are purged first (and not put back).
# The last line says "N passed, M failed"; the exit status is 1 when any failed.
set -uo pipefail

[ $# -eq 1 ] || { echo "usage: package_test.sh DIST" >&2; exit 2; }
if [ "$(id -u)" -ne 0 ]; then
    echo "package test skipped: it installs the packages into this machine, which needs root"
    exit 0
fi
dist=$(cd "$1" && pwd)
source_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
packages=(libqorldap7 libqorldap-dev qorldap)
version=$(sed -n 's/^project(qorldap VERSION \([0-9.]*\).*/\1/p' "$source_dir/CMakeLists.txt")
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
export DEBIAN_FRONTEND=noninteractive LDAPNOINIT=1
tmp=$(mktemp -d "${TMPDIR:-/tmp}/qorldap-package-test.XXXXXX")
installed=no
cleanup() {
    [ -x "$tmp/tree/scripts/directory" ] && "$tmp/tree/scripts/directory" stop --dir "$tmp/dir" >/dev/null 2>&1
    [ $installed = yes ] && apt-get purge -y -qq "${packages[@]}" >/dev/null 2>&1
    rm -rf "$tmp"
}
trap cleanup EXIT
trap 'exit 130' INT TERM
passed=0 failed=0
pass() { passed=$((passed + 1)); printf 'ok   %s\n' "$1"; }
fail() { failed=$((failed + 1)); printf 'FAIL %s\n' "$1"; [ -s "$tmp/log" ] && sed 's/^/       /' "$tmp/log" | tail -20; }
# check NAME COMMAND...: passes when COMMAND succeeds; its output goes to $tmp/log.
check() { local name=$1; shift; if "$@" >"$tmp/log" 2>&1; then pass "$name"; else fail "$name"; fi; }
finish() { echo "$passed passed, $failed failed"; [ "$failed" = 0 ]; exit; }

echo "[install]"
debs=()
for p in "${packages[@]}"; do debs+=("$dist/${p}_${version}_$(dpkg --print-architecture).deb"); done
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'ok installed' && apt-get purge -y -qq "$p" >/dev/null
done
check "apt-get installs the three packages" apt-get install -y -q --no-install-recommends "${debs[@]}" ||
    finish
installed=yes
dpkg -L "${packages[@]}" | grep -vx '/\.' | sort -u >"$tmp/files"
# What is theirs alone: files and symlinks (directories such as /usr/bin are shared).
while IFS= read -r f; do [ -d "$f" ] && [ ! -L "$f" ] || printf '%s\n' "$f"; done <"$tmp/files" >"$tmp/own"
for f in /usr/bin/qorldap /usr/bin/qorldap-prepare "/usr/lib/$multiarch/libqorldap.so.7" \
    "/usr/lib/$multiarch/libqorldap.so" "/usr/lib/$multiarch/pkgconfig/qorldap.pc" \
    "/usr/lib/$multiarch/cmake/qorldap/qorldapConfig.cmake" /usr/include/qorldap/qorldap.h \
    /usr/share/man/man1/qorldap.1.gz /usr/share/man/man1/qorldap-prepare.1.gz \
    /usr/share/bash-completion/completions/qorldap /usr/share/qorldap/schema/qorldap.schema \
    /usr/share/qorldap/schema/qorldap.ldif /usr/share/qorldap/schema/389ds/qorldap-schema.ldif \
    /usr/share/qorldap/schema/389ds/aci.ldif /usr/share/qorldap/schema/acl/slapd-access.conf \
    /usr/share/qorldap/schema/acl/olcAccess.ldif /usr/share/qorldap/schema/acl/service.ldif \
    /usr/share/qorldap/schema/ldap.ini /usr/share/doc/qorldap/examples/soap.ini.example \
    /usr/share/doc/qorldap/examples/inetorgperson/soap.ini /usr/share/doc/qorldap/copyright; do
    grep -qxF "$f" "$tmp/own" || { printf '%s is not in the packages\n' "$f" >"$tmp/log"; fail "installed: $f"; }
done
[ "$failed" = 0 ] && pass "every file in its place (tool, library, headers, .pc, CMake package, manuals, completion, schema, examples)"
check "qorldap --version" test "$(/usr/bin/qorldap --version)" = "qorldap $version"
# ld.so names /lib/MULTIARCH where /lib is a link to /usr/lib.
# (ldd's whole output first: grep -q ends at the first match, and ldd's SIGPIPE would fail the pipe.)
runs_on_package_library() {
    local out
    out=$(ldd "$1") && grep -Eq "libqorldap\.so\.7 => (/usr)?/lib/$multiarch/libqorldap\.so\.7 " <<<"$out"
}
check "the tool finds the system's libqorldap.so.7" runs_on_package_library /usr/bin/qorldap
check "libqorldap7 names its libldap" grep -q 'libldap' <(dpkg-query -W -f='${Depends}' libqorldap7)

echo "[a caller built against libqorldap-dev]"
mkdir -p "$tmp/app" && cd "$tmp/app" || finish
# The certificate of DN as the free functions read it, on standard output.
cat >app.cpp <<'EOF'
#include <qorldap/qorldap.h>

#include <cstdio>

int main(int argc, char** argv) {
    if (argc != 2)
        return 2;
    unsigned char* cert = nullptr;
    unsigned int length = 0;
    int rc = GetSignPublicKey(argv[1], cert, length);
    if (rc != 0 || cert == nullptr) {
        std::fprintf(stderr, "GetSignPublicKey: %s\n", QorLdapCodeText(rc));
        return 1;
    }
    std::fwrite(cert, 1, length, stdout);
    FreeKey(cert);
    return 0;
}
EOF
cat >CMakeLists.txt <<'EOF'
cmake_minimum_required(VERSION 3.16)
project(app LANGUAGES CXX)
find_package(qorldap 7 REQUIRED)
message(STATUS "qorldap_DIR=${qorldap_DIR}")
add_executable(app app.cpp)
target_link_libraries(app PRIVATE qorldap::qorldap)
EOF
# Only the system's own files count: nothing under /usr/local stands in for the packages.
export PKG_CONFIG_LIBDIR=/usr/lib/$multiarch/pkgconfig:/usr/share/pkgconfig
check "pkg-config --modversion qorldap" test "$(pkg-config --modversion qorldap)" = "$version"
# shellcheck disable=SC2046
check "c++ app.cpp \$(pkg-config --cflags --libs qorldap)" c++ -std=c++17 -o app-pc app.cpp $(pkg-config --cflags --libs qorldap)
check "find_package(qorldap) finds the package's files" \
    cmake -S . -B build -DCMAKE_IGNORE_PREFIX_PATH=/usr/local
grep -q "qorldap_DIR=/usr/lib/$multiarch/cmake/qorldap" "$tmp/log" || fail "qorldap_DIR is /usr/lib/$multiarch/cmake/qorldap"
check "cmake --build with qorldap::qorldap" cmake --build build
for app in app-pc build/app; do
    check "$app runs on /usr/lib/$multiarch/libqorldap.so.7" runs_on_package_library "$tmp/app/$app"
done

echo "[the five-minute tour with the installed tool and schema]"
# scripts/directory reads the schema from the tree it sits in: a tree of its scripts whose
# schema/ is the installed one.
mkdir -p "$tmp/tree" && cp -r "$source_dir/scripts" "$tmp/tree/" && ln -s /usr/share/qorldap/schema "$tmp/tree/schema"
check "scripts/directory start (schema from /usr/share/qorldap)" \
    "$tmp/tree/scripts/directory" start --dir "$tmp/dir" --nosync || finish
export QORLDAP_CONF_DIR=$tmp/dir/conf
cd "$tmp" || finish
q=/usr/bin/qorldap
dn='cn=li lei,ou=sales,o=root'
check "a bundle made with openssl" bash -c "openssl req -x509 -newkey rsa:2048 -nodes -keyout u.key -out u.crt -days 30 \
    -subj '/C=CN/O=Acme/OU=Sales/CN=Li Lei' && openssl pkcs12 -export -in u.crt -inkey u.key -out u.p12 -passout pass:bundle"
export QORLDAP_P12_PASSWORD=bundle QORLDAP_KEY_PASSWORD=keypw
check "publish u.p12" $q publish u.p12
check "publish u.p12 --crypt" $q publish u.p12 --crypt
check "ls o=root" grep -qx 'ou=sales,o=root' <($q ls o=root)
check "ls ou=sales,o=root" grep -qx "$dn" <($q ls 'ou=sales,o=root')
check "show" $q show "$dn"
check "get-cert --pem gives the certificate published" cmp <($q get-cert "$dn" --pem | openssl x509 -outform DER) \
    <(openssl x509 -in u.crt -outform DER)
check "get-key gives the key, encrypted with the key password" \
    bash -c "$q get-key '$dn' -o k.der && openssl pkcs8 -inform DER -in k.der -passin pass:keypw -out /dev/null"
for app in app-pc build/app; do
    check "$app reads the certificate the tool published" cmp <("$tmp/app/$app" "$dn") \
        <(openssl x509 -in u.crt -outform DER)
done
check "passwd" env QORLDAP_OLD_PASSWORD=keypw QORLDAP_NEW_PASSWORD=new $q passwd 'cn=li lei'
check "the key opens with the new password" \
    bash -c "$q get-key '$dn' -o k2.der && openssl pkcs8 -inform DER -in k2.der -passin pass:new -out /dev/null"
check "rm-key" $q rm-key "$dn"
check "config" $q config
check "scripts/directory stop" "$tmp/tree/scripts/directory" stop --dir "$tmp/dir"

echo "[purge]"
cd / || finish
check "apt-get purge" apt-get purge -y -q "${packages[@]}"
installed=no
while IFS= read -r f; do [ -e "$f" ] || [ -L "$f" ] && printf '%s\n' "$f"; done <"$tmp/own" >"$tmp/left"
# Their directories too, unless another package still holds them.
while IFS= read -r d; do
    [ -d "$d" ] && [ ! -L "$d" ] && ! dpkg -S "$d" >/dev/null 2>&1 && printf '%s/\n' "$d"
done <"$tmp/files" >>"$tmp/left"
if [ -s "$tmp/left" ]; then cp "$tmp/left" "$tmp/log"; fail "no file of the packages is left"; else
    pass "no file of the packages is left ($(wc -l <"$tmp/own") files and links)"; fi
check "dpkg knows none of them" bash -c "! dpkg-query -W -f='\${Status}\n' ${packages[*]} 2>/dev/null | grep -q 'ok installed'"
finish
