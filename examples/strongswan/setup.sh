#!/bin/sh
# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0
#
# Makes the strongSwan daemon of Debian 12 or 13 use the files of ipsec-helpers: setup.sh [remove]. Run it as root,
# before the daemon is started. A second run changes nothing. docs/strongswan.md explains each step.
set -eu
here=$(dirname "$(readlink -f "$0")")
profile=/etc/apparmor.d/usr.lib.ipsec.charon
override=/etc/apparmor.d/local/usr.lib.ipsec.charon

fail() {
  echo "setup.sh: $1" >&2
  exit 1
}

# Loads the profile again, if this kernel has AppArmor and the profile is in force.
reload_profile() {
  [ -e "$profile" ] && [ -e /sys/kernel/security/apparmor/profiles ] || return 0
  [ -e "/etc/apparmor.d/disable/${profile##*/}" ] || apparmor_parser --replace "$profile"
}

add_files() {
  install -d /etc/strongswan/ipsec.d/run
  [ -e /etc/strongswan/ipsec.conf ] || install -m 0644 /dev/null /etc/strongswan/ipsec.conf
  [ -e /etc/strongswan/ipsec.secrets ] || install -m 0600 /dev/null /etc/strongswan/ipsec.secrets
}

# The daemon's pid file is always /run/charon.pid; isSswanRunning follows the link. While no daemon runs it leads
# nowhere, which means "not running".
link_pid_file() {
  ln -sfn /run/charon.pid /etc/strongswan/ipsec.d/run/charon.pid
}

remove_override() {
  [ -e "$override" ] || return 0
  # Written through, and not replaced, so that mode and owner stay.
  rest=$(grep -vxFf "$here/apparmor-charon" "$override" || true)
  printf '%s' "${rest:+$rest
}" >"$override"
}

# Adds the lines to the site's own part of the daemon's profile, and lets AppArmor's parser check the whole.
add_override() {
  [ -e "$profile" ] || return 0
  remove_override
  install -d /etc/apparmor.d/local
  cat "$here/apparmor-charon" >>"$override"
  if command -v apparmor_parser >/dev/null; then
    said=$(apparmor_parser --skip-kernel-load --skip-cache "$profile" 2>&1) ||
      fail "the profile is not valid now: $said"
  fi
}

[ "$(id -u)" -eq 0 ] || fail "run this as root"
if [ "${1:-}" = remove ]; then
  rm -f /etc/strongswan.d/ipsec-helpers.conf /etc/strongswan/ipsec.d/run/charon.pid
  remove_override
  reload_profile
  exit
fi
[ $# -eq 0 ] || fail "usage: setup.sh [remove]"
for program in starter charon stroke; do
  [ -x "/usr/lib/ipsec/$program" ] ||
    fail "there is no /usr/lib/ipsec/$program: install strongswan-starter and strongswan-charon"
done
add_files
install -m 0644 "$here/ipsec-helpers.conf" /etc/strongswan.d/ipsec-helpers.conf
link_pid_file
add_override
reload_profile
