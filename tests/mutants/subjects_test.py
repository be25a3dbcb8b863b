"""The tables of scripts/mutate fit the sources.

Usage: subjects_test.py SOURCE_FOLDER
"""

import pathlib
import re
import sys
import unittest

SOURCE = pathlib.Path(sys.argv.pop(1)).resolve()
sys.path.append(str(SOURCE / "scripts"))
import results  # noqa: E402
import rules  # noqa: E402
import subjects  # noqa: E402

TESTS = [str(path.relative_to(SOURCE)) for path in (SOURCE / "tests").rglob("*.[ch]*")]
POSSIBLE = subjects.possible_mutants(TESTS)
MUTATED = (subjects.MODULE, "src/shquote", "src/ini")
NOT_IN_THE_MODULE = ("src/ini/conformance",)


class Subjects(unittest.TestCase):
    def test_every_source_of_the_module_with_mutants_is_a_subject(self):
        for folder in MUTATED:
            for path in (SOURCE / folder).iterdir():
                file = str(path.relative_to(SOURCE))
                if path.suffix in (".cpp", ".h") and not file.startswith(NOT_IN_THE_MODULE):
                    has_mutants = subjects.operators.mutants_of(file, path.read_text())
                    self.assertTrue(file in subjects.SUBJECTS or not has_mutants, file)

    def test_every_explained_survivor_is_a_possible_mutant(self):
        stale = [row for row, _ in results.Explanations().stale(POSSIBLE, {})]
        self.assertEqual(stale, [])


class Rules(unittest.TestCase):
    RULES = [rule for rules in rules.read().values() for rule in rules]
    TESTS = {match for file in TESTS if file.endswith(".cpp")
             for match in re.findall(r"^(?:TYPED_)?TEST(?:_[FP])?\(\s*(\w+),\s*(\w+)\)",
                                     (SOURCE / file).read_text(), re.MULTILINE)}

    def test_each_fault_can_be_planted_in_one_place_and_moves_no_line(self):
        for rule in self.RULES:
            with self.subTest(rule.rule):
                places = (SOURCE / rule.file).read_text().count(rule.before)
                self.assertTrue(places == 1 or 1 < rule.occurrence <= places, f"{places} places")
                self.assertNotEqual(rule.before, rule.after)
                self.assertEqual(rule.before.count("\n"), rule.after.count("\n"))

    def exists(self, test):
        """`test` is as in a filter: Prefix/Suite.Case/*, or Suite/3.Case for a suite of types."""
        suite, case = test.split(".")
        case = case.split("/")[0]
        return any((part, case) in self.TESTS for part in suite.split("/"))

    def test_each_test_exists(self):
        for rule in self.RULES:
            [(program, tests)] = rule.checks
            with self.subTest(rule.rule):
                self.assertIn(program, subjects.PROGRAMS)
                if tests != subjects.ASSERTION:
                    for test in tests.split(":"):
                        self.assertTrue(self.exists(test), test)

    def test_each_rule_has_one_row(self):
        self.assertEqual(len(self.RULES), len({rule.rule for rule in self.RULES}))


if __name__ == "__main__":
    unittest.main()
