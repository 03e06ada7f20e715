#!/usr/bin/env python3
"""What compare.py promises, on recorded figures."""

import os
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

COMPARE = Path(__file__).resolve().parent / "compare.py"
FIGURES = {"reliable_64": 1500.0, "unreliable_64": 500.0, "create": 9000.0}
PASSED, FAILED, SKIPPED = 0, 1, 77


class Comparison(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)

    def file(self, name: str, figures: dict[str, float]) -> str:
        path = self.folder / name
        path.write_text("# a heading\n" + "".join(f"{k}   {v}\n" for k, v in figures.items()))
        return str(path)

    def run_it(self, *arguments: str, **environment: str) -> tuple[int, str]:
        kept = {name: value for name, value in os.environ.items() if name != "CI"}
        result = subprocess.run([sys.executable, "-B", COMPARE, *arguments], text=True,
                                env={**kept, **environment}, stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT)
        return result.returncode, result.stdout

    def compare(self, figures: dict[str, float], counts: dict[str, float]) -> tuple[int, str]:
        return self.run_it("--figures", self.file("figures", figures),
                           "--counts", self.file("counts", counts))

    def test_equal_counts_pass(self):
        self.assertEqual(self.compare(FIGURES, FIGURES)[0], PASSED)

    def test_path_whose_figure_is_five_percent_lower_fails_by_name(self):
        code, text = self.compare({**FIGURES, "reliable_64": 1425.0}, FIGURES)
        self.assertEqual(code, FAILED)
        self.assertIn("reliable_64 has grown by 5.3 %, from 1425.0 to 1500.0 instructions", text)
        self.assertNotIn("unreliable_64", text)

    def test_growth_within_three_percent_passes(self):
        self.assertEqual(self.compare(FIGURES, {**FIGURES, "create": 9260.0})[0], PASSED)

    def test_growth_above_three_percent_fails(self):
        self.assertEqual(self.compare(FIGURES, {**FIGURES, "create": 9280.0})[0], FAILED)

    def test_path_that_is_not_counted_fails_by_name(self):
        code, text = self.compare({**FIGURES, "gone": 1.0}, FIGURES)
        self.assertEqual(code, FAILED)
        self.assertIn("gone is not counted", text)

    def test_path_without_figure_fails_by_name(self):
        code, text = self.compare(FIGURES, {**FIGURES, "new": 1.0})
        self.assertEqual(code, FAILED)
        self.assertIn("new has no figure", text)

    def test_lower_count_passes_and_says_how_to_accept_it(self):
        code, text = self.compare(FIGURES, {**FIGURES, "create": 8000.0})
        self.assertEqual(code, PASSED)
        self.assertIn("create has shrunk by 11.1 %", text)
        self.assertIn("--accept-instructions", text)

    def test_accepted_counts_pass(self):
        figures = str(self.folder / "figures")
        counts = self.file("counts", FIGURES)
        self.run_it("--figures", figures, "--counts", counts, "--accept")
        self.assertEqual(self.run_it("--figures", figures, "--counts", counts)[0], PASSED)

    def test_machine_without_figures_is_skipped(self):
        code, text = self.run_it("--figures", str(self.folder / "sparc-gcc99.txt"),
                                 "--counts", self.file("counts", FIGURES))
        self.assertEqual(code, SKIPPED)
        self.assertIn("sparc-gcc99.txt", text)

    def test_missing_valgrind_is_skipped(self):
        code, text = self.run_it("--figures", self.file("figures", FIGURES), "--program", "none",
                                 PATH=str(self.folder))
        self.assertEqual(code, SKIPPED)
        self.assertIn("valgrind is missing", text)

    def test_missing_valgrind_fails_in_ci(self):
        code, _ = self.run_it("--figures", self.file("figures", FIGURES), "--program", "none",
                              PATH=str(self.folder), CI="1")
        self.assertEqual(code, FAILED)


if __name__ == "__main__":
    unittest.main()
