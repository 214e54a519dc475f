#!/usr/bin/env bash
# Builds the library with other platforms than the stand-in: run.sh BUILD, a folder with the libraries already built.
set -uo pipefail

if [ $# -ne 1 ] || [ ! -e "$1/libipsecplatform.so.1" ]; then
  echo "Usage: run.sh BUILD, a folder in which the libraries have been built" >&2
  exit 2
fi
platform=$(readlink -f "$1/libipsecplatform.so.1")
cd "$(dirname "$(readlink -f "$0")")" || exit 1
source=$(readlink -f ../../..)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
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
  cmake -G Ninja -S . -B "$work/target" -DIPSEC_SOURCE="$source" -DPLATFORM_LIBRARY="$platform" &&
    cmake --build "$work/target" &&
    readelf -d "$work/target/ipsec/libipsechelpers.so" | grep -q 'NEEDED.*libipsecplatform.so.1' &&
    [ ! -e "$work/target/ipsec/libipsecplatform.so" ] && ! grep -q 'platform/linux' "$work/target/build.ninja"
}

folder() {
  cmake -G Ninja -S "$source" -B "$work/folder" -DIPSEC_TESTS=OFF -DIPSEC_EXAMPLES=OFF -DIPSEC_PLATFORM="$PWD/folder" &&
    grep -q "$PWD/folder/Platform.cpp" "$work/folder/build.ninja" &&
      ! grep -q 'platform/linux' "$work/folder/build.ninja"
}

unknown() {
  ! cmake -G Ninja -S "$source" -B "$work/unknown" -DIPSEC_TESTS=OFF -DIPSEC_EXAMPLES=OFF -DIPSEC_PLATFORM=none &&
    grep -q 'IPSEC_PLATFORM is "none"' "$work/log"
}

check "a target of an enclosing project" outside_target
check "a folder elsewhere" folder
check "a platform that is neither is refused by name" unknown
[ "$failed" -eq 0 ]
