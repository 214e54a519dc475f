#!/usr/bin/env python3
# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0
"""Writes the bill of materials of a package, in the JSON form of SPDX 2.3.

Usage: sbom.py --package NAME --version VERSION --folder DIR --out FILE

Lists every file below the folder with its checksums and, for each library or program, what it is linked with and what
has been built into it. The versions are those of the machine that builds. The time is that of SOURCE_DATE_EPOCH: the
same files give the same bill.
"""

import argparse
import datetime
import hashlib
import json
import os
import pathlib
import re
import subprocess
import sys

AUTHORS = "The ipsec-helpers authors"
GCC_LICENCE = "GPL-3.0-or-later WITH GCC-exception-3.1"

# What the files may need besides each other: name, licence, and the command that tells the version.
OPENSSL = ("openssl", "Apache-2.0", "pkg-config --modversion libcrypto")
GLIBC = ("glibc", "LGPL-2.1-or-later", "getconf GNU_LIBC_VERSION")
GCC_RUNTIME = ("gcc", GCC_LICENCE, "g++ -dumpfullversion")
SPDLOG = ("spdlog", "MIT", "pkg-config --modversion spdlog")
FMT = ("fmt", "MIT", "pkg-config --modversion fmt")

NEEDED = {
    "libcrypto.so.3": OPENSSL,
    "libc.so.6": GLIBC,
    "libm.so.6": GLIBC,
    "ld-linux-x86-64.so.2": GLIBC,
    "libstdc++.so.6": GCC_RUNTIME,
    "libgcc_s.so.1": GCC_RUNTIME,
}
OURS = re.compile(r"libipsec(helpers|shim|platform)\.so\.\d+")
# The headers of these are compiled into the stand-in platform. No file of theirs is needed at run time.
BUILT_IN = {"libipsecplatform.so": (SPDLOG, FMT)}


def output(command):
    return subprocess.run(command, capture_output=True, text=True, check=True).stdout


def is_elf(path):
    with open(path, "rb") as file:
        return file.read(4) == b"\x7fELF"


def needed(path):
    """Returns the components that a library or program is linked with."""
    names = re.findall(r"\(NEEDED\).*\[(.*)\]", output(["readelf", "-d", str(path)]))
    unknown = [name for name in names if name not in NEEDED and not OURS.fullmatch(name)]
    if unknown:
        sys.exit(f"sbom: {path} needs {', '.join(unknown)}, which NEEDED in {__file__} does not list")
    return [NEEDED[name] for name in names if name in NEEDED]


def built_in(path):
    return [component for start, those in BUILT_IN.items() if path.name.startswith(start) for component in those]


def file_identity(name):
    """Returns an identifier, which may hold letters, digits, dots and hyphens alone."""
    return f"SPDXRef-File-{hashlib.sha256(name.encode()).hexdigest()[:16]}"


def package_identity(name):
    return f"SPDXRef-Package-{name}"


def licence(components):
    return " AND ".join(sorted({"Apache-2.0", *(component[1] for component in components)}))


def file_entry(path, name):
    content = path.read_bytes()
    elf = is_elf(path)
    licences = licence(built_in(path)) if elf else "Apache-2.0"
    return {
        "SPDXID": file_identity(name),
        "fileName": f"./{name}",
        "fileTypes": ["BINARY" if elf else "TEXT"],
        "checksums": [
            {"algorithm": "SHA1", "checksumValue": hashlib.sha1(content).hexdigest()},
            {"algorithm": "SHA256", "checksumValue": hashlib.sha256(content).hexdigest()},
        ],
        "licenseConcluded": licences,
        "licenseInfoInFiles": ["NOASSERTION"],
        "copyrightText": "NOASSERTION",
    }


def component_entry(component):
    name, licences, command = component
    version = output(command.split()).split()[-1]
    return {
        "SPDXID": package_identity(name),
        "name": name,
        "versionInfo": version,
        "downloadLocation": "NOASSERTION",
        "filesAnalyzed": False,
        "licenseConcluded": licences,
        "licenseDeclared": licences,
        "copyrightText": "NOASSERTION",
        "externalRefs": [
            {
                "referenceCategory": "PACKAGE-MANAGER",
                "referenceType": "purl",
                "referenceLocator": f"pkg:generic/{name}@{version}",
            }
        ],
    }


def package_entry(name, version, files):
    sums = sorted(file["checksums"][0]["checksumValue"] for file in files)
    return {
        "SPDXID": package_identity(name),
        "name": name,
        "versionInfo": version,
        "supplier": f"Organization: {AUTHORS}",
        "downloadLocation": "NOASSERTION",
        "filesAnalyzed": True,
        "packageVerificationCode": {"packageVerificationCodeValue": hashlib.sha1("".join(sums).encode()).hexdigest()},
        "licenseConcluded": "Apache-2.0",
        "licenseDeclared": "Apache-2.0",
        "licenseInfoFromFiles": ["NOASSERTION"],
        "copyrightText": f"Copyright {AUTHORS}",
    }


def relationship(subject, kind, other):
    return {"spdxElementId": subject, "relationshipType": kind, "relatedSpdxElement": other}


def bill(name, version, folder, created, left_out):
    """Returns the whole document. The file that will hold it is left out of it, and so is the package's control."""
    files, components, relations = [], {}, []
    for path in sorted(folder.rglob("*")):
        place = path.relative_to(folder)
        if path.is_symlink() or not path.is_file() or path == left_out or place.parts[0] == "DEBIAN":
            continue
        entry = file_entry(path, place.as_posix())
        files.append(entry)
        links = [("DYNAMIC_LINK", one) for one in needed(path)] if is_elf(path) else []
        links += [("STATIC_LINK", one) for one in built_in(path)] if is_elf(path) else []
        for kind, component in dict.fromkeys(links):
            components[component[0]] = component
            relations.append(relationship(entry["SPDXID"], kind, package_identity(component[0])))
    if not files:
        sys.exit(f"sbom: {folder} holds no file")
    package = package_entry(name, version, files)
    unique = hashlib.sha256(json.dumps([package, files, relations]).encode()).hexdigest()
    contained = [relationship(package["SPDXID"], "CONTAINS", file["SPDXID"]) for file in files]
    return {
        "spdxVersion": "SPDX-2.3",
        "dataLicense": "CC0-1.0",
        "SPDXID": "SPDXRef-DOCUMENT",
        "name": f"{name}-{version}",
        "documentNamespace": f"https://spdx.org/spdxdocs/{name}-{version}-{unique}",
        "creationInfo": {"created": created, "creators": [f"Organization: {AUTHORS}", "Tool: tools/sbom.py"]},
        "packages": [package, *(component_entry(components[key]) for key in sorted(components))],
        "files": files,
        "relationships": [relationship("SPDXRef-DOCUMENT", "DESCRIBES", package["SPDXID"]), *contained, *relations],
    }


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    for option in ("package", "version", "folder", "out"):
        parser.add_argument(f"--{option}", required=True)
    chosen = parser.parse_args()
    if "SOURCE_DATE_EPOCH" not in os.environ:
        sys.exit("sbom: SOURCE_DATE_EPOCH, the time of the bill, is not set")
    time = datetime.datetime.fromtimestamp(int(os.environ["SOURCE_DATE_EPOCH"]), datetime.timezone.utc)
    out = pathlib.Path(chosen.out)
    created = time.strftime("%Y-%m-%dT%H:%M:%SZ")
    document = bill(chosen.package, chosen.version, pathlib.Path(chosen.folder), created, out)
    out.write_text(json.dumps(document, indent=1) + "\n")
    out.chmod(0o644)


if __name__ == "__main__":
    main()
