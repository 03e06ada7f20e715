"""A scratch copy of the tree with a build directory of its own, where one mutant at a time is
compiled and tested."""

import filecmp
import fnmatch
import json
import os
import re
import shutil
import signal
import subprocess
import tempfile
from dataclasses import dataclass, field
from pathlib import Path

from plan import Mutant, Program, Stage

COPIED = ("CMakeLists.txt", "LICENSE", "cmake", "include", "oxutils", "src", "tarn_io", "tests")
# Fast to compile and to link: nothing is debugged here, and a mutant may well earn a warning. An
# index beyond its container has to show.
FLAGS = {
    "CMAKE_BUILD_TYPE": "",
    "CMAKE_CXX_FLAGS": "-O0 -g0 -w -D_GLIBCXX_ASSERTIONS",
    "CMAKE_C_FLAGS": "-O0 -g0 -w",
    "CMAKE_EXE_LINKER_FLAGS": "-fuse-ld=gold",
    "CMAKE_SHARED_LINKER_FLAGS": "-fuse-ld=gold",
    "CMAKE_LINK_DEPENDS_NO_SHARED": "ON",
    "CMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE": "PRE_TEST",
    "CMAKE_C_COMPILER_LAUNCHER": "ccache",
    "CMAKE_CXX_COMPILER_LAUNCHER": "ccache",
    "TARN_BUILD_TESTS": "ON",
    "TARN_BUILD_TOOLS": "OFF",
}
BUILD_LIMIT = 600  # s
BASELINE_LIMIT = 900  # s
# A mutant may hang; load from elsewhere may slow an innocent one down.
SLOWEST_START = 10  # s
SLOWDOWN = 4
TOO_LONG = " (took too long)"


@dataclass
class Tests:
    """How the tests of one program went without any mutant."""

    seconds: dict[str, float] = field(default_factory=dict)
    alone: set[str] = field(default_factory=set)  # do not pass beside others in one process
    broken: set[str] = field(default_factory=set)  # nor alone

    def matching(self, test_filter: str) -> tuple[list[str], list[str]]:
        """Those that share a process, and those that need one each."""
        patterns = test_filter.split(":") if test_filter else ["*"]
        names = [name for name in self.seconds if name not in self.broken
                 and any(fnmatch.fnmatchcase(name, each) for each in patterns)]
        return ([name for name in names if name not in self.alone],
                [name for name in names if name in self.alone])


@dataclass(frozen=True)
class Verdict:
    outcome: str  # killed, survived or invalid (does not compile)
    by: str = ""  # the test that noticed


class Bench:
    def __init__(self, root: Path, home: Path) -> None:
        self._root = root
        self._tree = home / "tree"
        self._build = home / "build"
        self._tests: dict[str, Tests] = {}
        # The same command lines in every bench, so that one compiles what the others then take over.
        self._env = os.environ | {
            "CCACHE_BASEDIR": str(home), "CCACHE_NOHASHDIR": "1",
            "CCACHE_DIR": str(home.parent / "ccache"),
        }

    def prepare(self, programs: list[Program], jobs: int) -> None:
        for name in COPIED:
            _copy_changes(self._root / name, self._tree / name)
        definitions = [f"-D{name}={value}" for name, value in FLAGS.items()]
        configure = ["cmake", "-S", self._tree, "-B", self._build, "-G", "Ninja", *definitions]
        build = ["cmake", "--build", self._build, "-j", str(jobs), "--target",
                 *(each.name for each in programs)]
        for command in (configure, build):
            done = subprocess.run(command, env=self._env, text=True, stdout=subprocess.PIPE,
                                  stderr=subprocess.STDOUT)
            if done.returncode != 0:
                raise SystemExit(f"{done.stdout[-4000:]}\n{command[0]} failed in {self._tree}")

    def measure(self, program: Program) -> Tests:
        """Two runs, so that what passes by luck is found out; each bench measures at the same time,
        so that the machine is as busy as it will be."""
        tests = Tests()
        for _ in range(2):
            for name, passed, seconds in self._results(program):
                tests.seconds[name] = max(seconds, tests.seconds.get(name, 0))
                if not passed:
                    tests.alone.add(name)
        tests.broken = {name for name in tests.alone if self._run(program, [name], 60)}
        tests.alone -= tests.broken
        self._tests[program.name] = tests
        return tests

    def leave_out(self, program: Program, tests: Tests) -> None:
        """What another bench could not rely on is not relied on here."""
        own = self._tests[program.name]
        own.broken |= tests.broken
        own.alone = (own.alone | tests.alone) - own.broken

    def try_mutant(self, mutant: Mutant, stages: list[Stage]) -> Verdict:
        target = self._tree / mutant.path
        original = target.read_text()
        try:
            target.write_text(mutant.mutation.apply(original))
            for stage in stages:
                if not self._compile(stage.program):
                    return Verdict("invalid")
                killer = self._run_stage(stage)
                if killer:
                    return Verdict("killed", killer)
            return Verdict("survived")
        finally:
            target.write_text(original)

    def _compile(self, program: Program) -> bool:
        command = ["ninja", "-C", self._build, "-j1", program.name]
        return subprocess.run(command, env=self._env, stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL, timeout=BUILD_LIMIT).returncode == 0

    def _run_stage(self, stage: Stage) -> str:
        tests = self._tests[stage.program.name]
        together, alone = tests.matching(stage.test_filter)
        for names in [together, *([name] for name in alone)]:
            expected = sum(tests.seconds[name] for name in names)
            killer = self._run(stage.program, names, SLOWEST_START + SLOWDOWN * expected)
            if killer:
                return killer
        return ""

    def _run(self, program: Program, names: list[str], limit: float) -> str:
        """Name of the first test that fails, or ""."""
        if not names:
            return ""
        command = [self._build / program.output, "--gtest_fail_fast", "--gtest_color=no",
                   f"--gtest_filter={':'.join(names)}"]
        with tempfile.TemporaryFile("w+", errors="replace") as output:
            code = _run_within(command, limit, self._env, output)
            if code == 0:
                return ""
            output.seek(0)
            text = output.read()
        if code is None:
            return f"{(_tests_marked('RUN      ', text) or [program.name])[-1]}{TOO_LONG}"
        # Without a failed test the process has died in the one that was running.
        failed = _tests_marked("  FAILED  ", text)
        return failed[0] if failed else (_tests_marked("RUN      ", text) or [program.name])[-1]

    def _results(self, program: Program) -> list[tuple[str, bool, float]]:
        with (tempfile.NamedTemporaryFile(suffix=".json") as report,
              tempfile.TemporaryFile("w+", errors="replace") as output):
            command = [self._build / program.output, f"--gtest_output=json:{report.name}"]
            code = _run_within(command, BASELINE_LIMIT, self._env, output)
            text = report.read()
            if not text:
                output.seek(0)
                raise SystemExit(f"{output.read()[-2000:]}\n"
                                 f"{program.name} does not come to its end (exit code {code})")
            suites = json.loads(text)["testsuites"]
        return [(f"{suite['name']}.{test['name']}",
                 test["result"] == "COMPLETED" and "failures" not in test,
                 float(test["time"].rstrip("s")))
                for suite in suites for test in suite["testsuite"]]


def _run_within(command: list, limit: float, env: dict, output) -> int | None:
    """The exit code; None if it had to be ended, together with whatever it started."""
    process = subprocess.Popen(command, env=env, stdin=subprocess.DEVNULL, stdout=output,
                               stderr=subprocess.STDOUT, start_new_session=True)
    try:
        return process.wait(timeout=limit)
    except subprocess.TimeoutExpired:
        return None
    finally:
        if process.poll() is None:
            os.killpg(process.pid, signal.SIGKILL)
            process.wait()


def _tests_marked(mark: str, output: str) -> list[str]:
    return re.findall(rf"^\[ ?{mark}\] ([^\s,]+)", output, re.MULTILINE)


def _copy_changes(source: Path, copy: Path) -> None:
    """Leaves files alone that are the same, so that nothing is compiled again for nothing."""
    if source.is_file():
        copy.parent.mkdir(parents=True, exist_ok=True)
        if not copy.exists() or not filecmp.cmp(source, copy, shallow=False):
            shutil.copyfile(source, copy)
            copy.chmod(source.stat().st_mode)
        return
    names = {each.name for each in source.iterdir()}
    copy.mkdir(parents=True, exist_ok=True)
    for gone in [each for each in copy.iterdir() if each.name not in names]:
        shutil.rmtree(gone) if gone.is_dir() else gone.unlink()
    for name in sorted(names):
        _copy_changes(source / name, copy / name)
