#!/usr/bin/env python3
"""Tells what came of the tests, from ctest's reports in build/results.

  results.py [--minutes STEP SECONDS...] --reports REPORT...

A program of GoogleTest counts with each of its tests; one that had none to run or ended in the
middle of them has failed, whatever its exit status, and so has a report without tests. The last
line is `N passed, N failed`; the exit status is 0 if something passed and nothing failed.
"""

import argparse
import re
import sys
import xml.etree.ElementTree as ET
from collections import Counter
from pathlib import Path

FOLDER = Path(__file__).resolve().parents[1] / "build/results"

PASSED = re.compile(r"^\[  PASSED  \] (\d+) test", re.MULTILINE)
FAILED = re.compile(r"^\[  FAILED  \] (\d+) test", re.MULTILINE)
REASON = re.compile(r": Skipped\n(.*)")
BEGUN = re.compile(r"^\[==========\] Running \d+ test", re.MULTILINE)
ENDED = re.compile(r"^\[==========\] [1-9]\d* tests? from .* ran\.", re.MULTILINE)
SANITIZER = re.compile(r"(?:ERROR|WARNING): \w+Sanitizer: |: runtime error: ")


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--minutes", nargs="*", default=[])
    parser.add_argument("--reports", nargs="+", type=lambda name: FOLDER / name)
    options = parser.parse_args()
    passed, failures, reasons = 0, Counter(), Counter()
    for report in options.reports:
        tests = list(ET.parse(report).iter("testcase"))
        failures.update({} if tests else {f"{report.stem}: no tests": 1})
        for test in tests:
            more, failed, skips = outcome(test)
            passed += more
            failures.update({f"{report.stem}: {test.get('name')}": failed} if failed else {})
            reasons.update(skips)
    show("Skipped", (f"{count:5} {reason}" for reason, count in reasons.items()))
    show("Failed", failures)
    show("Minutes", minutes(options.minutes))
    failed = sum(failures.values())
    print(f"{passed} passed, {failed} failed")
    return 0 if passed and not failed else 1


def outcome(test: ET.Element) -> tuple[int, int, list[str]]:
    """How many tests passed and failed in this one, and the reasons of those that were skipped."""
    output = test.findtext("system-out") or ""
    skipped = test.find("skipped")
    if test.get("status") == "disabled":
        return 0, 0, ["disabled"]
    # What skips by its words may have a leak at its end all the same.
    if (skipped is not None and skipped.get("message", "").startswith("SKIP_")
            and not SANITIZER.search(output)):
        # The reason is on the line after GoogleTest's, or on the last one.
        lines = output.split("\n")
        return 0, 0, REASON.findall(output)[:1] or [line for line in lines if line.strip()][-1:]
    # A test that could not be started is reported as a skipped one, too.
    bad = (skipped is not None or test.find("failure") is not None
           or (BEGUN.search(output) and not ENDED.search(output)))
    passed, failed = (sum(map(int, pattern.findall(output)[-1:])) for pattern in (PASSED, FAILED))
    if bad:
        return passed, max(failed, 1), REASON.findall(output)
    return max(passed, 0 if REASON.search(output) else 1), 0, REASON.findall(output)


def minutes(steps: list[str]):
    seconds = list(map(int, steps[1::2]))
    for step, took in [*zip(steps[::2], seconds), ("in all", sum(seconds))] if steps else []:
        yield f"{took // 60:3}:{took % 60:02} {step}"


def show(heading: str, lines):
    lines = list(lines)
    if lines:
        print(f"== {heading}", *(f"   {line}" for line in lines), sep="\n")


if __name__ == "__main__":
    sys.exit(main())
