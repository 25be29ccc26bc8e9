# SPDX-License-Identifier: GPL-2.0-or-later
"""Writes the bill of materials of a release's files to standard output, as SPDX 2.3: sbom.py VERSION FILE..."""
import datetime, hashlib, json, os, re, subprocess, sys, urllib.parse, uuid

# What is linked into each file: the package that it comes from, its licence.
COMPANION = {"libcli11-dev": "BSD-3-Clause"}
COMPILER = subprocess.run(["g++", "-dumpversion"], check=True, capture_output=True, text=True).stdout.strip()
RUNTIME = "GPL-3.0-or-later WITH GCC-exception-3.1"
STATIC = COMPANION | {"ntfs-3g-dev": "GPL-2.0-or-later", "zlib1g-dev": "Zlib", "libzstd-dev": "BSD-3-Clause OR GPL-2.0-only",
                      "libxxhash-dev": "BSD-2-Clause", "libc6-dev": "LGPL-2.1-or-later", "libstdc++-%s-dev" % COMPILER: RUNTIME}
WINDOWS = {"mingw-w64-x86-64-dev": "ZPL-2.1", "gcc-mingw-w64-x86-64-win32": RUNTIME}


def linked_into(file):
    return STATIC if "-static" in file else WINDOWS if "-windows" in file else COMPANION if file.endswith(".deb") else {}


def identifier(text): return "SPDXRef-" + re.sub(r"[^A-Za-z0-9.]", "-", text)


def package(name, version, licence, **more):
    return {"SPDXID": identifier(name), "name": name, "versionInfo": version, "downloadLocation": "NOASSERTION",
            "filesAnalyzed": False, "licenseConcluded": licence, "licenseDeclared": licence,
            "copyrightText": "NOASSERTION", **more}


def relation(first, kind, second):
    return {"spdxElementId": first, "relationshipType": kind, "relatedSpdxElement": second}


version, files = sys.argv[1], sorted(sys.argv[2:])
packages, relations, needed = [], [], {}
for file in files:
    with open(file, "rb") as f: digest = hashlib.sha256(f.read()).hexdigest()
    packages.append(package(file, version, "GPL-2.0-or-later", packageFileName=file,
                            checksums=[{"algorithm": "SHA256", "checksumValue": digest}]))
    relations.append(relation("SPDXRef-DOCUMENT", "DESCRIBES", identifier(file)))
    needed |= linked_into(file)
    relations += [relation(identifier(file), "STATIC_LINK", identifier(part)) for part in linked_into(file)]
for part, licence in sorted(needed.items()):
    found = subprocess.run(["dpkg-query", "-W", "-f", "${Version}", part], check=True, capture_output=True, text=True).stdout
    locator = {"referenceCategory": "PACKAGE-MANAGER", "referenceType": "purl",
               "referenceLocator": "pkg:deb/debian/%s@%s" % (urllib.parse.quote(part), urllib.parse.quote(found))}
    packages.append(package(part, found, licence, externalRefs=[locator]))
made = datetime.datetime.fromtimestamp(int(os.environ["SOURCE_DATE_EPOCH"]), datetime.timezone.utc)
document = {
    "spdxVersion": "SPDX-2.3", "dataLicense": "CC0-1.0", "SPDXID": "SPDXRef-DOCUMENT", "name": "quillet-" + version,
    "documentNamespace": "urn:uuid:%s" % uuid.uuid5(uuid.NAMESPACE_OID, json.dumps(packages)),
    "creationInfo": {"created": made.strftime("%Y-%m-%dT%H:%M:%SZ"), "creators": ["Tool: quillet-release"]},
    "packages": packages, "relationships": relations}
json.dump(document, sys.stdout, indent=2)
print()
