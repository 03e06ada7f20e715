"""A C++ source file as tokens, each with its place and its surroundings.

The sources are clang-formatted, which decides what a lexer alone cannot: binary operators have a
blank on both sides, template brackets and the `&` and `*` of a type have none before them.
"""

import bisect
import re
from dataclasses import dataclass, field

LEXEMES = re.compile(
    r"""
      (?P<skip> \s+ | //[^\n]* | /\*.*?\*/ | ^[ \t]*\#(?:[^\n\\]|\\.)* )
    | (?P<string> (?:u8|[uUL])?R"(?P<delim>[^()\s\\]{0,16})\(.*?\)(?P=delim)" | "(?:[^"\\\n]|\\.)*" )
    | (?P<char> '(?:[^'\\\n]|\\[^\n])+' )
    | (?P<number> \.?\d(?:'?[\w.]|[eEpP][+-])* )
    | (?P<name> [A-Za-z_]\w* )
    | (?P<op> <<=|>>=|\.\.\.|->\*|<=>|->|\+\+|--|<<|>>|<=|>=|==|!=|&&|\|\||[-+*/%&|^]=|::|[^\w\s] )
    """,
    re.VERBOSE | re.DOTALL | re.MULTILINE,
)

OPENERS = {"(": ")", "[": "]", "{": "}"}
CLOSERS = {closer: opener for opener, closer in OPENERS.items()}


@dataclass
class Token:
    kind: str  # string, char, number, name or op
    text: str
    start: int  # offset into the file
    end: int
    blank_before: bool
    blank_after: bool = False
    partner: int = -1  # of a bracket: index of the one that matches
    scope: str = ""  # innermost brace around it: namespace, class, enum, block, list, or "" at the top


@dataclass
class Source:
    """Text and tokens of one file."""

    path: str
    text: str
    tokens: list[Token] = field(default_factory=list)
    line_starts: list[int] = field(default_factory=list)

    def line_of(self, offset: int) -> int:
        return bisect.bisect_right(self.line_starts, offset)


def parse(path: str, text: str) -> Source:
    source = Source(path, text)
    source.line_starts = [0] + [match.end() for match in re.finditer("\n", text)]
    source.tokens = _lex(text)
    _pair_brackets(source.tokens)
    _mark_scopes(source.tokens)
    return source


def _lex(text: str) -> list[Token]:
    tokens: list[Token] = []
    at = 0
    blank = True
    while at < len(text):
        match = LEXEMES.match(text, at)
        if match is None:
            raise ValueError(f"no C++ at offset {at}: {text[at:at + 20]!r}")
        at = match.end()
        if match.lastgroup == "skip":
            blank = True
            if tokens:
                tokens[-1].blank_after = True
            continue
        kind = "string" if match["string"] else match.lastgroup
        tokens.append(Token(kind, match.group(), match.start(), match.end(), blank))
        blank = False
    return tokens


def _pair_brackets(tokens: list[Token]) -> None:
    open_at: list[int] = []
    for index, token in enumerate(tokens):
        if token.kind != "op":
            continue
        if token.text in OPENERS:
            open_at.append(index)
        elif token.text in CLOSERS:
            opener = open_at.pop()
            if tokens[opener].text != CLOSERS[token.text]:
                raise ValueError(f"brackets do not match at offset {token.start}")
            tokens[opener].partner = index
            token.partner = opener


def _mark_scopes(tokens: list[Token]) -> None:
    scopes = [""]
    for index, token in enumerate(tokens):
        if token.text == "}" and token.kind == "op":
            scopes.pop()
        token.scope = scopes[-1]
        if token.text == "{" and token.kind == "op":
            scopes.append(_scope_of_brace(tokens, index))


def _scope_of_brace(tokens: list[Token], brace: int) -> str:
    words = []
    for token in reversed(tokens[:brace]):
        if token.kind == "op" and token.text in (";", "{", "}", ")", "=", ","):
            break
        words.append(token.text)
    for keyword in ("namespace", "enum"):
        if keyword in words:
            return keyword
    if any(keyword in words for keyword in ("class", "struct", "union")):
        return "class"
    return "block" if _opens_block(tokens, brace) else "list"


def _opens_block(tokens: list[Token], brace: int) -> bool:
    before = tokens[brace - 1].text if brace > 0 else ""
    if before in (")", "const", "noexcept", "override", "else", "do", ";", "{", "}", ":", "]"):
        return True
    # `auto f(...) -> type {`: the function's head begins at the last statement's end.
    for token in reversed(tokens[max(0, brace - 12):brace]):
        if token.text == "->" and token.blank_before and token.blank_after:
            return True
        if token.text in (";", "{", "}", "="):
            return False
    return False
