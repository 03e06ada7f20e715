"""Which files are changed and which tests look at them (tests/mutation/plan.toml), and which
survivors are known to be no mistakes (tests/mutation/explained.toml)."""

import fnmatch
import tomllib
from dataclasses import dataclass
from pathlib import Path

from cxx_source import Source, parse
from mutations import Mutation, mutations_of


@dataclass(frozen=True)
class Program:
    name: str  # the CMake target, and the file that it makes
    output: str  # path of that file in the build directory
    covers: tuple[str, ...]  # patterns of the files whose mutants it is run on


@dataclass(frozen=True)
class Stage:
    """Tests of one program; an empty filter stands for all."""

    program: Program
    test_filter: str


@dataclass(frozen=True)
class Mutant:
    mutation: Mutation
    line: int
    kind: str
    was: str  # the lines that change, without the indentation that they share
    becomes: str

    @property
    def path(self) -> str:
        return self.mutation.path

    def key(self) -> tuple[str, str, str]:
        return self.path, _flat(self.was), _flat(self.becomes)


@dataclass(frozen=True)
class Explanation:
    path: str
    was: str
    becomes: str | None  # None: whatever is made of that line
    why: str

    def fits(self, mutant: Mutant) -> bool:
        path, was, becomes = mutant.key()
        return (path, was) == (self.path, self.was) and self.becomes in (None, becomes)


class Plan:
    def __init__(self, root: Path) -> None:
        self._root = root
        table = tomllib.loads((root / "tests/mutation/plan.toml").read_text())
        self.programs = [
            Program(each["name"], each.get("output", f"tests/{each['name']}"), tuple(each["covers"]))
            for each in table["program"]
        ]
        self._first = {each["path"]: each.get("first", {}) for each in table["file"]}
        explained = tomllib.loads((root / "tests/mutation/explained.toml").read_text())
        self.explanations = [
            Explanation(each["file"], _flat(each["was"]),
                        _flat(each["becomes"]) if "becomes" in each else None, each["why"])
            for each in explained["survivor"]
        ]

    def files(self, patterns: list[str]) -> list[str]:
        return [path for path in self._first
                if not patterns or any(fnmatch.fnmatch(path, "*" + each) for each in patterns)]

    def mutants(self, path: str) -> list[Mutant]:
        source = parse(path, (self._root / path).read_text())
        return [_mutant(source, each) for each in mutations_of(source)]

    def stages(self, path: str) -> list[Stage]:
        """The tests most likely to notice come first, then every program that covers the file."""
        by_name = {each.name: each for each in self.programs}
        first = [Stage(by_name[name], tests) for name, tests in self._first[path].items()]
        rest = [each for each in self.programs
                if any(fnmatch.fnmatch(path, pattern) for pattern in each.covers)]
        order = list(self._first[path])
        rest.sort(key=lambda each: order.index(each.name) if each.name in order else len(order))
        return first + [Stage(each, "") for each in rest]

    def explanation(self, mutant: Mutant) -> Explanation | None:
        return next((each for each in self.explanations if each.fits(mutant)), None)


def _flat(text: str) -> str:
    return " ".join(text.split())


def _mutant(source: Source, mutation: Mutation) -> Mutant:
    text = source.text
    first = text.rfind("\n", 0, mutation.start) + 1
    last = text.find("\n", mutation.end)
    was = text[first:last]
    becomes = text[first:mutation.start] + mutation.new + text[mutation.end:last]
    return Mutant(mutation, source.line_of(mutation.start), mutation.kind, was, becomes)
