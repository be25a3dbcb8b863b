"""The tables of scripts/mutate fit the sources.

Usage: subjects_test.py SOURCE_FOLDER
"""

import pathlib
import sys
import unittest

SOURCE = pathlib.Path(sys.argv.pop(1)).resolve()
sys.path.append(str(SOURCE / "scripts"))
import results  # noqa: E402
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


if __name__ == "__main__":
    unittest.main()
