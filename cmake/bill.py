#!/usr/bin/env python3
"""Writes the bill of materials of something that was linked, as SPDX 2.3, and the notices that go with it.

    bill.py PROGRAM OUT.spdx.json --map FILE.map [--notice NOTICE]    a board's image, by the archives in its link map
    bill.py PROGRAM OUT.spdx.json [--uses PATH...]                    a program of this machine, by its libraries;
                                                                      --uses: places of libraries that are headers alone

What a program is made of is asked of the linker's own output, and who owns a file of the package manager. A package
whose licence is not in the table below stops the build: somebody has to read it first. So do two licences that cannot
meet in one program.
"""
import argparse
import hashlib
import json
import os
import re
import subprocess
import sys
import time

# As read in /usr/share/doc/PACKAGE/copyright. Versions in names are left out: libpng16-16 is libpng.
GCC = "GPL-3.0-or-later WITH GCC-exception-3.1"
LICENCES = {
    "libc": "LGPL-2.1-or-later",
    "libchafa": "LGPL-3.0-or-later",
    "libcli11-dev": "BSD-3-Clause",
    "libdw": "LGPL-3.0-or-later OR GPL-2.0-or-later",
    "libelf": "LGPL-3.0-or-later OR GPL-2.0-or-later",
    "libfmt": "MIT",
    "libgcc-s": GCC,
    "libgif": "MIT",
    "libglib": "LGPL-2.1-or-later",
    # Most of it is under later versions as well, the vector routines of the emulated processor are not.
    "libunicorn": "GPL-2.0-only",
    "libpng": "libpng-2.0",
    "libstdc++": GCC,
    "zlib": "Zlib",
    "nlohmann-json3-dev": "MIT",
    "gcc-arm-none-eabi": GCC,
    "libnewlib-arm-none-eabi": "LicenseRef-newlib",
}


def output_of(*words):
    return subprocess.run(words, check=True, capture_output=True, text=True).stdout


def licence_of(package):
    for name in (package, re.sub(r"[-.0-9]*$", "", package)):
        if name in LICENCES:
            return LICENCES[name]
    sys.exit(f"{package}: its licence is not in cmake/bill.py; read /usr/share/doc/{package}/copyright")


def owner_of(file):
    """The package of a file, and its version. Library folders exist under two names: packages know one of them."""
    real = os.path.realpath(file)
    for name in (real, real.removeprefix("/usr")):
        found = subprocess.run(["dpkg-query", "-S", name], capture_output=True, text=True)
        if found.returncode == 0:
            package = found.stdout.split(":")[0].split(",")[0]
            version = output_of("dpkg-query", "-W", "-f", "${Version}\n", package).split("\n")[0]
            return package, version
    sys.exit(f"{file}: no package owns it")


def archives_of(link_map):
    """Archives of the system that gave the image a member."""
    with open(link_map, encoding="utf-8") as lines:
        return {found[1] for found in (re.match(r"^ ?(/\S+\.a)\(", line) for line in lines) if found}


def libraries_of(program):
    needed = set(re.findall(r"\(NEEDED\).*\[(.+)\]", output_of("readelf", "-d", program)))
    return {place for name, place in re.findall(r"^\s*(\S+) => (\S+)", output_of("ldd", program), re.MULTILINE)
            if name in needed}


def sum_of(file):
    with open(file, "rb") as content:
        return hashlib.sha256(content.read()).hexdigest()


def package_record(name, version, licence, **more):
    return {"SPDXID": "SPDXRef-" + re.sub(r"[^A-Za-z0-9.-]", "-", name), "name": name, "versionInfo": version,
            "downloadLocation": "NOASSERTION", "filesAnalyzed": False, "licenseConcluded": licence,
            "licenseDeclared": licence, "copyrightText": "NOASSERTION", **more}


def licence_of_all(packages):
    """What a program may be passed on under, its own code being under the ISC licence."""
    strict = [package for package, _ in packages if licence_of(package) == "GPL-2.0-only"]
    if not strict:
        return "ISC"
    for package, _ in packages:
        if re.match(r"L?GPL-3[^ ]*$", licence_of(package)):
            sys.exit(f"{package} ({licence_of(package)}) and {strict[0]} (GPL-2.0-only) cannot meet in one program")
    return "GPL-2.0-only"


def bill(program, packages, linkage, moment, revision):
    digest = sum_of(program)
    name = os.path.basename(program)
    ours = package_record(name, revision, "ISC", checksums=[{"algorithm": "SHA256", "checksumValue": digest}])
    ours["licenseConcluded"] = licence_of_all(packages)
    theirs = [package_record(package, version, licence_of(package), externalRefs=[{
        "referenceCategory": "PACKAGE-MANAGER", "referenceType": "purl",
        "referenceLocator": f"pkg:deb/debian/{package}@{version}"}]) for package, version in packages]
    document = {
        "spdxVersion": "SPDX-2.3", "dataLicense": "CC0-1.0", "SPDXID": "SPDXRef-DOCUMENT", "name": name,
        "documentNamespace": f"urn:sha256:{digest}",
        "creationInfo": {"created": time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(moment)),
                         "creators": ["Tool: cmake/bill.py"]},
        "packages": [ours, *theirs],
        "relationships": [
            {"spdxElementId": "SPDXRef-DOCUMENT", "relationshipType": "DESCRIBES",
             "relatedSpdxElement": ours["SPDXID"]},
            *({"spdxElementId": ours["SPDXID"], "relationshipType": linkage,
               "relatedSpdxElement": each["SPDXID"]} for each in theirs)],
    }
    if any(each["licenseDeclared"] == "LicenseRef-newlib" for each in theirs):
        document["hasExtractedLicensingInfos"] = [{"licenseId": "LicenseRef-newlib", "name": "notices of newlib",
                                                   "extractedText": copyright_of("libnewlib-arm-none-eabi")}]
    return document


def copyright_of(package):
    with open(f"/usr/share/doc/{package}/copyright", encoding="utf-8") as text:
        return text.read()


def notice(packages):
    text = ["This image contains parts of the packages below, of Debian. The rest of it is under the ISC licence.\n"]
    for package, version in packages:
        text.append(f"\n{package} {version}: {licence_of(package)}\n")
        if licence_of(package) == GCC:
            text.append("Its run-time exception allows this image under any terms.\n")
        else:
            text.append("\n" + copyright_of(package))
    return "".join(text)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("program")
    parser.add_argument("out")
    parser.add_argument("--map")
    parser.add_argument("--notice")
    parser.add_argument("--record", required=True, help="build_record.h of the program")
    parser.add_argument("--uses", nargs="*", default=[])
    call = parser.parse_args()
    files = archives_of(call.map) if call.map else libraries_of(call.program)
    packages = sorted({owner_of(file) for file in files | set(call.uses)})
    with open(call.record, encoding="utf-8") as record:
        facts = dict(re.findall(r'#define BUILD_RECORD_(\w+) "(.*)"', record.read()))
    moment = time.mktime(time.strptime(facts["BUILD_TIME"] + " UTC", "%Y/%m/%d %H:%M:%S %Z")) - time.timezone
    linkage = "STATIC_LINK" if call.map else "DYNAMIC_LINK"
    document = bill(call.program, packages, linkage, moment, facts["REVISION"])
    with open(call.out, "w", encoding="utf-8") as out:
        json.dump(document, out, indent=1)
        out.write("\n")
    if call.notice:
        with open(call.notice, "w", encoding="utf-8") as out:
            out.write(notice(packages))


main()
