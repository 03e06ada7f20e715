#!/usr/bin/env python3
"""Compares how many instructions the library's paths take with the figures in the tree.

  compare.py --figures FILE --program PROGRAM            counts, under Valgrind, and compares
  compare.py --figures FILE --program PROGRAM --accept   counts, and writes the figures
  compare.py --figures FILE --counts FILE                compares what another file says

A figure is the mean of the instructions of one operation, the C library's included. Fails when one
has grown by more than 3 %, and when a path is missing on either side. Skipped where the figures do
not apply, and where Valgrind is missing, unless the environment says CI.
"""

import argparse
import os
import re
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

TOLERANCE = 3  # %
ACCEPT = "scripts/test --accept-instructions"
SKIPPED = 77  # as CTest is told
HEADER = """\
# Instructions of one operation on each path, counted by Callgrind in the release build.
# Written by: {}
"""
# Nothing of the machine's or the user's may choose other code: resolving a symbol late, a memcpy
# for the newest processor, settings of the allocator.
ENVIRONMENT = {
    "PATH": os.environ.get("PATH", os.defpath),
    "LD_BIND_NOW": "1",
    "GLIBC_TUNABLES": "glibc.cpu.hwcaps=-AVX,-AVX2,-AVX512F,-AVX512VL,-ERMS,-FSRM,-RTM",
}


def main() -> int:
    options = parse_options()
    if options.not_comparable:
        return skip(options.not_comparable)
    if options.no_valgrind or (options.program and not shutil.which("valgrind")):
        return without_valgrind()
    if not options.accept and not options.figures.exists():
        return skip(f"there are no figures in {options.figures.name}; {ACCEPT} makes them")
    counts = read(options.counts) if options.counts else count(options.program)
    if options.accept:
        write(options.figures, counts)
        return 0
    return compare(read(options.figures), counts)


def parse_options() -> argparse.Namespace:
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--figures", type=Path, required=True)
    parser.add_argument("--accept", action="store_true", help="write the figures")
    source = parser.add_mutually_exclusive_group(required=True)
    source.add_argument("--program", type=Path, help="what walks the paths")
    source.add_argument("--counts", type=Path, help="a file like that of the figures")
    source.add_argument("--not-comparable", metavar="REASON", help="skip")
    source.add_argument("--no-valgrind", action="store_true", help="it was missing at build time")
    return parser.parse_args()


def skip(reason: str) -> int:
    print(f"Skipped: {reason}")
    return SKIPPED


def without_valgrind() -> int:
    reason = "valgrind is missing; scripts/setup installs it"
    if not os.environ.get("CI"):
        return skip(reason)
    print(f"Failed: {reason}")
    return 1


def count(program: Path) -> dict[str, float]:
    with tempfile.TemporaryDirectory() as folder:
        out = Path(folder) / "counts"
        command = ["valgrind", "--quiet", "--tool=callgrind", "--collect-atstart=no",
                   f"--callgrind-out-file={out}", str(program)]
        result = subprocess.run(command, env=ENVIRONMENT, text=True,
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        if result.returncode != 0:
            raise SystemExit(f"{program.name} failed under valgrind:\n{result.stdout}")
        dumps = [dump.read_text() for dump in Path(folder).iterdir()]
    parts = sorted(part for part in map(part_of, dumps) if part)
    if not parts:
        raise SystemExit(f"{program.name} has counted nothing")
    return {name: figure for _, name, figure in parts}


def part_of(dump: str) -> tuple[int, str, float] | None:
    """Number, path and figure of one dump; nothing for the one at the program's end."""
    label = re.search(r"^desc: Trigger: Client Request: (\S+) (\d+)$", dump, re.MULTILINE)
    if not label:
        return None
    part = re.search(r"^part: (\d+)$", dump, re.MULTILINE)
    total = re.search(r"^(?:totals|summary): (\d+)$", dump, re.MULTILINE)
    return int(part[1]), label[1], int(total[1]) / int(label[2])


def read(path: Path) -> dict[str, float]:
    lines = [line.split() for line in path.read_text().splitlines() if not line.startswith("#")]
    return {name: float(figure) for name, figure in lines}


def write(path: Path, counts: dict[str, float]) -> None:
    width = max(map(len, counts))
    lines = [f"{name:{width}} {figure:10.1f}\n" for name, figure in counts.items()]
    path.write_text(HEADER.format(ACCEPT) + "".join(lines))
    print(f"{len(counts)} figures written to {path}")


def compare(figures: dict[str, float], counts: dict[str, float]) -> int:
    wrong = [f"{name} is not counted any more" for name in figures if name not in counts]
    wrong += [f"{name} has no figure" for name in counts if name not in figures]
    lower = []
    for name in (name for name in figures if name in counts):
        change = 100 * (counts[name] / figures[name] - 1)
        text = (f"by {abs(change):.1f} %, from {figures[name]:.1f} to {counts[name]:.1f} "
                "instructions")
        if change > TOLERANCE:
            wrong.append(f"{name} has grown {text}")
        elif change < -TOLERANCE:
            lower.append(f"{name} has shrunk {text}")
    for line in wrong + lower:
        print(line)
    if wrong or lower:
        print(f"To make this the rule: {ACCEPT}")
    print(f"{len(counts)} paths counted, {len(wrong)} wrong")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
