#!/usr/bin/python3
"""Compares the bills of materials of a build with their schemas, with each other and with what the
programs and libraries need.

  bills.py BUILD

The schemas are those of SPDX 2.3 and CycloneDX 1.6, reduced to what is used here. What must be
refused is tried each time, so that silence means something.
"""

import copy
import json
import re
import subprocess
import sys
from pathlib import Path

import jsonschema

ROOT = Path(__file__).resolve().parents[2]
BUILT = ["libTarvik.so", "libQuellon.so", "examples/recorder/quellon-recorder",
         "tools/quellon/quellon"]
OF_EVERY_SYSTEM = {"echo", "ls", "reboot"}

NEEDED = re.compile(r"\(NEEDED\).*\[(.*)\]")
COMMANDS = re.compile(r"^\| commands \| (.*) \|$", re.M)


def main(build: Path) -> int:
    spdx, cdx = (json.loads((build / f"packaging/sbom/quellon.{kind}.json").read_text())
                 for kind in ("spdx", "cdx"))
    found = [*refused("spdx", spdx), *refused("cdx", cdx), *references(spdx, cdx)]
    found += wrong_ones_pass(spdx, cdx)
    if parts_of_spdx(spdx) != parts_of_cdx(cdx):
        found.append(f"they differ: {parts_of_spdx(spdx)} and {parts_of_cdx(cdx)}")
    text = " ".join(part["summary"] for part in spdx["packages"])
    told = set(re.findall(r"[\w+.-]+", text.replace(":", " ")))
    needed = {name for file in BUILT for name in needed_by(build / file)}
    found += [f"nobody tells of {name}" for name in sorted((needed | commands()) - told)]
    contact = cdx["metadata"]["supplier"]["contact"][0]["email"]
    if not all(contact in name for name in (spdx["packages"][0]["supplier"],
                                            spdx["creationInfo"]["creators"][0])):
        found.append("they name different contacts")
    if spdx["packages"][0]["versionInfo"] != (ROOT / "VERSION").read_text().strip():
        found.append("the version is not the project's")
    if spdx["hasExtractedLicensingInfos"][0]["extractedText"] != (ROOT / "LICENSE").read_text():
        found.append("the licence is not LICENSE")
    print("\n".join(found) or f"{len(spdx['packages'])} parts, and what they need")
    return 1 if found else 0


def refused(kind: str, bill: dict) -> list[str]:
    schema = json.loads((ROOT / f"tests/packaging/schemas/{kind}.json").read_text())
    return [f"{kind}: {'/'.join(map(str, error.path))}: {error.message}"
            for error in jsonschema.Draft7Validator(schema).iter_errors(bill)]


def references(spdx: dict, cdx: dict) -> list[str]:
    """What is referred to and is not there, and parts that nothing leads to."""
    parts = {part["SPDXID"] for part in spdx["packages"]}
    ends = {relation[end] for relation in spdx["relationships"]
            for end in ("spdxElementId", "relatedSpdxElement")} - {"SPDXRef-DOCUMENT"}
    licenses = set(re.findall(r"LicenseRef-[\w.-]+", json.dumps(spdx["packages"])))
    given = {info["licenseId"] for info in spdx["hasExtractedLicensingInfos"]}
    known = {part["bom-ref"] for part in [cdx["metadata"]["component"], *cdx["components"]]}
    nodes = {node["ref"] for node in cdx["dependencies"]}
    used = {name for node in cdx["dependencies"] for name in node.get("dependsOn", [])}
    return [f"not the same: {sorted(a)} and {sorted(b)}"
            for a, b in ((parts, ends), (licenses, given), (known, nodes),
                         (known - {"quellon"}, used)) if a != b]


def parts_of_spdx(bill: dict) -> list[tuple]:
    return sorted((part["name"], part["versionInfo"], part["summary"],
                   part["externalRefs"][0]["referenceLocator"]) for part in bill["packages"])


def parts_of_cdx(bill: dict) -> list[tuple]:
    return sorted((part["name"], part["version"], part["description"],
                   part.get("purl") or part["cpe"])
                  for part in [bill["metadata"]["component"], *bill["components"]])


def needed_by(file: Path) -> set[str]:
    """The libraries that a program names, but the loader, which is the C library's."""
    output = subprocess.run(["readelf", "--dynamic", file], text=True, capture_output=True,
                            check=True).stdout
    names = {name for name in NEEDED.findall(output) if not name.startswith("ld-linux")}
    if not names:
        raise ValueError(f"{file} needs nothing: this tests nothing")
    return names


def commands() -> set[str]:
    """The programs that the library calls, as the page of operations lists them."""
    row = COMMANDS.search((ROOT / "docs/operations.md").read_text())[1]
    called = {part.split()[0] for span in re.findall(r"`([^`]+)`", row)
              for part in span.split(r"\|") if not span.startswith("-")}
    return called - OF_EVERY_SYSTEM


def wrong_ones_pass(spdx: dict, cdx: dict) -> list[str]:
    def without(bill, *path):
        changed = at = copy.deepcopy(bill)
        for step in path[:-1]:
            at = at[step]
        del at[path[-1]]
        return changed

    def more(bill, **members):
        return {**copy.deepcopy(bill), **members}

    wrong = [("spdx", without(spdx, "creationInfo", "created")),
             ("spdx", without(spdx, "packages", 0, "supplier")),
             ("spdx", more(spdx, spdxVersion="SPDX-2.2")), ("spdx", more(spdx, comments="x")),
             ("cdx", without(cdx, "metadata", "component", "version")),
             ("cdx", more(cdx, serialNumber="1")), ("cdx", more(cdx, parts=[]))]
    dangling = (without(spdx, "packages", 1), without(cdx, "components", 1))
    found = [f"not refused: {kind} without or with more of something"
             for kind, bill in wrong if not refused(kind, bill)]
    return found if references(*dangling) else [*found, "not refused: references to nothing"]


if __name__ == "__main__":
    sys.exit(main(Path(sys.argv[1])))
