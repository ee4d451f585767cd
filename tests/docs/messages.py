"""The texts that C++ sources can print, as templates in which each value is shown as "…"."""

import re
from pathlib import Path

VALUE = "…"

TOKEN = re.compile(r"""
    (?P<comment>//[^\n]*|/\*.*?\*/)
  | (?P<directive>^[ \t]*\#(?:[^\n\\]|\\.)*)
  | (?P<assertion>\bstatic_assert\b(?:"(?:[^"\\]|\\.)*"|[^";])*)
  | (?P<text>"(?:[^"\\]|\\.)*")
  | (?P<character>'(?:[^'\\]|\\.)*')
  | (?P<word>[\w.:]+)
  | (?P<join><<|\+)
  | (?P<other>\S)
""", re.VERBOSE | re.DOTALL | re.MULTILINE)

# What separates one expression from the next, apart from brackets.
SEPARATORS = set(",;?=:|&") | {"return", "throw"}
OPENING, CLOSING = "([{", ")]}"
CONVERSION = re.compile(r"%[-+ #0]*\d*(?:ll|l|z)?[dufsxc]")
ESCAPES = {"n": "\n", "t": "\t", "\\": "\\", '"': '"', "'": "'", "b": "\b", "f": "\f", "r": "\r"}


def messages_of(source: str) -> list[str]:
    """The lines that a source's string literals make, each once, in their order.

    Pieces joined by "<<" or "+" are one text, and what is joined to them is a value; so is each
    conversion of a printf format. The first piece of a "<<" chain is where the text goes.
    """
    found = []
    texts(iter(tokens_of(source)), found)
    lines = (line.strip() for text in found for line in text.split("\n"))
    return list(dict.fromkeys(line for line in lines if line.strip(VALUE)))


def messages_below(root: Path, places: list[str]) -> dict[str, str]:
    """The messages of all sources below some folders, each with the file it was first found in."""
    messages = {}
    for place in places:
        for path in sorted((root / place).rglob("*")):
            if path.suffix in (".h", ".cpp"):
                for message in messages_of(path.read_text()):
                    messages.setdefault(message, str(path.relative_to(root)))
    return messages


def tokens_of(source: str):
    for match in TOKEN.finditer(source):
        if match.lastgroup not in ("comment", "directive", "assertion"):
            yield match.lastgroup, match.group()


def texts(tokens, found: list[str]):
    """Collects the texts of all expressions up to the bracket that closes this level.

    Returns the last expression's text if it was the only one, so that `std::string("a") + b` is one
    text with its surroundings.
    """
    chain = Chain(found)
    expressions = 0
    for kind, token in tokens:
        if token in CLOSING:
            break
        if token in OPENING:
            chain.nest(texts(tokens, chain.inner))
        elif token in SEPARATORS:
            chain.end()
            expressions += 1
        else:
            chain.take(kind, token)
    alone = chain.literal() if expressions == 0 else None
    chain.end()
    return alone


class Chain:
    """The operands of "<<" and "+" within one expression."""

    def __init__(self, found: list[str]):
        self.found = found
        self.clear()

    def clear(self):
        self.operands = [[]]
        self.inner = []  # texts of nested expressions, in case they are none of this one
        self.streamed = False

    def take(self, kind: str, token: str):
        if kind == "join":
            self.streamed |= token == "<<"
            self.operands.append([])
        elif kind == "text":
            self.operands[-1].append(unescape(token[1:-1]))
        elif re.fullmatch(r"__[A-Z]+__", token):
            self.operands[-1].append(VALUE)
        else:
            self.operands[-1].append((token,))

    def nest(self, literal: str | None):
        """Takes a bracketed group, which is a text only where a string is made of one."""
        if literal is not None and self.operands[-1] == [("std::string",)]:
            self.operands[-1] = [literal]
            self.inner.remove(literal)
        else:
            self.operands[-1].append(("()",))

    def literal(self) -> str | None:
        operand = self.operands[0]
        alone = len(self.operands) == 1 and operand and all(isinstance(p, str) for p in operand)
        return "".join(operand) if alone else None

    def end(self):
        operands = [o for o in self.operands if o != [("std::endl",)] and o != [("std::flush",)]]
        if self.streamed:
            operands = operands[1:]
        pieces = [piece_of(operand) for operand in operands]
        text = re.sub(f"{VALUE}+", VALUE, "".join(pieces))
        if any(isinstance(part, str) for operand in operands for part in operand):
            self.found.append(CONVERSION.sub(VALUE, text))
        self.found.extend(self.inner)
        self.clear()


def piece_of(operand: list) -> str:
    """An operand's text: its literals; a value where it has anything else."""
    return "".join(part if isinstance(part, str) else VALUE for part in operand)


def unescape(text: str) -> str:
    text = re.sub(r"\\x([0-9A-Fa-f]{2})", lambda match: chr(int(match.group(1), 16)), text)
    return re.sub(r"\\(.)", lambda match: ESCAPES.get(match.group(1), match.group(1)), text)
