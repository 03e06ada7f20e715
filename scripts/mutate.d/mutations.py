"""The small mistakes that are tried on a source file.

Left out by rule: what stands in an OX_ASSERT (its text is part of the report; the whole check is
deleted instead), log calls (TARN_LOG_*), and locks, whose absence no single thread can see.
"""

import re
from collections.abc import Iterator
from dataclasses import dataclass

from cxx_source import OPENERS, Source, Token

# Swapped where they are binary operators: with a blank on both sides.
BINARY = {
    "<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "==",
    "+": "-", "-": "+", "*": "/", "/": "*", "%": "*", "<<": ">>", ">>": "<<", "|": "&", "&": "|",
    "+=": "-=", "-=": "+=", "&&": "||", "||": "&&",
}
UNARY = {"++": "--", "--": "++"}
EXTREMES = {"min": "max", "max": "min"}
BOOLEANS = {"true": "false", "false": "true"}
ASSIGNMENTS = {"=", "+=", "-=", "*=", "/=", "%=", "&=", "|=", "^=", "<<=", ">>="}
LOGICAL = {"<", "<=", ">", ">=", "==", "!=", "&&", "||"}
KEYWORDS = {
    "auto", "break", "case", "class", "const", "constexpr", "continue", "default", "do", "else",
    "enum", "for", "if", "return", "static", "struct", "switch", "typedef", "using", "while",
}
# What `{}` stands for already: types begin with a capital.
NEUTRAL_VALUE = re.compile(r"0|false|nullptr|\{\}|[A-Z]\w*\(\)")
INTEGER = re.compile(r"(0[xX][0-9a-fA-F']+|\d[\d']*)([uUlL]*)$")


@dataclass(frozen=True)
class Mutation:
    path: str
    start: int
    end: int
    new: str
    kind: str

    def apply(self, text: str) -> str:
        return text[:self.start] + self.new + text[self.end:]


def mutations_of(source: Source) -> list[Mutation]:
    """All of them, in the order of their places."""
    excluded = _excluded(source.tokens)
    found: dict[tuple[int, int, str], Mutation] = {}
    for rule in (_operators, _constants, _conditions, _statements, _returns):
        for first, last, new, kind in rule(source.tokens, excluded):
            start, end = source.tokens[first].start, source.tokens[last].end
            found.setdefault((start, end, new), Mutation(source.path, start, end, new, kind))
    return [found[key] for key in sorted(found)]


# A rule yields (first token, last token, replacement, kind).
Changes = Iterator[tuple[int, int, str, str]]


def _text(tokens: list[Token], first: int, last: int) -> str:
    parts = [("" if i == first or not t.blank_before else " ") + t.text
             for i, t in enumerate(tokens[first:last + 1], first)]
    return "".join(parts)


def _excluded(tokens: list[Token]) -> set[int]:
    inside: set[int] = set()
    for index, token in enumerate(tokens[:-1]):
        if token.text == "OX_ASSERT" or token.text.startswith("TARN_LOG_"):
            inside.update(range(index, tokens[index + 1].partner + 1))
        elif token.text in ("scoped_lock", "static_assert"):
            end = index
            while tokens[end].text != ";":
                end += 1
            inside.update(range(index, end + 1))
    return inside


def _operators(tokens: list[Token], excluded: set[int]) -> Changes:
    for i, token in enumerate(tokens):
        if i in excluded or i == 0 or tokens[i - 1].text == "operator":
            continue
        if token.kind == "op":
            binary = token.blank_before and token.blank_after
            if binary and token.text in BINARY and tokens[i - 1].text != "template":
                yield i, i, BINARY[token.text], "operator"
            elif token.text in UNARY:
                yield i, i, UNARY[token.text], "operator"
            elif token.text == "!" and not token.blank_after:
                yield i, i, "", "operator"
        elif token.text in EXTREMES and tokens[i - 1].text == "::":
            yield i, i, EXTREMES[token.text], "operator"


def _constants(tokens: list[Token], excluded: set[int]) -> Changes:
    for i, token in enumerate(tokens):
        if i in excluded:
            continue
        if token.text in BOOLEANS:
            yield i, i, BOOLEANS[token.text], "constant"
        elif token.kind == "number":
            match = INTEGER.match(token.text)
            if match is None:
                continue
            value = int(match[1].replace("'", ""), 0)
            yield i, i, f"{value + 1}{match[2]}", "constant"
            if value > 0:
                yield i, i, f"{value - 1}{match[2]}", "constant"
        elif token.kind == "char" and len(token.text) == 3:
            yield i, i, f"'{chr(ord(token.text[1]) + 1)}'", "constant"


def _conditions(tokens: list[Token], excluded: set[int]) -> Changes:
    for i, token in enumerate(tokens):
        if i in excluded:
            continue
        if token.text == "if":
            close = tokens[i + 1].partner
            if not _is_negated_by_an_operator(tokens, i + 2, close):
                yield i + 1, close, f"(!{_text(tokens, i + 1, close)})", "condition"
        elif token.text == "while":
            yield i + 1, tokens[i + 1].partner, "(false)", "condition"
        elif token.text == "?":
            first = _condition_before(tokens, i)
            if not _is_negated_by_an_operator(tokens, first, i):
                yield first, i - 1, f"!({_text(tokens, first, i - 1)})", "condition"


def _is_negated_by_an_operator(tokens: list[Token], first: int, end: int) -> bool:
    """Whether one of the other rules turns `a == b` or `!a` around already."""
    top = _top_level(tokens, first, end)
    logical = [t.text for t in top if t.text in LOGICAL and t.blank_after]
    return logical in (["=="], ["!="]) or (not logical and top[0].text == "!")


def _top_level(tokens: list[Token], first: int, end: int) -> list[Token]:
    """The tokens of this range that stand in no bracket within it."""
    top = []
    i = first
    while i < end:
        top.append(tokens[i])
        opens = tokens[i].kind == "op" and tokens[i].text in OPENERS
        i = tokens[i].partner + 1 if opens else i + 1
    return top


def _condition_before(tokens: list[Token], question: int) -> int:
    i = question - 1
    while True:
        token = tokens[i]
        if token.kind == "op" and token.partner >= 0 and token.text in ")]}":
            i = token.partner - 1
            continue
        stops = {"return", ",", ";", "{", "(", "[", ":", "?"} | ASSIGNMENTS
        if token.text in stops or (token.text in ("+", "-", "*") and token.blank_after):
            return i + 1
        i -= 1


def _statements(tokens: list[Token], excluded: set[int]) -> Changes:
    for first in _statement_starts(tokens):
        if tokens[first].text in ("break", "continue", "return") and tokens[first + 1].text == ";":
            yield first, first, "", "statement"
            continue
        last = _end_of_expression_statement(tokens, first)
        if last is None or tokens[first].text.startswith("TARN_LOG_"):
            continue
        if first in excluded and tokens[first].text != "OX_ASSERT":
            continue
        yield first, last, "", "statement"


def _statement_starts(tokens: list[Token]) -> Iterator[int]:
    for i in range(1, len(tokens)):
        before = tokens[i - 1]
        if tokens[i].scope != "block" or tokens[i].text in ("}", "{", ")", ";"):
            continue
        if before.text in (";", "{", "}", "else", ":") and _is_statement_place(tokens, i - 1):
            yield i
        elif before.text == ")" and tokens[before.partner - 1].text in ("if", "for", "while"):
            yield i


def _is_statement_place(tokens: list[Token], before: int) -> bool:
    if tokens[before].text == ":":  # a label's, not the one of `?:` or of a range
        return any(t.text in ("case", "default") for t in tokens[max(0, before - 5):before])
    if tokens[before].text != ";":
        return True
    # Not the semicolons of `for (...; ...; ...)`.
    depth = 0
    for token in reversed(tokens[:before]):
        if token.text in (")", "]", "}"):
            depth += 1
        elif token.text in ("(", "[", "{"):
            if depth == 0:
                return token.text == "{"
            depth -= 1
    return True


def _end_of_expression_statement(tokens: list[Token], first: int) -> int | None:
    """Last token before the `;` of a call, an assignment or a count; None for anything else."""
    i = first
    while tokens[i].text in ("++", "--", "*", "::"):
        i += 1
    if tokens[i].kind != "name" or tokens[i].text in KEYWORDS:
        return None
    i += 1
    called = tokens[first].text in UNARY
    while True:
        text = tokens[i].text
        if text in (".", "->", "::"):
            i += 2
        elif text in ("(", "["):
            called |= text == "("
            i = tokens[i].partner + 1
        elif text in UNARY:
            called = True
            i += 1
        elif text == ";":
            return i - 1 if called else None
        elif text in ASSIGNMENTS:
            while tokens[i].text != ";":
                i = tokens[i].partner + 1 if tokens[i].text in ("(", "[", "{") else i + 1
            return i - 1
        else:
            return None


def _returns(tokens: list[Token], excluded: set[int]) -> Changes:
    for i, token in enumerate(tokens):
        if i in excluded or token.text != "return" or tokens[i + 1].text == ";":
            continue
        end = i + 1
        while tokens[end].text != ";":
            end = tokens[end].partner + 1 if tokens[end].text in ("(", "[", "{") else end + 1
        value = _text(tokens, i + 1, end - 1)
        if not NEUTRAL_VALUE.fullmatch(value) and value != "true":
            yield i + 1, end - 1, "{}", "return"
        if any(t.text in LOGICAL and t.blank_after for t in _top_level(tokens, i + 1, end)):
            yield i + 1, end - 1, "true", "return"


