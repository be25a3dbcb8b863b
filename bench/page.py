"""docs/performance.md: makes its tables and its chart from the figures in docs/performance.json."""

import math
import statistics

import chart
import measuring
from measuring import amount
from tables import TABLES
from workload import GROWTH

CHART = measuring.ROOT / "docs/images/growth.svg"
HEAD = ["Measure", "Bare", "Module", "Ratio (quartiles)", "Goal", ""]


# ---- Rows ---------------------------------------------------------------------------------------


def verdict(row):
    if row["goal"] is None:
        return ""
    if row["bound"] is not None and row["module"] > row["bound"]:
        return f"missed: above {amount(row['bound'], 's')}"
    sign = -1 if row["more_is_better"] else 1
    if sign * row["ratio"] <= sign * row["goal"]:
        return "met"
    better = row["high"] if row["more_is_better"] else row["low"]
    return "within the noise" if sign * better <= sign * row["goal"] else "missed"


def cells(row):
    return [
        row["what"],
        amount(row["bare"], row["unit"]),
        amount(row["module"], row["unit"]),
        f"×{row['ratio']:.2f} ({row['low']:.2f} to {row['high']:.2f})",
        "" if row["goal"] is None else f"×{row['goal']:.3g}",
        verdict(row),
    ]


def print_table(title, rows):
    if not rows:
        return
    table = [HEAD, *map(cells, rows)]
    widths = [max(len(line[i]) for line in table) for i in range(len(HEAD))]
    print(f"\n{title}")
    for line in table:
        print("  " + "  ".join(f"{cell:<{width}}" for cell, width in zip(line, widths)).rstrip())


# ---- Growth -------------------------------------------------------------------------------------


def slope(points):
    """The exponent of the power of x that fits (x, y) best."""
    points = [(math.log(x), math.log(y)) for x, y in points if y > 0]
    if len(points) < 2:
        return math.nan
    mean_x = statistics.fmean(x for x, _ in points)
    mean_y = statistics.fmean(y for _, y in points)
    spread = sum((x - mean_x) ** 2 for x, _ in points)
    return sum((x - mean_x) * (y - mean_y) for x, y in points) / spread


def crossing(parts):
    """The size from which the search takes longer than parsing, interpolated between two sizes that
    were measured. None if it never does."""
    previous = None
    for size in (16, *GROWTH):
        over = math.log(parts[f"search/{size}"] / parts[f"parse/{size}"])
        if over > 0:
            if previous is None:
                return size
            before, under = previous
            share = -under / (over - under)
            return round(before * (size / before) ** share)
        previous = size, over
    return None


def points_of(rows, subject):
    return [(size, row[subject]) for size, row in zip(GROWTH, rows)]


def part_points(parts, *names):
    return [(size, sum(parts[f"{name}/{size}"] for name in names)) for size in GROWTH]


def growth_text(rows, parts):
    """Says how everything grows. Below 256 values the difference is less than the noise."""
    extra = [(size, row["module"] - row["bare"]) for size, row in zip(GROWTH, rows) if size >= 256]
    cross = crossing(parts)
    return (
        f"From 64 to 2,048 values the bare client's CPU grows as N^"
        f"{slope(points_of(rows, 'bare')):.2f}. Of the parts, parsing grows as N^"
        f"{slope(part_points(parts, 'parse')):.2f}, the copy as N^"
        f"{slope(part_points(parts, 'copy')):.2f}, the search as N^"
        f"{slope(part_points(parts, 'search')):.2f}, and copy and search together as N^"
        f"{slope(part_points(parts, 'copy', 'search')):.2f}. The module's CPU beyond that of the"
        f" bare client grows as N^{slope(extra):.2f} from 256 values on; below that it is less than"
        " the noise. "
        + (
            f"The search takes longer than parsing from about {cross:,} values on."
            if cross
            else f"Up to {GROWTH[-1]:,} values the search takes less time than parsing."
        )
    )


def growth_chart(rows, parts):
    return chart.Chart(
        [
            ("bare client", "a", points_of(rows, "bare")),
            ("module", "b", points_of(rows, "module")),
            ("parsing", "c thin", part_points(parts, "parse")),
            ("copy", "d thin", part_points(parts, "copy")),
            ("search", "e thin", part_points(parts, "search")),
        ]
    ).svg()


# ---- The page -----------------------------------------------------------------------------------


def part_table(parts):
    names = ("parse", "copy", "search", "naive", "change")
    rows = [[f"{size:,}", *(amount(parts[f"{name}/{size}"], "s") for name in names)]
            for size in (16, *GROWTH)]
    return measuring.table(
        ["Values", "Parse", "Copy", "Search", "Plain search", "One change"], rows)


def busy_text(busy):
    shares = ", ".join(
        f"{share['client']:.0%} and {share['server']:.0%} with {int(count):,} values"
        for count, share in busy.items()
    )
    return f"The less busy client and the server used this much of their cores: {shares}."


def load_text(loads):
    """Whether the machine had other work: the load before a table adds its own."""
    return (
        f"Load average when a table was begun: {min(loads):.1f} to {max(loads):.1f} (a run by"
        " itself makes about 2)."
    )


def section(name, tables):
    parts = tables["parts"]["parts"]
    figures = tables[name]
    if name == "parts":
        return [*part_table(parts), ""]
    lines = [*measuring.table(HEAD, map(cells, figures["rows"])), ""]
    if name == "saturation":
        lines += [busy_text(figures["busy"]), ""]
    if name == "growth":
        lines += ["![CPU per message by the number of values](images/growth.svg)", ""]
        lines += [growth_text(figures["rows"], parts), ""]
    return lines


def page(data):
    """The lines between the marks of docs/performance.md."""
    tables = data["tables"]
    taken = [(name, figures["day"], figures["machine"]) for name, figures in tables.items()]
    lines = [*measuring.taken_on("Measured", taken)]
    lines += [load_text([load for figures in tables.values() for load in figures["load"]]), ""]
    for name, (title, _) in TABLES.items():
        lines += [f"### {title}", "", *section(name, tables)]
    return lines


def chart_of(data):
    tables = data["tables"]
    return growth_chart(tables["growth"]["rows"], tables["parts"]["parts"])


PAGE = measuring.Page("scripts/bench", "docs/performance.md", "docs/performance.json", page)
