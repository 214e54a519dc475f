#!/usr/bin/env bash
# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0
#
# Builds and tries the Debian packages in bare roots: check-packages.sh FOLDER [SUITE...] (bookworm and trixie)
# Each root is a Debian of its own below FOLDER, made by debootstrap; packages are built in one copy of it and tried in
# another. IPSEC_DEBIAN_MIRROR names another archive than deb.debian.org, IPSEC_EARLIER another commit to upgrade from
# than the last release, or than what debian/ was before its last change.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."
mirror=${IPSEC_DEBIAN_MIRROR:-http://deb.debian.org/debian}

if [ $# -eq 0 ] || [ "$(id -u)" -ne 0 ]; then
  echo "Usage, as root: check-packages.sh FOLDER [SUITE...]. Only root can make the roots of other systems." >&2
  exit 2
fi
mkdir -p "$1"
folder=$(readlink -f "$1")
suites=("${@:2}")
[ ${#suites[@]} -gt 0 ] || suites=(bookworm trixie)

earlier_commit() {
  git describe --tags --abbrev=0 --match 'v*' HEAD^ 2>/dev/null ||
    git log --skip=1 -1 --format=%H -- debian
}

# base SUITE: a minimal system that reaches the archive as this machine does (proxy, checks of time).
base() {
  local root=$folder/$1.base
  [ ! -e "$root.made" ] || return 0
  rm -rf --one-file-system "$root"
  debootstrap --variant=minbase "$1" "$root" "$mirror"
  apt-config dump | grep '^Acquire::' >"$root/etc/apt/apt.conf.d/00machine" || true
  echo force-unsafe-io >"$root/etc/dpkg/dpkg.cfg.d/unsafe-io"  # a root that lives for an hour need not survive a crash
  touch "$root.made"
}

# inside ROOT COMMAND...: runs a command in the root. Its mounts and its processes are gone when it ends.
inside() {
  unshare --mount --pid --fork --propagation private bash -c '
    set -e
    mount -t proc proc "$0/proc"
    mount --rbind /dev "$0/dev"
    cp /etc/resolv.conf /etc/hosts "$0/etc/"
    exec chroot "$0" /usr/bin/env -i HOME=/root LC_ALL=C.UTF-8 PATH=/usr/sbin:/usr/bin:/sbin:/bin "${@}"' "$@"
}

# copy SUITE NAME: a new root from the base.
copy() {
  local root=$folder/$1.$2
  rm -rf --one-file-system "$root"
  cp -a --reflink=auto "$folder/$1.base" "$root"
  cp -a --reflink=auto "$folder/source" "$root/source"
  echo "$root"
}

try() {
  local suite=$1 builder upstream user
  echo "=== $suite"
  base "$suite"
  builder=$(copy "$suite" build)
  inside "$builder" bash -c "cd /source/now && ./dev package"
  upstream=$(dpkg-deb -f "$builder"/source/now/build/package/libipsechelpers1_*.deb Version | sed 's/-[^-]*$//')
  inside "$builder" bash -c "cd /source/now && python3 tools/package.py build --tree /source/earlier \
    --version '$upstream~earlier-1' /source/earlier/build/package"
  user=$(copy "$suite" use)
  cp -a "$builder/source/now/build/package" "$user/source/packages-now"
  cp -a "$builder/source/earlier/build/package" "$user/source/packages-earlier"
  inside "$user" bash -c "cd / && bash /source/now/tools/try-packages.sh /source/now /source/packages-earlier \
    /source/packages-now"
  rm -rf --one-file-system "$builder" "$user"
}

commit=${IPSEC_EARLIER:-$(earlier_commit)}
if [ -z "$commit" ]; then
  echo "There is no earlier commit to upgrade from: this takes a clone with its history." >&2
  exit 1
fi
rm -rf "$folder/source"
mkdir -p "$folder/source/now" "$folder/source/earlier"
git ls-files -z | xargs -0 cp -a --parents -t "$folder/source/now"
git archive "$commit" | tar -x -C "$folder/source/earlier"
for suite in "${suites[@]}"; do
  try "$suite"
done
echo "The packages are good in: ${suites[*]}"
