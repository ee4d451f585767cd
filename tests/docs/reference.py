#!/usr/bin/env python3
"""Looks for the interface in the API reference: the search knows each class, function and type that
an installed header declares, and leads to a page with the line that includes that header.

  reference.py REFERENCE_FOLDER
"""

import html
import re
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]

FOLDERS = ["base", "DiskUtils", "FileUtils", "RTC", "SysUtil", "Testing", "Watchdog"]
DECLARATION = re.compile(
    r"^(?:(?:class|struct|enum) (?:QUELLON_[A-Z_]+(?:\([^)]*\))? )?(\w+)[^;{]*\{"
    r"|QUELLON_EXPORT [^;(]*?(\w+)\("
    r"|using (\w+) =)", re.MULTILINE)
FOUND = re.compile(r"^  \['\w+',\['([^']+)',(.*)\]\],?$", re.MULTILINE)
PAGE = re.compile(r"\['\.\./([^'#]+)")
TAG = re.compile(r"<[^>]*>")


def main(reference: Path) -> int:
    search = search_of(reference)
    complaints = []
    installed = [path for folder in FOLDERS for path in sorted((ROOT / folder).glob("*.h"))]
    names = [(str(header.relative_to(ROOT)), name) for header in installed
             for name in declared_in(header.read_text())]
    for header, name in names:
        pages = search.get(name, [])
        if not pages:
            complaints.append(f"{header}: {name} is not found")
        elif not any(f'#include "{header}"' in text_of(reference / page) for page in pages):
            complaints.append(f"{header}: the page of {name} does not tell to include it")
    print("\n".join(complaints) or f"{len(names)} names of the interface are found")
    return 1 if complaints or not names else 0


def declared_in(header: str) -> list[str]:
    return ["".join(name) for name in DECLARATION.findall(header)]


def search_of(reference: Path) -> dict[str, list[str]]:
    """What the search finds under a name: pages."""
    index = "".join(path.read_text() for path in sorted((reference / "search").glob("all_*.js")))
    return {name: PAGE.findall(targets) for name, targets in FOUND.findall(index)}


def text_of(page: Path) -> str:
    return html.unescape(TAG.sub("", page.read_text()))


if __name__ == "__main__":
    sys.exit(main(Path(sys.argv[1])))
