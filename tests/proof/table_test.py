"""How the rows of proofs become the table of docs/reliability.md, how the families of keys are
chosen for docs/performance.md, and that both pages show what their data holds.

Usage: table_test.py SOURCE_FOLDER
"""

import argparse
import math
import pathlib
import re
import runpy
import sys
import types
import unittest

SOURCE = pathlib.Path(sys.argv.pop(1))
sys.path += [str(SOURCE / folder) for folder in ("scripts", "bench", "tests/mutants")]
import page  # noqa: E402
import rules  # noqa: E402
import table  # noqa: E402
import tables  # noqa: E402

PLATFORMS = types.SimpleNamespace(**runpy.run_path(str(SOURCE / "scripts/platforms")))


def row(what="", **fields):
    return {"part": "Part", "group": "group", "what": what, "tried": {}, "held": "", **fields}


class Groups(unittest.TestCase):
    def test_counts_are_added_up_by_name(self):
        rows = [row(tried={"stops": 2, "faults of a wire": 1, "retries": 1}),
                row(tried={"stops": 1_000})]
        self.assertEqual(table.tried(rows), "1,002 stops, 1 fault of a wire, 1 retry")

    def test_shares_are_added_up_on_both_sides(self):
        rows = [row(counted={"lines": [1, 2]}), row(counted={"lines": [2, 2]})]
        self.assertEqual(table.held(rows), "3 of 4 lines (75.0 %)")

    def test_of_measured_values_the_least_and_the_most_are_shown(self):
        def values(least, most):
            return [{"name": "retry after", "least": least, "most": most, "format": ".2f",
                     "unit": "s"}]

        rows = [row(measured=values(5.5, 6)), row(measured=values(5, 5.25)), row()]
        self.assertEqual(table.held(rows), "retry after 5.00 to 6.00 s")
        self.assertEqual(table.held(rows[:1]), "retry after 5.50 to 6.00 s")

    def test_values_without_a_least_show_the_most(self):
        rows = [row(measured=[{"name": "longest", "most": most, "format": "+.1f", "unit": "MiB"}])
                for most in (0.04, 12)]
        self.assertEqual(table.held(rows), "longest +12.0 MiB")
        self.assertEqual(table.held(rows[:1]), "longest +0.0 MiB")

    def test_the_limit_is_shown_if_every_case_has_one(self):
        def case(**limit):
            return row(measured=[{"name": "longest", "most": 2, "format": ".0f", "unit": "ms",
                                  **limit}])

        rows = [case(limit=50), case(limit=20)]
        self.assertEqual(table.held(rows), "longest 2 ms (limit 50)")
        self.assertEqual(table.held([*rows, case()]), "longest 2 ms")

    def test_equal_claims_and_seeds_are_shown_once(self):
        rows = [row(held="a", seed=7), row(held="b", seed=12), row(held="a", seed=7), row()]
        self.assertEqual(table.cells("group", rows), ["group", "4", "", "a; b", "12, 7"])

    def test_one_failed_case_fails_its_group(self):
        rows = [row(held="a"), row(held="a", failed=True), row(held="a", failed=False)]
        self.assertEqual(table.held(rows), "FAILED: a")


class PageLines(unittest.TestCase):
    def test_parts_have_their_order_and_groups_are_sorted(self):
        rows = [{**row(), "part": part, "group": group, "day": "2026-01-02"}
                for part, group in (("New", "n"), ("Mutants", "b"), ("Mutants", "a"),
                                    ("Cycles", "c"))]
        lines = table.page({"stages": {"proofs": {"machine": "M", "rows": rows}}})
        self.assertEqual(lines[0], "Run on 2026-01-02: M.")
        shown = [line for line in lines if line.startswith(("###", "| ")) and "What" not in line]
        self.assertEqual(shown, ["### Cycles", "| c | 1 |  |  |  |", "### Mutants",
                                 "| a | 1 |  |  |  |", "| b | 1 |  |  |  |", "### New",
                                 "| n | 1 |  |  |  |"])

    def test_each_machine_is_named_with_its_days_and_stages(self):
        stages = {name: {"machine": machine, "rows": [{**row(), "day": day}]}
                  for name, machine, day in (("proofs", "M", "2026-01-02"),
                                             ("fuzz", "N", "2026-01-03"),
                                             ("mutants", "M", "2026-01-04"))}
        lines = table.page({"stages": stages})
        self.assertEqual(lines[:2], ["Run on 2026-01-02 to 2026-01-04 (proofs, mutants): M.",
                                     "Run on 2026-01-03 (fuzz): N."])


class FakeStreams(tables.Streams):
    """Gives each family one ratio in the screening and another one at full length."""

    def __init__(self, ratios, more_is_better=False):
        names = types.SimpleNamespace(names=lambda: list(ratios))
        scale = types.SimpleNamespace(families=None, screening_rounds=3, screening=0, streams=1)
        super().__init__(types.SimpleNamespace(families=names, scale=scale), None, None)
        self.ratios = ratios
        self.more_is_better = more_is_better

    def row(self, name, words, goal, load, family, turns):
        return {"name": name, "what": words, "goal": goal, "ratio": self.ratios[family][turns],
                "more_is_better": self.more_is_better}

    def shown(self):
        return self.rows("cpu", tables.Load(1, 1, 2.0))[0]


class Families(unittest.TestCase):
    def test_the_worst_is_the_worst_at_full_length_of_the_last_in_the_screening(self):
        streams = FakeStreams({"plain": (1, 1), "a": (9, 2), "b": (2, 7), "c": (8, 4), "d": (7, 3),
                               "e": (3, 1)})
        self.assertEqual([(row["what"], row["ratio"], row["goal"]) for row in streams.shown()],
                         [("plain keys", 1, None), ("median family: d", 3, None),
                          ("worst family: c", 4, 2.0)])

    def test_of_rates_the_lowest_ratio_is_the_worst(self):
        streams = FakeStreams({"plain": (3, 3), "a": (1, 1), "b": (2, 2)}, more_is_better=True)
        self.assertEqual([row["what"] for row in streams.shown()],
                         ["plain keys", "median family: b", "worst family: a"])

    def test_only_the_worst_has_a_name_that_is_compared(self):
        streams = FakeStreams({"plain": (1, 1)})
        self.assertEqual([row["name"] for row in streams.shown()],
                         ["cpu/plain", "cpu/median", "cpu"])


class Crossing(unittest.TestCase):
    def crossing(self, *searches):
        sizes = [str(size) for size in page.SIZES]
        parts = {"read": {"plain": dict.fromkeys(sizes, 1)},
                 "search": {"plain": dict(zip(sizes, searches))}}
        return page.crossing(parts, "plain")

    def test_is_interpolated_between_two_sizes(self):
        self.assertAlmostEqual(self.crossing(1 / 4, 1 / 2, 2, 4), (128 * 1024) ** 0.5)

    def test_is_infinite_if_reading_always_takes_longer(self):
        self.assertEqual(self.crossing(1 / 4, 1 / 3, 1 / 2, 1), math.inf)

    def test_is_the_least_size_if_the_search_always_takes_longer(self):
        self.assertEqual(self.crossing(2, 2, 2, 2), 16)


class Platforms(unittest.TestCase):
    def row(self, release, check, compiler="g++", result=""):
        return {"platform": release, "wanted": compiler, "check": check, "result": result}

    def test_a_row_replaces_that_of_its_check_and_platform(self):
        rows = [self.row("b", "tests"), self.row("b", "packages"), self.row("a", "tests"),
                self.row("b", "tests", "clang++-19")]
        new = self.row("b", "tests", result="new")
        self.assertEqual(PLATFORMS.with_row(rows, new), [rows[2], rows[3], rows[1], new])

    def test_a_platform_has_a_release_and_an_architecture_or_a_compiler(self):
        platform = PLATFORMS.Platform
        self.assertEqual(platform.of("a"), platform("a", "", "g++"))
        self.assertEqual(platform.of("a:clang++-19"), platform("a", "", "clang++-19"))
        self.assertEqual(platform.of("a/arm64"), platform("a", "arm64", "g++"))
        for wrong in ("", "a/amiga", "a/arm64:g++-12", "a:vc", "a b"):
            with self.assertRaises(argparse.ArgumentTypeError, msg=wrong):
                platform.of(wrong)

    def test_a_result_has_the_closing_line_of_the_tests(self):
        log = "1/1 passed\n98% tests passed, 2 tests failed out of 100\nErrors\n"
        self.assertEqual(PLATFORMS.result_of(log, 8),
                         "FAILED: Errors; 98% tests passed, 2 tests failed out of 100")
        self.assertEqual(PLATFORMS.result_of("built\n", 0), "passed")
        self.assertEqual(PLATFORMS.result_of("", 1), "FAILED: no output")


class Pages(unittest.TestCase):
    def test_reliability_shows_what_its_data_holds(self):
        self.assertEqual(table.PAGE.document.read_text(), table.PAGE.text(table.PAGE.load()))

    def test_reliability_shows_the_platforms(self):
        page_of = PLATFORMS.PAGE
        self.assertEqual(page_of.document.read_text(), page_of.text(page_of.load()))

    def test_reliability_shows_the_rules(self):
        self.assertEqual(rules.PAGE.document.read_text(), rules.PAGE.text(rules.PAGE.load()))

    def test_performance_shows_what_its_data_holds(self):
        data = page.PAGE.load()
        self.assertEqual(page.PAGE.document.read_text(), page.PAGE.text(data))
        self.assertEqual(page.CHART.read_text(), page.chart_of(data))


class Strangers(unittest.TestCase):
    """The table of what strangers can send names tests that exist."""

    def test_each_named_test_exists(self):
        text = table.PAGE.document.read_text()
        section = text[text.index("## What strangers can send"):text.index("## Lines and branches")]
        rows = [line for line in section.splitlines() if line.startswith("| ")][1:]
        self.assertGreater(len(rows), 10)
        sources = "\n".join(path.read_text() for path in (SOURCE / "tests").rglob("*.cpp")
                            if "node_modules" not in path.parts)
        targets = (SOURCE / "tests/fuzz/CMakeLists.txt").read_text()
        for row in rows:
            names = re.findall(r"`([^`]+)`", row.split(" | ")[-1])
            self.assertTrue(names, row)
            for name in names:
                suite, _, case = name.partition(".")
                exists = (re.search(rf"TEST(_F|_P)?\({suite}, {case}\)", sources) if case
                          else f"  {name}\n" in targets)
                self.assertTrue(exists, name)


if __name__ == "__main__":
    unittest.main()
