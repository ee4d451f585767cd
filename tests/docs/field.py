#!/usr/bin/env python3
"""Looks for a test of each row of docs/field.md: the row's command and what it prints stand in one
test of the unit or card ring that has the technician's name.
"""

import re
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
TESTS = [ROOT / "tests/unit/Technician_test.cpp", ROOT / "tests/card/Technician_test.cpp"]
FEWEST = 12

ROW = re.compile(r"^\| (.*) \| `quellon (.*)` \| (?:.*: )?`(.*)` \|$", re.M)
CASE = re.compile(r"^TEST_F\(.*?^}", re.M | re.S)


def main() -> int:
    # Literals that follow each other are one.
    tests = [re.sub(r'"\s*"', "", case) for path in TESTS for case in CASE.findall(path.read_text())]
    rows = ROW.findall((ROOT / "docs/field.md").read_text())
    found = [f"no test of the row: {problem}" for problem, command, shown in rows
             if not any(tries(case, command, shown) for case in tests)]
    if len(rows) < FEWEST:
        found.append(f"there are only {len(rows)} rows")
    print("\n".join(found) or f"{len(rows)} rows, each with its test")
    return 1 if found else 0


def tries(case: str, command: str, shown: str) -> bool:
    words = "{" + ", ".join(f'"{word}"' for word in command.split()) + "}"
    return words in case and all(part in case for part in shown.split("…"))


if __name__ == "__main__":
    sys.exit(main())
