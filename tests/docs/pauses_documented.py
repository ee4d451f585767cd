#!/usr/bin/env python3
"""Compares the table of retries and pauses of docs/operations.md with the sources.

Fails when a limit or a pause of theirs is missing there, has another value there, or is no longer
theirs, and when a source waits or retries by a number that has no name.
"""

import re
import sys
from pathlib import Path

FOLDERS = ["base", "DiskUtils", "FileUtils", "RTC", "SysUtil", "Watchdog", "Testing",
           "examples/recorder"]
HEADING = "### Retries and pauses"

LIMIT = re.compile(r"constexpr int (k\w*(?:Attempts|Limit)) = (\d+);")
PAUSE = re.compile(r"constexpr std::chrono::(\w+) (k\w+)\(([\d *]+)\);")
MICROSECONDS = re.compile(r"constexpr useconds_t (k\w+) = (\d+);")
DECLARED = re.compile(r"constexpr std::chrono::\w+ (k\w+)|"
                      r"constexpr [\w:]+ (k\w*(?:Attempts|Pause|PauseMicroseconds)\b)")
UNNAMED = re.compile(r"\b(?:sleep|usleep|Retry|WaitFor|wait_for|std::chrono::\w+)"
                     r"[({]\s*\d|\b\d+(?:ns|us|ms|s|min|h)\b(?!\")|"
                     r"\bpoll\([^()]*, -?[1-9]\d*\)")
UNITS = {"milliseconds": "ms", "seconds": "s", "minutes": "min", "hours": "h"}


def product(factors: str) -> int:
    result = 1
    for factor in factors.split("*"):
        result *= int(factor)
    return result


def named(source: str) -> dict[str, str]:
    """The limits and pauses that a source names, with their values as the page shows them."""
    return ({name: f"{value} times" for name, value in LIMIT.findall(source)}
            | {name: f"{product(value)} {UNITS[unit]}" for unit, name, value in PAUSE.findall(source)}
            | {name: f"{int(value) // 1000} ms" for name, value in MICROSECONDS.findall(source)})


def unnamed(source: str) -> list[str]:
    """The lines that wait or retry by a number, or name it in a way that is not read here."""
    unread = [name for names in DECLARED.findall(source) for name in names
              if name and name not in named(source)]
    return unread + [line.strip() for line in source.splitlines()
                     if UNNAMED.search(line) and not line.lstrip().startswith("//")]


def rows(page: str) -> dict[str, str]:
    """The table's values by the constant in the same cell: "10 times (`kForcedAttempts`)"."""
    table = page.split(HEADING, 1)[1].split("\n#", 1)[0]
    return {name: value for value, name in re.findall(r"(\d+ \w+) \(`(k\w+)`\)", table)}


def faults(sources: dict[str, str], page: str) -> list[str]:
    shown, found, result = rows(page), {}, []
    for path, source in sources.items():
        result += [f"{path}: no name: {line}" for line in unnamed(source)]
        for name, value in named(source).items():
            if name in found:
                result.append(f"{path}: {name} is the name of another one, too")
            found[name] = value
            if shown.get(name) != value:
                result.append(f"{path}: {name} is {value}, on the page {shown.get(name)}")
    result += [f"on the page, but in no source: {name}" for name in shown if name not in found]
    return result


# Lines of a source that are complained of.
WRONG = ["sleep_for(50ms);", "over.WaitFor(10)", "sleep_for(std::chrono::seconds{1});",
         "constexpr auto kLockPause = std::chrono::seconds(1);",
         "constexpr std::chrono::seconds kNap{1};", "constexpr unsigned kLockAttempts = 3;"]


def main() -> int:
    root = Path(__file__).resolve().parents[2]
    paths = [path for folder in FOLDERS for ending in ("*.h", "*.cpp")
             for path in sorted((root / folder).rglob(ending))]
    sources = {str(path.relative_to(root)): path.read_text(encoding="utf-8") for path in paths}
    found = [f"not complained of: {line}" for line in WRONG if not unnamed(line)]
    found += faults(sources, (root / "docs/operations.md").read_text(encoding="utf-8"))
    print("\n".join(found))
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
