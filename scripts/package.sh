#!/usr/bin/env bash
# package.sh -- the Debian packages libqorldap7, libqorldap-dev and qorldap, built with
# Debian's own tooling (dpkg-buildpackage, debhelper, lintian) from debian/.
#
#   scripts/package.sh                    build into dist/, then lintian
#   scripts/package.sh --refresh-symbols  build, then rewrite debian/libqorldap7.symbols from
#                                         the library just built (after a change of the ABI)
#
# The build runs in a copy of the tree (dist/src/qorldap-VERSION: the tracked files and the
# new ones git does not ignore, as they are in the working tree), so that nothing lands next
# to the checkout and edits made meanwhile do not reach a build half way. The packages, the
# .buildinfo and the .changes end up in dist/. DEB_BUILD_OPTIONS is passed on (default
# "parallel=<cores>"); the package's own tests are off (debian/rules says why).
#
# debian/changelog's version is the project's (CMakeLists.txt, project(... VERSION ...)):
# the build refuses to start when they differ, naming the entry to add.
# lintian must report no error and no warning that is not overridden with its reason
# (debian/*.lintian-overrides).
set -euo pipefail
cd "$(dirname "$0")/.."
here=$(pwd)
step() { printf '\n==> %s\n' "$*"; }
die() { printf 'package.sh: %s\n' "$*" >&2; exit 1; }

refresh=no
case ${1:-} in
    "") ;;
    --refresh-symbols) refresh=yes ;;
    *) die "usage: scripts/package.sh [--refresh-symbols]" ;;
esac

version=$(sed -n 's/^project(qorldap VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
[ -n "$version" ] || die "no project(qorldap VERSION ...) in CMakeLists.txt"
changelog_version=$(dpkg-parsechangelog -S Version)
if [ "$changelog_version" != "$version" ]; then
    die "debian/changelog is at $changelog_version, the project at $version: add an entry for
    $version at its top (dch --newversion $version --distribution unstable, from devscripts)"
fi

step "copying the tree to dist/src/qorldap-$version"
src=dist/src/qorldap-$version
rm -rf dist
mkdir -p "$src"
if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
    git ls-files -z --cached --others --exclude-standard |
        while IFS= read -r -d '' f; do [ -e "$f" ] && printf '%s\0' "$f"; done |
        tar --null -T - -cf - | tar -xf - -C "$src"
else  # an unpacked tarball: all but the build folders
    tar --exclude='./build*' --exclude=./dist --exclude='./obj-*' -cf - . | tar -xf - -C "$src"
fi

step "dpkg-buildpackage -us -uc -b"
export DEB_BUILD_OPTIONS=${DEB_BUILD_OPTIONS:-parallel=$(nproc 2>/dev/null || echo 2)}
# Refreshing: a symbols file that no longer matches must not stop the build that replaces it.
[ $refresh = no ] || export DPKG_GENSYMBOLS_CHECK_LEVEL=0
(cd "$src" && dpkg-buildpackage -us -uc -b)
mv dist/src/*.deb dist/src/*.buildinfo dist/src/*.changes dist/

if [ $refresh = yes ]; then
    step "debian/libqorldap7.symbols from the library just built"
    # dpkg-gensymbols lists the C++ names mangled; they are kept demangled, as c++filt
    # prints them, with the (c++) tag: readable, and what a header change is checked against.
    {
        printf 'libqorldap.so.%s libqorldap7 #MINVER#\n' "${version%%.*}"
        printf '* Build-Depends-Package: libqorldap-dev\n'
        (cd "$src" && dpkg-gensymbols -plibqorldap7 -Pdebian/libqorldap7 -v"$version" -c0 -q -O../symbols)
        while IFS= read -r line; do
                case $line in
                    " #MISSING"*) printf 'package.sh: gone from the library: %s\n' "$line" >&2 ;;
                    " (c++)"*) printf '%s\n' "$line" ;;
                    " _Z"*)
                        read -r symbol minver <<<"$line"
                        printf ' (c++)"%s@%s" %s\n' "$(c++filt "${symbol%@*}")" "${symbol##*@}" "$minver" ;;
                    " "[A-Za-z]*) printf '%s\n' "$line" ;;
                esac
            done <dist/src/symbols | LC_ALL=C sort -u
    } >debian/libqorldap7.symbols
    cat debian/libqorldap7.symbols
fi

step "lintian"
lintian --fail-on error,warning --info --display-level '>=warning' dist/qorldap_"$version"_*.changes
ls -l dist/*.deb
echo "packages in $here/dist"
