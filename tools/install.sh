#!/usr/bin/env bash
# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0
#
# Installs a build, and removes it again. ./dev install and ./dev uninstall call it.
set -euo pipefail
export LC_ALL=C

# The list has paths within the prefix. It does not name itself.
list=share/ipsec-helpers/installed-files

remove() { # PREFIX PATH...
  local prefix=$1 path folder
  for path in "${@:2}"; do
    case /$path/ in
      */../*) echo "$prefix/$list has a path that leads out of it: $path" >&2 && exit 1 ;;
    esac
    rm -f "$prefix/$path"
    folder=$(dirname "$path")
    while [ "$folder" != . ] && rmdir "$prefix/$folder" 2>/dev/null; do
      folder=$(dirname "$folder")
    done
  done
}

case ${1:-},$# in
  add,3)
    mkdir -p "$3"
    prefix=$(readlink -f "$3")
    cmake --install "$2" --prefix "$prefix"
    sed "s|^$prefix/||" "$2/install_manifest.txt" | sort >"$2/installed-files"
    if [ -e "$prefix/$list" ]; then # an earlier version may have had files that this one has not
      mapfile -t left < <(comm -13 "$2/installed-files" "$prefix/$list")
      remove "$prefix" "${left[@]}"
    fi
    mkdir -p "$prefix/${list%/*}"
    cp "$2/installed-files" "$prefix/$list"
    ;;
  remove,2)
    if [ ! -e "$2/$list" ]; then
      echo "There is no $2/$list: nothing has been installed there with ./dev install." >&2
      exit 1
    fi
    mapfile -t installed <"$2/$list"
    remove "$2" "${installed[@]}" "$list"
    ;;
  *)
    echo "Usage: install.sh add BUILD PREFIX   installs, and keeps the list of what was installed in PREFIX" >&2
    echo "       install.sh remove PREFIX      removes what is on that list, and the folders that are empty then" >&2
    exit 2
    ;;
esac
