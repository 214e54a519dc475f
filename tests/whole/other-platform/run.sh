#!/usr/bin/env bash
# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0
#
# Builds the library as a part of another project, and with other platforms than the stand-in, and runs tests with one:
# run.sh BUILD, a folder in which the libraries and the tests have been built.
set -uo pipefail

if [ $# -ne 1 ] || [ ! -e "$1/libipsecplatform.so.1" ]; then
  echo "Usage: run.sh BUILD, a folder in which the libraries and the tests have been built" >&2
  exit 2
fi
build=$(readlink -f "$1")
cd "$(dirname "$(readlink -f "$0")")" || exit 1
source=$(readlink -f ../../..)
minimal=$source/examples/platform-minimal
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
built=$work/target/_deps/ipsechelpers-build
failed=0

# check TEXT COMMAND...: shows what a failed command printed.
check() {
  local text=$1
  shift
  if "$@" >"$work/log" 2>&1; then
    echo "ok: $text"
    return
  fi
  failed=$((failed + 1))
  echo "FAILED: $text"
  sed 's/^/  /' "$work/log"
}

outside_target() {
  cmake -G Ninja -S . -B "$work/target" -DCMAKE_BUILD_TYPE=Debug -DIPSEC_SOURCE="$source" \
    -DPLATFORM_LIBRARY="$build/libipsecplatform.so.1" &&
    cmake --build "$work/target" &&
    readelf -d "$built/libipsechelpers.so" >"$work/linked" && grep -q 'NEEDED.*libipsecplatform.so.1' "$work/linked" &&
    [ ! -e "$built/libipsecplatform.so" ] && ! grep -q 'platform/linux' "$work/target/build.ninja" &&
    "$work/target/agent" | tee "$work/said" && grep -q 'C++ 201703, version' "$work/said"
}

# Without being asked the library installs nothing; asked, all that it has built.
installation() {
  DESTDIR=$work/nothing cmake --install "$work/target" && [ ! -e "$work/nothing" ] &&
    cmake -B "$work/target" -DIPSEC_INSTALL=ON && cmake --build "$work/target" &&
    cmake --install "$work/target" --prefix "$work/all" &&
    [ -e "$work/all/include/ipsec-helpers/platform/Trace.h" ] &&
    [ "$(find "$work/all" -name '*.so' -printf '%f\n' | sort | xargs)" = 'libipsechelpers.so libipsecshim.so' ]
}

folder() {
  cmake -G Ninja -S "$source" -B "$work/minimal" -DCMAKE_BUILD_TYPE=Debug -DIPSEC_PLATFORM="$minimal" &&
    ! grep -q 'platform/linux' "$work/minimal/build.ninja" &&
    python3 "$source/tools/disabled-tests.py" "$work/minimal" "$minimal" &&
    cmake --build "$work/minimal" --target ipsecplatform
}

# The headers are the same, and so is what a platform's library exports: one can stand in for the other at run time.
swapped() {
  local name
  local -x LD_LIBRARY_PATH=$work/minimal
  for name in DhModpTest DhEcpTest HmacPrfTest PrfPlusTest NonceTest ConnectionsFileTest SecretsFileTest HostTest \
    ModulesTest InterfaceTest SecrecyTest; do
    ldd "$build/tests/$name" | grep "$work/minimal/libipsecplatform.so.1" || return 1
    "$build/tests/$name" || [ $? -eq 77 ] || return 1
  done
}

# A platform's own header goes before the one of the same name here, also where a header of this tree includes it.
own_header() {
  local object=CMakeFiles/ipsechelpers.dir/src/IpsecUtils.cpp.o
  cmake -G Ninja -S "$source" -B "$work/own" -DCMAKE_BUILD_TYPE=Debug -DIPSEC_TESTS=OFF -DIPSEC_EXAMPLES=OFF \
    -DIPSEC_PLATFORM="$PWD/folder" && cmake --build "$work/own" --target "$object" &&
    ninja -C "$work/own" -t deps "$object" >"$work/headers" &&
    grep -q "$PWD/folder/platform/Vrf.h" "$work/headers" && ! grep -q "$source/platform/Vrf.h" "$work/headers"
}

unknown() {
  ! cmake -G Ninja -S "$source" -B "$work/unknown" -DIPSEC_TESTS=OFF -DIPSEC_EXAMPLES=OFF -DIPSEC_PLATFORM=none &&
    grep -q 'IPSEC_PLATFORM is "none"' "$work/log"
}

static() {
  ! cmake -G Ninja -S "$source" -B "$work/static" -DBUILD_SHARED_LIBS=OFF &&
    grep -q 'ipsec-helpers has no static libraries' "$work/log"
}

check "a part of another project, with a platform target of that project" outside_target
check "such a part is installed only if asked for" installation
check "a folder elsewhere" folder
check "the tests with the library of that folder in place of the stand-in's" swapped
check "a platform with a header of its own" own_header
check "a platform that is neither is refused by name" unknown
check "static libraries are refused with the reason" static
[ "$failed" -eq 0 ]
