#!/usr/bin/env bash
# Installs what a fresh Debian 12 machine lacks to build, test and demo libqorldap.
# Safe to run again: apt-get skips what is already there.
set -euo pipefail
pkgs=(build-essential cmake pkg-config clang libclang-rt-14-dev
      libldap-dev slapd ldap-utils libssl-dev openssl libicu-dev
      libgtest-dev googletest libgmock-dev libbenchmark-dev valgrind
      389-ds-base
      dpkg-dev debhelper lintian)   # ./run package: dpkg-buildpackage, dh, lintian
missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  sudo_cmd=""
  [ "$(id -u)" -ne 0 ] && sudo_cmd="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $sudo_cmd apt-get update -qq
  $sudo_cmd apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
