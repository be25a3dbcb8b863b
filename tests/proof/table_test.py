"""How the rows of proofs become the table of docs/reliability.md, and that the page has the table
that its data gives.

Usage: table_test.py SOURCE_FOLDER
"""

import pathlib
import sys
import unittest

SOURCE = pathlib.Path(sys.argv.pop(1))
sys.path += [str(SOURCE / "scripts"), str(SOURCE / "bench")]
import page  # noqa: E402
import table  # noqa: E402


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


class Pages(unittest.TestCase):
    def test_reliability_shows_what_its_data_holds(self):
        self.assertEqual(table.PAGE.document.read_text(), table.PAGE.text(table.PAGE.load()))

    def test_performance_shows_what_its_data_holds(self):
        data = page.PAGE.load()
        self.assertEqual(page.PAGE.document.read_text(), page.PAGE.text(data))
        self.assertEqual(page.CHART.read_text(), page.chart_of(data))


if __name__ == "__main__":
    unittest.main()
