#!/usr/bin/env python3
"""Compares docs/operations.md, where "…" stands for a value, with the string literals of the
library and the recorder.

Fails when a literal is in no code span of the page, when the literals of a message that is
described there do not follow each other in a source, or when a shown line of output is none of
these messages.
"""

import re
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
FOLDERS = ["base", "DiskUtils", "FileUtils", "RTC", "SysUtil", "Watchdog", "Testing",
           "examples/recorder"]

# Literals that nobody sees: what JSON is made of, a directory and its parent, separators, modes.
UNSEEN_FILES = {"base/JsonWriter.cpp"}
UNSEEN = {r"\"\\/bfnrt", r"\"\\/\b\f", r"\r\t", "null", "true", "false", ".", "..", "/dev/null",
          r"/\\", "/", "r", "3"}

# Comments, characters, names of headers, and what is meant for the compiler (assertions, and the
# annotations named QUELLON_) are matched first, and left out.
STRING = r'"(?:\\.|[^"\\])*"'
LITERALS = re.compile(r"//[^\n]*|/\*.*?\*/|^ *#[^\n]*|\bstatic_assert\([^;]*;|"
                      r"\bQUELLON_[A-Z_]+\([^()]*\)|'(?:\\.|[^'\\\n])+'|"
                      rf"((?:{STRING}\s*(?:<<\s*(?=\"))?)+)", re.MULTILINE | re.DOTALL)
VALUE = re.compile(r"…|%[-+ #0]*\d*(?:ll|l|z)?[dufsxc]|\\n")  # and the end of a line

BLOCK = re.compile(r"^```(\w*)\n(.*?)^```", re.MULTILINE | re.DOTALL)
SPAN = re.compile(r"`([^`\n]+)`")
ROW = re.compile(r"^\| (?:message|verdict) \|.*\n((?:\|.*\n)+)", re.MULTILINE)
LOG_HEADER = re.compile(r"^\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\](\[-?\d+C\])?(\[(ERROR|WARNING)\])?")


def main() -> int:
    page = (ROOT / "docs/operations.md").read_text()
    sources = {str(path.relative_to(ROOT)): literals(path.read_text()) for folder in FOLDERS
               for path in sorted((ROOT / folder).rglob("*")) if path.suffix in (".h", ".cpp")}
    found = missing(sources, page) + stale(sources, page) + not_printed(page)
    print("\n".join(found) or f"{sum(map(len, sources.values()))} literals, as in the page")
    return 1 if found else 0


def literals(source: str) -> list[str]:
    """The texts between values, in their order; a text may be written as several literals."""
    texts = ("".join(part[1:-1] for part in re.findall(STRING, run, re.DOTALL))
             for run in LITERALS.findall(source))
    return [piece for text in texts for piece in pieces(text)]


def pieces(text: str) -> list[str]:
    return [piece.strip() for piece in VALUE.split(text) if piece.strip()]


def missing(sources: dict[str, list[str]], page: str) -> list[str]:
    known = {piece for span in spans(BLOCK.sub("", page)) for piece in pieces(span)} | UNSEEN
    return [f"{file}: not in docs/operations.md: {literal}" for file, found in sources.items()
            if file not in UNSEEN_FILES for literal in found if literal not in known]


def stale(sources: dict[str, list[str]], page: str) -> list[str]:
    texts = ["".join(f"\n{literal}\n" for literal in found) for found in sources.values()]
    return [f"docs/operations.md: in no source: {message}" for message in described(page)
            if not pieces(message) or
            not any("".join(f"\n{piece}\n" for piece in pieces(message)) in text
                    for text in texts)]


def not_printed(page: str) -> list[str]:
    """The lines shown as output that are no message, after a log line's header, if there is one.

    A text of the system may follow a message, as on standard error.
    """
    made = re.compile("|".join(".+".join(map(re.escape, message.split("…"))) + "(?:: .+)?"
                               for message in described(page) if re.search(r"\w\w|==", message)))
    shown = (line.strip() for kind, block in BLOCK.findall(page) if kind == "text"
             for line in block.splitlines())
    return [f"docs/operations.md: not printed: {line}" for line in shown
            if not made.fullmatch(LOG_HEADER.sub("", line).strip())]


def described(page: str) -> list[str]:
    """The messages that tables give a meaning."""
    return [span for table in ROW.findall(page) for row in table.splitlines()
            for span in spans(row.split(" | ")[0])]


def spans(text: str) -> list[str]:
    return [span.replace("\\|", "|").strip() for span in SPAN.findall(text)]


if __name__ == "__main__":
    sys.exit(main())
