#!/usr/bin/env python3
"""Prints what is in our Debian packages and what they need: a bill of materials in CycloneDX 1.6 (JSON).

usage: packaging/sbom.py PACKAGE.deb...

Run it where the packages were built: versions, suppliers and licences are those of the libraries installed there. The
same packages on the same machine give the same bytes. What a package needs only on the appliance, and is not installed
where it was built, has no version.
"""

import hashlib
import pathlib
import re
import subprocess
import sys

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "tools/mkpack"))

from orbamira_mkpack import cyclonedx  # noqa: E402

# What our programs are linked with statically, by the package that has them.
CONTAINED = {"orbamira-common": ("libc.a", "libstdc++.a"), "orbamira-tools": ("CLI/CLI.hpp",)}


def output_of(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout.strip()


def fields_of(deb):
    names = ("Package", "Version", "Maintainer", "Depends", "Recommends", "Description")
    found = {name: output_of("dpkg-deb", "--field", deb, name) for name in names}
    return found | {"file": pathlib.Path(deb), "contents": output_of("dpkg-deb", "--contents", deb)}


def needed_by(package):
    """The packages that it needs: for each need the names of those that fill it, the preferred one first."""
    needs = [need for field in ("Depends", "Recommends") for need in package[field].split(",") if need.strip()]
    return [[re.split(r"[\s(:]", choice.strip())[0] for choice in need.split("|")] for need in needs]


def licences_of(name):
    path = pathlib.Path("/usr/share/doc") / name.partition(":")[0] / "copyright"
    text = path.read_text(errors="replace") if path.is_file() else ""
    found = sorted(set(re.findall(r"^License: *(\S.*?) *$", text, re.MULTILINE)))
    return [{"license": {"name": licence}} for licence in found or [f"see {path}"]]


def installed(name):
    """The component of an installed package; None if it is not installed."""
    shown = subprocess.run(
        ["dpkg-query", "--show", "--showformat=${Status}\t${Version}\t${Maintainer}\n", name],
        check=False,
        capture_output=True,
        text=True,
    ).stdout
    rows = [line.split("\t") for line in shown.splitlines() if line.startswith("install ok installed")]
    if not rows:
        return None
    _, version, maintainer = rows[0]
    return component(name, version, maintainer) | {"licenses": licences_of(name)}


def component(name, version, supplier):
    reference = f"pkg:deb/debian/{name}@{version}"
    return cyclonedx.library(name, version, supplier) | {"bom-ref": reference, "purl": reference}


def needed_component(choices, ours):
    """Ours, or the first that is installed, or else the preferred one."""
    for name in choices:
        found = ours.get(name) or installed(name)
        if found:
            return found
    reference = f"pkg:deb/debian/{choices[0]}"
    return {"type": "library", "bom-ref": reference, "name": choices[0], "purl": reference}


def our_component(package):
    ours = component(package["Package"], package["Version"], package["Maintainer"])
    digest = hashlib.sha256(package["file"].read_bytes()).hexdigest()
    ours.pop("purl")  # no archive has it
    return ours | {
        "description": package["Description"].splitlines()[0],
        "hashes": cyclonedx.sha256(digest),
        "licenses": [{"license": {"name": "see LICENSE"}}],
    }


def owner_of(name):
    """The package of a library or header that the compiler finds."""
    path = pathlib.Path(output_of("c++", f"-print-file-name={name}"))
    if not path.is_absolute():
        path = pathlib.Path("/usr/include") / name
    return output_of("dpkg-query", "--search", path.resolve()).partition(":")[0]


def contained_in(package):
    """Components of others that are part of the package itself."""
    parts = [installed(owner_of(name)) for name in CONTAINED.get(package["Package"], ())]
    bundled = re.search(r"/libcpr\.so\.(\d+\.\d+\.\d+)", package["contents"])
    if bundled:
        parts.append(
            {
                "type": "library",
                "bom-ref": f"libcpr@{bundled[1]}",
                "name": "libcpr",
                "version": bundled[1],
                "licenses": [{"license": {"id": "MIT"}}],
            }
        )
    return parts


def bill(packages):
    ours = {package["Package"]: our_component(package) for package in packages}
    others, graph = {}, {}
    for package in packages:
        parts = contained_in(package)
        parts += [needed_component(choices, ours) for choices in needed_by(package)]
        others |= {part["bom-ref"]: part for part in parts if part["name"] not in ours}
        graph[ours[package["Package"]]["bom-ref"]] = {part["bom-ref"] for part in parts}
    subject = {"type": "application", "name": "orbamira", "version": packages[0]["Version"]}
    return cyclonedx.document(subject, [*ours.values(), *(others[key] for key in sorted(others))], graph)


def main(debs):
    if not debs or debs[0].startswith("-"):
        sys.exit(__doc__)
    packages = sorted((fields_of(deb) for deb in debs), key=lambda package: package["Package"])
    print(bill(packages), end="")


if __name__ == "__main__":
    main(sys.argv[1:])
