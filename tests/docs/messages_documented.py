#!/usr/bin/env python3
"""Compares docs/operations.md with the texts that the library and the recorder print.

Fails when a text is missing there, or when a message that is described there is in no source.
"""

import re
import sys
from pathlib import Path

from messages import VALUE, messages_below

FOLDERS = ["base", "DiskUtils", "FileUtils", "RTC", "SysUtil", "Watchdog", "Testing",
           "examples/recorder"]

# Texts that nobody sees: what JSON is made of, alphabets, formats, separators.
UNSEEN_FILES = {"base/JsonWriter.cpp"}
UNSEEN = {'"\\/bfnrt', '"\\/\b', "0123456789", "-0123456789", "null", "true", "false",  # JsonReader
          "%Y-%m-… %H:%M:%S",  # the date's format, a conversion of which looks like printf's
          "…..",  # the parent directory
          "/\\", "/", "3", "r"}

CODE_SPAN = re.compile(r"`([^`\n]+)`")
BLOCK = re.compile(r"^```\w*\n(.*?)^```", re.MULTILINE | re.DOTALL)


def documented(page: str) -> set[str]:
    """What stands in code spans and, line by line, in code blocks."""
    blocks = BLOCK.findall(page)
    lines = (line.strip() for block in blocks for line in block.splitlines())
    return spans(BLOCK.sub("", page)) | set(lines)


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


def spans(text: str) -> set[str]:
    return {span.replace("\\|", "|").strip() for span in CODE_SPAN.findall(text)}


def complaints(messages: dict[str, str], page: str) -> list[str]:
    missing = messages.keys() - documented(page)
    stale = described(page) - messages.keys()
    return ([f"{messages[text]}: not in docs/operations.md: {text}" for text in sorted(missing)] +
            [f"docs/operations.md: in no source: {text}" for text in sorted(stale)])


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
