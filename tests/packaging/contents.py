#!/usr/bin/env python3
"""Compares the packages with the README's table of them: each package has a row, each of its files
is named there, and whatever is named there is in the packages of both architectures, and of those
with 64-bit times.

  contents.py PACKAGES

What every package has, copyright and changelogs, is left out.
"""

import re
import subprocess
import sys
from fnmatch import fnmatchcase
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
LIBRARY, WIDE_LIBRARY = "libquellon2", "libquellon2t64"

ROW = re.compile(r"^\| `((?:lib)?quellon[\w-]*)` \| .* \| (.*) \|$", re.M)
SPAN = re.compile(r"`([^`]+)`")
LISTED = re.compile(r"^[-l]\S+ +\S+ +\d+ \S+ \S+ \.(/.*?)(?: -> .*)?$", re.M)


def main(folder: Path) -> int:
    rows = {name: SPAN.findall(cell) for name, cell in
            ROW.findall((ROOT / "README.md").read_text())}
    packages = sorted(folder.glob("**/*.deb"))
    found = [line for package in packages for line in differences(package, rows)]
    found += [f"{name}: in the README, or there, but not both"
              for name in sorted(expected(rows) ^ {told(package, folder) for package in packages})]
    print("\n".join(found) or f"{len(packages)} packages, as in the README")
    return 1 if found or not packages else 0


def told(package: Path, folder: Path) -> str:
    """Returns the package's path without its version."""
    return re.sub(r"_[^_]*_", "_", str(package.relative_to(folder)))


def expected(rows: dict[str, list[str]]) -> set[str]:
    usual, wide = set(rows) - {WIDE_LIBRARY}, set(rows) - {LIBRARY}
    return ({f"{name}_{architecture}.deb" for name in usual for architecture in ("amd64", "armhf")}
            | {f"time64/{name}_armhf.deb" for name in wide})


def differences(package: Path, rows: dict[str, list[str]]) -> list[str]:
    name = package.name.partition("_")[0]
    own = re.compile(rf"/usr/share/doc/{name}/(copyright|changelog(\.Debian)?\.gz)")
    listing = subprocess.run(["dpkg-deb", "--contents", package], text=True, capture_output=True,
                             check=True).stdout
    files = [file for file in LISTED.findall(listing) if not own.fullmatch(file)]
    patterns = rows.get(name, [])
    return ([f"{package.name}: the README does not name {file}" for file in files
             if not any(fnmatchcase(file, pattern) for pattern in patterns)] +
            [f"{package.name}: there is no {pattern}" for pattern in patterns
             if not any(fnmatchcase(file, pattern) for file in files)])


if __name__ == "__main__":
    sys.exit(main(Path(sys.argv[1])))
