#!/usr/bin/env python3
# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0
"""Shows what of the library works with OpenSSL's FIPS provider alone, and compares it with the table in docs/groups.md.

Usage: fips.py check PROBE
       fips.py renew PROBE    rewrites the table

PROBE is examples/provider-probe. Returns 77 where this OpenSSL has no FIPS provider.
"""

import os
import pathlib
import re
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parent.parent
PAGE = ROOT / "docs" / "groups.md"
TABLE = re.compile(r"(<!-- begin: \./dev fips -->\n)(.*?)(<!-- end -->)", re.S)

# The base provider has no algorithms of its own but the encodings of keys.
CONFIGURATION = """\
config_diagnostics = 1
openssl_conf = init
.include {settings}
[init]
providers = providers
alg_section = algorithms
[providers]
fips = fips_sect
base = base_sect
[base_sect]
activate = 1
[algorithms]
default_properties = fips=yes
"""


def fips_module():
    """Returns the path of the provider, or None."""
    told = subprocess.run(["openssl", "version", "-m"], capture_output=True, text=True, check=True).stdout
    module = pathlib.Path(re.search(r'"(.*)"', told)[1], "fips.so")
    return module if module.exists() else None


def probed(module, probe):
    """Runs the probe with the FIPS provider, whose self-tests run first. Returns what it says."""
    with tempfile.TemporaryDirectory() as folder:
        settings = pathlib.Path(folder, "fipsmodule.cnf")
        subprocess.run(
            ["openssl", "fipsinstall", "-module", module, "-out", settings], check=True, capture_output=True, text=True
        )
        configuration = pathlib.Path(folder, "openssl.cnf")
        configuration.write_text(CONFIGURATION.format(settings=settings))
        return subprocess.run(
            [probe],
            check=True,
            stdout=subprocess.PIPE,
            stderr=subprocess.DEVNULL,  # the lines are in the table
            text=True,
            env={**os.environ, "OPENSSL_CONF": str(configuration)},
        ).stdout


def main():
    if len(sys.argv) != 3 or sys.argv[1] not in ("check", "renew"):
        sys.exit(__doc__)
    module = fips_module()
    if module is None:
        print("NOT CHECKED: OpenSSL has no FIPS provider here. Debian 12 ships none; Debian 13 has", end=" ")
        print("the package openssl-provider-fips.", file=sys.stdout)
        return 77
    said = probed(module, sys.argv[2])
    print(said)
    heading, table = said.split("\n", 1)
    table += "\n"
    if " fips" not in heading or " default" in heading:
        sys.exit("the probe did not run with the FIPS provider alone")
    page = PAGE.read_text()
    if sys.argv[1] == "renew":
        PAGE.write_text(TABLE.sub(lambda found: found[1] + table + found[3], page))
        return 0
    if table != TABLE.search(page)[2]:
        print(f"{PAGE.relative_to(ROOT)} has another table: ./dev fips renew", file=sys.stderr)
        return 1
    print("docs/groups.md has the same table.")
    return 0


if __name__ == "__main__":
    sys.exit(main())
