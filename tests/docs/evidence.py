#!/usr/bin/env python3
"""Looks for what the pages on security name: each row of a table whose heading has "shown by" names
tests that exist, and its column "met by" files that exist.

  evidence.py

A test is `Suite.Name` of GoogleTest, also with `*`, a suite, a fuzz target, or a test of ctest. Of
the requirements of Annex I of the Cyber Resilience Act each has a row, and what these leave to
SECURITY.md has its section there.
"""

import re
import sys
from fnmatch import fnmatchcase
from functools import cache
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
PAGES = ["SECURITY.md", "docs/cra.md"]
REQUIREMENTS = ["I (1)", *(f"I (2)({letter})" for letter in "abcdefghijklm"),
                *(f"II ({number})" for number in range(1, 9))]
POLICY = ["Reporting a weakness", "What is supported", "How a fix reaches devices"]
FEWEST = 40  # tests and files

TEST = re.compile(r"^(?:TYPED_)?TEST(?:_[FP])?\((\w+),\s*(\w+)\)", re.M)
TABLE = re.compile(r"^\| (.*) \|\n\|[-|]+\|\n((?:\|.*\n)+)", re.M)
SPAN = re.compile(r"`([^`]+)`")
WRONG = """| claim | met by | shown by |
|---|---|---|
| a | `docs/none.md` | `File.DoesNothing` |
| b | | `Fil*.RemoveTakesNothing*` |
| c | | `package.nothing`, `board.s99_nothing`, `nothing` |
"""


def main() -> int:
    found, looked_at = [], 0
    for page in PAGES:
        missing, names = complaints((ROOT / page).read_text())
        found += [f"{page}: there is no {name}" for name in missing]
        looked_at += names
    if complaints(WRONG)[0] != ["docs/none.md", "File.DoesNothing", "Fil*.RemoveTakesNothing*",
                                "package.nothing", "board.s99_nothing", "nothing"]:
        found.append(f"not complained of: {WRONG}")
    rows = re.findall(r"^\| (I+ [^ |]+) ", (ROOT / "docs/cra.md").read_text(), re.M)
    if rows != REQUIREMENTS:
        found.append(f"docs/cra.md: not each requirement has its row: {rows}")
    sections = dict(re.findall(r"^## (.*)\n\n(.)", (ROOT / "SECURITY.md").read_text(), re.M))
    found += [f"SECURITY.md: nothing under {title}" for title in POLICY if title not in sections]
    if looked_at < FEWEST:
        found.append(f"only {looked_at} names found")
    print("\n".join(found) or f"{looked_at} tests and files, all there")
    return 1 if found else 0


def complaints(text: str) -> tuple[list[str], int]:
    missing, names = [], 0
    for heading, rows in TABLE.findall(text):
        titles = heading.split(" | ")
        for row in rows.splitlines():
            cells = dict(zip(titles, (cell.strip() for cell in row.strip("|").split("|"))))
            files, tests = (SPAN.findall(cells.get(title, "")) for title in ("met by", "shown by"))
            missing += [name for name in files if not any(ROOT.glob(name))]
            missing += [name for name in tests if not is_test(name)]
            names += len(files) + len(tests)
    return missing, names


def is_test(name: str) -> bool:
    if any(fnmatchcase(f"{suite}.{case}", name) or suite == name for suite, case in tests()):
        return True
    kind, _, rest = name.partition(".")
    if kind == "board":
        return (ROOT / f"board/scenarios/{rest}.py").is_file()
    if kind in ("docs", "package"):
        return bool(re.search(rf"\b{rest}(?![a-z])", registered(kind))) and bool(rest)
    return bool(re.search(rf"_test\({name} |^ *{name}\b", registered("scripts"), re.M)) or (
        ROOT / f"tests/fuzz/{name}.cpp").is_file()


@cache
def tests() -> list[tuple[str, str]]:
    return [test for folder in ("tests/unit", "tests/card")
            for path in sorted((ROOT / folder).glob("*.cpp"))
            for test in TEST.findall(path.read_text())]


@cache
def registered(kind: str) -> str:
    """The text in which ctest's tests of a kind are named."""
    folders = {"docs": ["tests/docs"], "package": ["tests/packaging", "packaging/abi"],
               "scripts": ["scripts"]}[kind]
    return "\n".join((ROOT / folder / "CMakeLists.txt").read_text() for folder in folders)


if __name__ == "__main__":
    sys.exit(main())
