#!/usr/bin/env python3
"""Compares what compiled files think of the interface's classes, private fields included.

  layouts.py FILE...

The files are programs, libraries or objects with debugging information. Two sources that were
compiled to different sizes of a class, or offsets of a field, are told.
"""

import re
import subprocess
import sys
from collections import defaultdict
from pathlib import Path

INTERFACE = {"Quellon", "Tarvik", "Ibuffer", "Iubuffer"}  # what lies outside all namespaces, too

ENTRY = re.compile(r" *<(\d+)><[0-9a-f]+>: .*\(DW_TAG_(\w+)\)")
ATTRIBUTE = re.compile(r" *<[0-9a-f]+> +DW_AT_(\w+) *: (?:\([^()]*\):? )*(.*?)\s*$")
MEASURES = {"class_type": "byte_size", "structure_type": "byte_size",
            "member": "data_member_location"}


def main(files: list[str]) -> int:
    found = defaultdict(lambda: defaultdict(set))
    for file in files:
        for name, measure in measures(file):
            found[name][measure].add(Path(file).name)
    for name, variants in found.items():
        if len(variants) > 1:
            print(f"{name}: " + ", ".join(f"{measure} in {' '.join(sorted(where))}"
                                          for measure, where in variants.items()))
    print(f"{len(found)} sizes and offsets compared")
    return 1 if not found or any(len(variants) > 1 for variants in found.values()) else 0


def measures(file: str):
    """Names of classes with their sizes, and of fields with their offsets."""
    for path in entries(file):
        attribute = MEASURES.get(path[-1]["tag"])
        names = [entry.get("name", "") for entry in path]
        if attribute in path[-1] and names[0] in INTERFACE and all(names):
            yield "::".join(names), path[-1][attribute]


def entries(file: str):
    """Each entry of the debugging information, after those that it lies within."""
    path = []
    listing = subprocess.run(["readelf", "--debug-dump=info", "--wide", file], text=True,
                             capture_output=True, check=True).stdout
    for line in listing.splitlines():
        if entry := ENTRY.match(line):
            if len(path) > 1:
                yield path[1:]  # the first is the source
            del path[int(entry[1]):]
            path.append({"tag": entry[2]})
        elif path and (attribute := ATTRIBUTE.match(line)):
            path[-1][attribute[1]] = attribute[2]


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
