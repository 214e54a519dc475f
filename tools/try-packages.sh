#!/usr/bin/env bash
# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0
#
# Installs the packages as root of a bare Debian, uses, upgrades, replaces and removes them:
#   try-packages.sh SOURCE EARLIER NOW
# EARLIER and NOW are folders of packages, SOURCE the tree of NOW. tools/check-packages.sh runs this in a new root.
set -euo pipefail
source=$1 earlier=$2 now=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# Some versions of debhelper and apt ask for a terminal. There is none.
export DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8

say() {
  echo "== $*"
}

wrong() {
  echo "WRONG: $*" >&2
  exit 1
}

apt_install() {
  apt-get install -y --no-install-recommends "$@"
}

# Every file that a package may leave, but for what apt and dpkg note about themselves.
files() {
  find / -xdev \( -path /proc -o -path /sys -o -path /dev -o -path /tmp -o -path "$source" -o -path "$earlier" \
    -o -path "$now" -o -path /var/cache -o -path /var/lib/apt -o -path /var/lib/dpkg \
    -o -path /var/log \) -prune -o -print | sort
}

# use NAME: builds and runs the programs of debian/tests against what is installed.
use() {
  local test
  for test in cmake pkg-config examples; do
    mkdir -p "$work/$1/$test"
    (cd "$source" && AUTOPKGTEST_TMP=$work/$1/$test "debian/tests/$test") >"$work/log" 2>&1 ||
      { cat "$work/log"; wrong "debian/tests/$test with the $1 packages"; }
    echo "debian/tests/$test: good with the $1 packages"
  done
}

version() {
  dpkg-query -W -f '${Version}' libipsechelpers1
}

no_undefined() {
  local library
  for library in /usr/lib/*/libipsec*.so.1; do
    ! ldd -r "$library" 2>&1 | grep -E 'not found|undefined' || wrong "$library lacks something"
  done
}

say "before"
apt-get update -qq
apt_install g++ cmake make pkgconf libssl-dev >"$work/log" 2>&1 || { cat "$work/log"; exit 1; }
files >"$work/before"

say "install the earlier packages"
apt_install "$earlier"/*.deb
before=$(version)
no_undefined
use earlier

say "upgrade"
apt_install "$now"/*.deb
dpkg --compare-versions "$before" lt "$(version)" || wrong "the upgrade left $before in place of a higher version"
echo "from $before to $(version)"
no_undefined
"$work/earlier/cmake/cmake/consumer" || wrong "a program that was built with the earlier packages"
use new

say "another platform in the place of the stand-in"
platform=$work/platform
library=$(find /usr/lib -name libipsecplatform.so.1 | head -n 1)
mkdir -p "$platform/DEBIAN" "$platform$(dirname "$library")"
cp -L "$library" "$platform$library"
cat >"$platform/DEBIAN/control" <<TEXT
Package: product-ipsec-platform
Version: 7
Architecture: $(dpkg --print-architecture)
Maintainer: Nobody <nobody@product.invalid>
Provides: libipsecplatform1 (= $(dpkg-query -W -f '${Version}' libipsecplatform1 | sed 's/-.*//'))
Conflicts: libipsecplatform1
Replaces: libipsecplatform1
Description: a product's platform
TEXT
dpkg-deb --root-owner-group -b "$platform" "$work/platform.deb"
apt_install "$work/platform.deb"
[ "$(dpkg-query -S "$(readlink -f "$library")" | cut -d: -f1)" = product-ipsec-platform ] ||
  wrong "the platform is not the product's"
dpkg-query -W libipsechelpers1 libipsechelpers-dev
rm -rf "$work/new"
use new
apt_install "$now"/libipsecplatform1_*.deb
no_undefined

say "remove"
apt-get purge -y '*ipsechelpers*' '*ipsecshim*' '*ipsecplatform*' 'ipsec-helpers-*'
! dpkg-query -W -f '${Package} ${Status}\n' '*ipsec-*' '*ipsec*1*' 2>/dev/null | grep -v 'not-installed$' ||
  wrong "packages are left"
! ldconfig -p | grep libipsec || wrong "the loader still knows the libraries"
files >"$work/after"
diff "$work/before" "$work/after" || wrong "files are left"
say "good: installed, used, upgraded, replaced and removed"
