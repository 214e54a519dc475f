#!/usr/bin/env bash
# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0
#
# Installs a build into a separate folder and builds a program against what is installed there: run.sh BUILD.
# C++17 and C++20, g++ and clang++, CMake and pkg-config. Every warning counts, including those in the installed
# headers. The examples in their comments and the program of the README are compiled and run too.
set -uo pipefail
cd "$(dirname "$(readlink -f "$0")")" || exit 1

if [ $# -ne 1 ] || [ ! -e "$1/CMakeCache.txt" ]; then
  echo "Usage: run.sh BUILD, a folder in which the libraries have been built" >&2
  exit 2
fi
build=$(readlink -f "$1")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
tools=$(readlink -f ../../tools)
warnings=(-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wold-style-cast -Werror)
passed=0
failed=0

# expect TEXT COMMAND...: counts the result, and shows what a failed command printed.
expect() {
  local text=$1
  shift
  if "$@" >"$work/log" 2>&1; then
    passed=$((passed + 1))
    return 0
  fi
  failed=$((failed + 1))
  echo "FAILED: $text"
  sed 's/^/  /' "$work/log"
  return 1
}

# The package must be found in the installed tree and not in the project's own folders.
with_cmake() {
  local folder=$work/cmake-$1-$2
  cmake -G Ninja -S . -B "$folder" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_COMPILER="$1" -DCMAKE_CXX_STANDARD="$2" \
    -DCMAKE_CXX_FLAGS="${warnings[*]}" -DCMAKE_BUILD_TYPE=Release &&
    grep -q "^IpsecHelpers_DIR:PATH=$prefix/" "$folder/CMakeCache.txt" &&
    cmake --build "$folder" && "$folder/consumer"
}

with_pkg_config() {
  local flags
  flags=$(pkg-config --cflags --libs ipsechelpers) || return 1
  [[ $flags == *"-I$prefix/"* && $flags == *"-L$prefix/"* ]] ||
    { echo "flags of another installation: $flags"; return 1; }
  # shellcheck disable=SC2086  # the flags are words
  "$1" -std=c++"$2" -pedantic-errors "${warnings[@]}" -DPACKAGE_VERSION="\"$(pkg-config --modversion ipsechelpers)\"" \
    main.cpp -o "$work/consumer" $flags &&
    LD_LIBRARY_PATH=$libraries "$work/consumer"
}

# alone COMPILER STANDARD INCLUDE_FOLDER HEADER
alone() {
  printf '#include "%s"\n#include "%s"\n' "$4" "$4" >"$work/alone.cpp"
  # shellcheck disable=SC2046  # the flags are words
  "$1" -std=c++"$2" "${warnings[@]}" -I"$3" -fsyntax-only "$work/alone.cpp" $(pkg-config --cflags-only-I libcrypto)
}

# The program's own headers of these names come first in its include path, and none of them may be taken. Only the
# preprocessor runs: it is what finds the headers.
own_platform_folder() {
  local name own=$work/own
  mkdir -p "$own/platform"
  : >"$own/all.cpp"
  for name in "${headers[@]}"; do
    [ "$name" = "${name#platform/}" ] || echo "#error own $name" | tee "$own/$name" >"$own/${name#platform/}"
    printf '#include <%s>\n' "ipsec-helpers/$name" >>"$own/all.cpp"
  done
  # shellcheck disable=SC2046  # the flags are words
  "$1" -std=c++20 -I"$own" -I"$prefix/include" -E -o /dev/null "$own/all.cpp" $(pkg-config --cflags ipsechelpers)
}

# header_examples COMPILER STANDARD HEADER...
header_examples() {
  local flags
  flags=$(pkg-config --cflags --libs ipsechelpers) && python3 examples.py "${@:3}" >"$work/examples.inc" || return 1
  # shellcheck disable=SC2086  # the flags are words
  "$1" -std=c++"$2" "${warnings[@]}" -I"$work" examples.cpp -o "$work/examples" $flags &&
    LD_LIBRARY_PATH=$libraries "$work/examples"
}

# broken_example COMPILER EDIT MESSAGE: with a header that is broken by the edit, the check of the examples must fail
# with the message, or its success proves nothing.
broken_example() {
  mkdir -p "$work/broken"
  sed "$2" "$include/Ipsec.h" >"$work/broken/Ipsec.h"
  ! header_examples "$1" 17 "$work/broken/Ipsec.h" && grep -q "$3" "$work/log"
}

# page_holds PAGE: builds and runs the program of a page by the page's own commands; it must print what the page says.
page_holds() {
  python3 page.py --program "$1" >"$work/tour.cpp" && python3 page.py --output "$1" >"$work/expected" &&
    python3 page.py --commands "$1" >"$work/commands" || return 1
  (cd "$work" && sh -e commands) >"$work/printed" && diff "$work/expected" "$work/printed"
}

# A page whose program prints something else must be refused, or the check proves nothing.
page_that_lies() {
  sed 's/{ENCR_AES_GCM_16, 256}/{ENCR_AES_GCM_16, 128}/' ../../README.md >"$work/lie.md"
  ! page_holds "$work/lie.md" && grep -q '^> 136 bytes of keys' "$work/log"
}

# A header that casts in the old style must be refused, or the checks above prove nothing.
warning_is_seen() {
  rm -rf "$work/spoilt"
  cp -r "$include" "$work/spoilt"
  echo 'inline int spoilt(double value) { return (int)value; }' >>"$work/spoilt/Ipsec.h"
  ! alone "$1" "$2" "$work/spoilt" Ipsec.h && grep -q 'old-style' "$work/log"
}

# What an earlier version had and this one has not goes when this one is installed. What somebody else put there stays,
# and so does every file if the list leads out of the prefix.
removal() {
  local list=share/ipsec-helpers/installed-files
  touch "$libraries/foreign" "$include/Earlier.h" "$work/outside"
  (cat "$prefix/$list"; echo include/ipsec-helpers/Earlier.h) | LC_ALL=C sort >"$work/earlier"
  cp "$work/earlier" "$prefix/$list"
  "$tools/install.sh" add "$build" "$prefix" && [ ! -e "$include/Earlier.h" ] || return 1
  cp -r "$prefix" "$work/wrong"
  echo ../outside >"$work/wrong/$list"
  ! "$tools/install.sh" remove "$work/wrong" && [ -e "$work/outside" ] || return 1
  "$tools/install.sh" remove "$prefix" && [ "$(find "$prefix" -type f)" = "$libraries/foreign" ] &&
    ! "$tools/install.sh" remove "$prefix"
}

# The example finds the library by the same prefix.
example() {
  cmake -G Ninja -S ../../examples/exchange -B "$work/example" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_TYPE=Debug &&
    cmake --build "$work/example" && "$work/example/exchange-demo" --group 19
}

check_compiler() {
  local compiler=$1 standard header
  for standard in 17 20; do
    local text="$compiler, C++$standard"
    expect "$text: the consumer with CMake" with_cmake "$compiler" "$standard"
    expect "$text: the consumer with pkg-config" with_pkg_config "$compiler" "$standard"
    for header in "${headers[@]}"; do
      expect "$text: $header alone" alone "$compiler" "$standard" "$include" "$header"
    done
    expect "$text: a warning in a header is an error" warning_is_seen "$compiler" "$standard"
    expect "$text: the examples of the headers" header_examples "$compiler" "$standard" "$include/Ipsec.h" \
      "$include/IpsecDaemon.h"
  done
  expect "$compiler: a program with its own folder platform/" own_platform_folder "$compiler"
  expect "$compiler: an example that does not compile is an error" broken_example "$compiler" \
    's|^//     NonceGenerator |//     NoSuchGenerator |' 'Ipsec.h:[0-9]*:.*NoSuchGenerator'
  expect "$compiler: an example that does not hold is an error" broken_example "$compiler" \
    's|^//\(     .*\) == 36;|//\1 == 37;|' 'the example of getEncryptKeyLen in Ipsec.h does not hold'
  expect "$compiler: a class without an example is an error" broken_example "$compiler" \
    '\|^// Example:$|d' 'class IpsecDH has no example'
}

if ! expect 'installation' "$tools/install.sh" add "$build" "$prefix"; then
  echo "$passed passed, $failed failed"
  exit 1
fi
include=$prefix/include/ipsec-helpers
pkg_config_file=$(find "$prefix" -name ipsechelpers.pc)
libraries=$(dirname "$(dirname "$pkg_config_file")")
export PKG_CONFIG_PATH=$libraries/pkgconfig
mapfile -t headers < <(cd "$include" && find . -name '*.h' -printf '%P\n' | sort)
expect 'the three public headers and eight of the platform are installed' test "${headers[*]}" = \
  "Ipsec.h IpsecDaemon.h IpsecVersion.h platform/AgentTypes.h platform/CryptoShim.h platform/CryptoTypes.h \
platform/Framework.h platform/Log.h platform/Process.h platform/Trace.h platform/Vrf.h"
expect 'the key exchange example on its own' example

skipped=0
if unshare --map-root-user --mount true 2>/dev/null; then
  expect 'the program of the README prints what the README says' page_holds ../../README.md
  expect 'a README whose program prints something else is an error' page_that_lies
else
  echo "SKIPPED: this machine allows no private mount namespace; the program of the README was not run." >&2
  skipped=$((skipped + 1))
fi
for compiler in g++ clang++; do
  if command -v "$compiler" >/dev/null; then
    check_compiler "$compiler"
  else
    echo "SKIPPED: there is no $compiler on this machine; nothing was built with it." >&2
    skipped=$((skipped + 1))
  fi
done
expect 'removal' removal
if [ "$skipped" -ne 0 ] && [ -n "${CI:-}" ]; then
  echo "FAILED: CI is set, and nothing may be skipped there." >&2
  failed=$((failed + skipped))
fi
echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
