#!/usr/bin/env python3
"""Compares docs/operations.md with the texts that the library and the recorder print.

Fails when a text is missing there, when a message that is described there is in no source, or when
a line of output that is shown there cannot be printed.
"""

import re
import sys
from pathlib import Path

from messages import VALUE, messages_below

FOLDERS = ["base", "DiskUtils", "FileUtils", "RTC", "SysUtil", "Watchdog", "Testing",
           "examples/recorder"]

# Texts that nobody sees: what JSON is made of, alphabets, formats, separators.
UNSEEN_FILES = {"base/JsonWriter.cpp"}
UNSEEN = {'"\\/bfnrt', '"\\/\b', "null", "true", "false",  # JsonReader
          "%Y-%m-… %H:%M:%S",  # the date's format, a conversion of which looks like printf's
           ".", "….", "…..",  # a directory and its parent
           "/dev/null",
          "/\\", "/", "3", "r"}

CODE_SPAN = re.compile(r"`([^`\n]+)`")
BLOCK = re.compile(r"^```.*?^```", re.MULTILINE | re.DOTALL)
OUTPUT = re.compile(r"^```text\n(.*?)^```", re.MULTILINE | re.DOTALL)
LOG_HEADER = re.compile(r"^\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\](\[-?\d+C\])?(\[(ERROR|WARNING)\])?")


def documented(page: str) -> set[str]:
    """What stands in code spans; what only an example shows is not explained."""
    return spans(BLOCK.sub("", page))


def described(page: str) -> set[str]:
    """The messages that tables headed "message" give a meaning."""
    found, in_table = set(), False
    for line in page.splitlines():
        cells = line.split(" | ")
        if cells[0].strip("| ") == "message":
            in_table = True
        elif not line.startswith("|"):
            in_table = False
        elif in_table:
            found |= spans(cells[0])
    return found


def not_printed(messages: dict[str, str], page: str) -> list[str]:
    """The lines shown as output that no message makes, after a log line's header, if it has one.

    A text of the system may follow a message, as on standard error.
    """
    made = re.compile("|".join(re.escape(text).replace(VALUE, ".+") + "(?:: .+)?"
                               for text in messages if text.strip(f"{VALUE}[]: ")))
    shown = (line.strip() for block in OUTPUT.findall(page) for line in block.splitlines())
    return [line for line in shown if not made.fullmatch(LOG_HEADER.sub("", line))]


def spans(text: str) -> set[str]:
    return {span.replace("\\|", "|").strip() for span in CODE_SPAN.findall(text)}


def complaints(messages: dict[str, str], page: str) -> list[str]:
    missing = messages.keys() - documented(page)
    stale = described(page) - messages.keys()
    return ([f"{messages[text]}: not in docs/operations.md: {text}" for text in sorted(missing)] +
            [f"docs/operations.md: in no source: {text}" for text in sorted(stale)] +
            [f"docs/operations.md: not printed: {line}" for line in not_printed(messages, page)])


def printed(root: Path) -> dict[str, str]:
    return {text: place for text, place in messages_below(root, FOLDERS).items()
            if text not in UNSEEN and place not in UNSEEN_FILES}


def main() -> int:
    root = Path(__file__).resolve().parents[2]
    messages = printed(root)
    found = complaints(messages, (root / "docs/operations.md").read_text())
    print("\n".join(found) or f"{len(messages)} texts, all in docs/operations.md")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
