"""Small changes to a source of the library, one at a time.

Operators and literals are found among the tokens, statements, conditions and returned values in
clang's syntax tree. Code that a change leaves uncompilable is the runner's to notice.
"""

import re
from dataclasses import dataclass
from functools import cached_property
from pathlib import Path

from clang.cindex import Config, Cursor, CursorKind, Index, Token, TokenKind, TypeKind

Config.set_library_file("libclang-14.so.1")

OPERATORS = {"==": "!=", "!=": "==", "<": "<=", "<=": "<", ">": ">=", ">=": ">", "&&": "||",
             "||": "&&", "+": "-", "-": "+", "*": "/", "/": "*", "%": "/", "&": "|", "|": "&",
             "+=": "-=", "-=": "+=", "++": "--", "--": "++", "true": "false", "false": "true"}
EITHER_SIDE_OF_BLANKS = {"<", ">", "+", "-", "*", "/", "%", "&", "|"}  # else signs and types
NUMBER = re.compile(r"(0[xX][0-9a-fA-F']+|[0-9][0-9']*)(.*)", re.DOTALL)
# Negated, these are the change of their operator once more.
EQUALITY = re.compile(r"[^=!<>&|?]*[^=!<>&|? ] [=!]= [^=!<>&|? ][^=!<>&|?]*")
CONDITION = {CursorKind.IF_STMT: 0, CursorKind.WHILE_STMT: 0, CursorKind.DO_STMT: 1,
             CursorKind.CONDITIONAL_OPERATOR: 0}
LOOPS = {CursorKind.WHILE_STMT, CursorKind.FOR_STMT, CursorKind.CXX_FOR_RANGE_STMT}
JUMPS = {CursorKind.BREAK_STMT, CursorKind.CONTINUE_STMT}
INTEGERS = {TypeKind.INT, TypeKind.UINT, TypeKind.LONG, TypeKind.ULONG, TypeKind.LONGLONG,
            TypeKind.ULONGLONG}


@dataclass(frozen=True)
class Change:
    path: str  # of the source, from the project's root
    source: str
    start: int  # of what is replaced, as an offset
    end: int
    text: str

    @property
    def result(self) -> str:
        return self.source[:self.start] + self.text + self.source[self.end:]

    @cached_property
    def line(self) -> int:
        return self.source.count("\n", 0, self.start) + 1

    @cached_property
    def key(self) -> tuple[str, str, str]:
        """The file, and the lines before and after; it survives changes elsewhere in the file."""
        first = self.source.rfind("\n", 0, self.start) + 1
        last = self.source.find("\n", self.end)
        after = self.source[first:self.start] + self.text + self.source[self.end:last]
        return self.path, squeezed(self.source[first:last]), squeezed(after)


def squeezed(text: str) -> str:
    return " ".join(text.split())


def changes_of(path: str, root: Path, flags: list[str]) -> list[Change]:
    """All changes of a source, in the order of its text."""
    unit = Index.create().parse(str(root / path), args=flags)
    source = (root / path).read_text(encoding="ascii")
    found = {}
    for start, end, text in [*of_tokens(source, unit.cursor), *of_tree(source, unit.cursor)]:
        change = Change(path, source, start, end, text)
        found.setdefault(change.result, change)
    return sorted(found.values(), key=lambda change: (change.start, change.end))


def of_tokens(source: str, unit: Cursor):
    preprocessed = {number for number, line in enumerate(source.split("\n"), 1)
                    if line.startswith(("#", "static_assert"))}
    for token in unit.get_tokens():
        start, end = token.extent.start, token.extent.end
        text = replacement(token, source[start.offset - 1] + source[end.offset:end.offset + 1])
        if text is not None and start.line not in preprocessed:
            yield start.offset, end.offset, text


def replacement(token: Token, around: str) -> str | None:
    text = token.spelling
    if token.kind == TokenKind.LITERAL:
        return other_literal(text)
    if text in EITHER_SIDE_OF_BLANKS and around.strip():
        return None
    return OPERATORS.get(text) if token.kind != TokenKind.COMMENT else None


def other_literal(text: str) -> str | None:
    if text.endswith('"'):
        return text[:-1] + 'X"'
    if text.endswith("'"):
        return r"'\x01'"
    number, rest = NUMBER.fullmatch(text).groups()
    digits = number.replace("'", "")
    octal = len(digits) > 1 and digits.isdecimal() and digits[0] == "0"
    return (f"0{int(digits, 8) + 1:o}" if octal else str(int(digits, 0) + 1)) + rest


def of_tree(source: str, unit: Cursor):
    for top in unit.get_children():
        if top.location.file is None or top.location.file.name != unit.spelling:
            continue
        for cursor in top.walk_preorder():
            children = list(cursor.get_children())
            yield from negated_condition(source, cursor, children)
            yield from other_result(source, cursor, children)
            for statement in statements(cursor, children):
                yield *span(statement), "static_cast<void>(0)"


def span(cursor: Cursor) -> tuple[int, int]:
    return cursor.extent.start.offset, cursor.extent.end.offset


def negated(source: str, cursor: Cursor):
    start, end = span(cursor)
    if not EQUALITY.fullmatch(source[start:end]):
        yield start, end, f"!({source[start:end]})"


def negated_condition(source: str, cursor: Cursor, children: list[Cursor]):
    position = CONDITION.get(cursor.kind)
    if position is not None and children[position].kind.is_expression():
        yield from negated(source, children[position])


def other_result(source: str, cursor: Cursor, children: list[Cursor]):
    if cursor.kind != CursorKind.RETURN_STMT or not children:
        return
    start, end = span(children[0])
    result, text = children[0].type.get_canonical().kind, source[start:end]
    if re.fullmatch(r"true|false|[0-9]\w*|\{\}|std::nullopt", text):
        return  # a literal, or nothing already
    if result == TypeKind.BOOL:
        yield from negated(source, children[0])
    elif result in INTEGERS:
        yield start, end, f"({text}) + 1"
    elif result == TypeKind.RECORD:
        yield start, end, "{}"


def statements(cursor: Cursor, children: list[Cursor]):
    """Those below this node that may be left out."""
    if cursor.kind == CursorKind.IF_STMT:
        children = children[1:]
    elif cursor.kind in LOOPS:
        children = children[-1:]
    elif cursor.kind != CursorKind.COMPOUND_STMT:
        return
    for child in children:
        empty_return = child.kind == CursorKind.RETURN_STMT and not any(child.get_children())
        if child.kind.is_expression() or child.kind in JUMPS or empty_return:
            yield child
