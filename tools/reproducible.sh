#!/usr/bin/env bash
# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0
#
# Builds the libraries twice, in folders with different names and on different terms, and compares every file that is
# installed: tools/reproducible.sh RESULT BUILD_TYPE... ./dev reproducible calls it.
set -euo pipefail
result=$1
cd "$(dirname "$(readlink -f "$0")")/.."
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export CCACHE_DISABLE=1 # a cached object file proves nothing
different=0

# build_one TYPE TREE BUILD PREFIX: of a copy of this tree.
build_one() {
  mkdir -p "$2"
  git ls-files -z --cached --others --exclude-standard | xargs -0 cp --parents -t "$2"
  cmake -G Ninja -S "$2" -B "$3" -DCMAKE_BUILD_TYPE="$1" -DIPSEC_TESTS=OFF -DIPSEC_EXAMPLES=OFF
  cmake --build "$3" -j "$(nproc)"
  DESTDIR=$4 cmake --install "$3" --prefix /usr
}

# In the second build the build folder is outside the tree, and the time zone, language and rights of files are others.
: >"$result"
for type in "${@:2}"; do
  first=$work/$type/a second="$work/$type/a longer name elsewhere"
  build_one "$type" "$first/tree" "$first/tree/build/one" "$first/installed"
  (umask 077 && TZ=Asia/Tokyo LC_ALL=C.UTF-8 build_one "$type" "$second/source" "$second/two" "$second/installed")
  files=$(cd "$first/installed" && find . -type f | wc -l)
  if [ "$files" -gt 0 ] && diff -r "$first/installed" "$second/installed"; then
    echo "$type: all $files files are the same in both builds." >>"$result"
  else
    different=1
  fi
done
exit "$different"
