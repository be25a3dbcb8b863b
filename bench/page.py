"""docs/performance.md: makes its tables and its chart from the figures in docs/performance.json."""

import itertools
import math
import statistics

import chart
import measuring
from measuring import amount
from tables import MESSAGES, TABLES
from workload import SIZES

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
    points = [(math.log(x), math.log(y)) for x, y in points]
    mean_x = statistics.fmean(x for x, _ in points)
    mean_y = statistics.fmean(y for _, y in points)
    spread = sum((x - mean_x) ** 2 for x, _ in points)
    return sum((x - mean_x) * (y - mean_y) for x, y in points) / spread


def crossing(parts, family):
    """The number of values from which the search takes longer than reading, interpolated between
    two sizes that were measured. Infinite if it never does."""
    previous = None
    for size in SIZES:
        over = math.log(parts["search"][family][str(size)] / parts["read"][family][str(size)])
        if over > 0:
            if previous is None:
                return size
            before, under = previous
            return before * (size / before) ** (-under / (over - under))
        previous = size, over
    return math.inf


def size_text(size):
    return f"{float(f'{size:.2g}'):,.0f}" if size < math.inf else f"above {SIZES[-1]:,}"


def crossing_text(parts):
    order = sorted(parts["search"], key=lambda family: crossing(parts, family))
    median, worst = order[len(order) // 2], order[0]
    plain, middle, least = (size_text(crossing(parts, family))
                            for family in ("plain", median, worst))
    return (f"The search takes longer than reading from {plain} values on with plain keys, from"
            f" {middle} on with the median family ({median}), and from {least} on with the worst"
            f" ({worst}).")


def points_of(figures, suffix, subject):
    """The time of a message by its number of values: with plain keys for the suffix "/plain", with
    those of the worst family for none."""
    rows = {row["name"]: row for row in figures["rows"]}
    return [(size, rows[f"cpu-{size}{suffix}"][subject]) for size in SIZES]


def part_points(parts, name):
    return [(size, parts[name]["plain"][str(size)]) for size in SIZES]


def growth_text(messages, parts):
    grown = {
        "the bare client's CPU": points_of(messages, "/plain", "bare"),
        "the module's with plain keys": points_of(messages, "/plain", "module"),
        "the module's with those of the worst families": points_of(messages, "", "module"),
        "the generated parser": part_points(parts, "parse"),
        "reading": part_points(parts, "read"),
        "the copy": part_points(parts, "copy"),
        "the search": part_points(parts, "search"),
    }
    exponents = ", ".join(f"{what} as N^{slope(points):.2f}" for what, points in grown.items())
    return f"From {SIZES[0]} to {SIZES[-1]:,} values these grow: {exponents}."


def growth_chart(messages, parts):
    return chart.Chart(
        [
            ("bare client", "a", points_of(messages, "/plain", "bare")),
            ("module", "b", points_of(messages, "/plain", "module")),
            ("bare, worst keys", "a thin", points_of(messages, "", "bare")),
            ("module, worst keys", "b thin", points_of(messages, "", "module")),
            ("reading", "c thin", part_points(parts, "read")),
            ("copy", "d thin", part_points(parts, "copy")),
            ("search", "e thin", part_points(parts, "search")),
        ]
    ).svg()


# ---- Sections -----------------------------------------------------------------------------------


def row_table(figures):
    return [*measuring.table(HEAD, map(cells, figures["rows"])), ""]


def saturation_section(tables):
    figures = tables["saturation"]
    return [*row_table(figures),
            f"Each client used at least {min(row['busy'] for row in figures['rows']):.0%} of its"
            " core.", ""]


def part_section(tables):
    parts = tables["parts"]["parts"]
    names = ("parse", "read", "copy", "search", "naive", "change")
    rows = [[f"{size:,}", *(amount(parts[name]["plain"][str(size)], "s") for name in names)]
            for size in SIZES]
    head = ["Values", "Generated parser", "Read", "Copy", "Search", "Plain search", "One change"]
    return [
        *measuring.table(head, rows), "",
        "![CPU per message by the number of values](images/growth.svg)", "",
        growth_text(tables["messages"], parts), "",
        crossing_text(parts), "",
        "All families, with their ratios in the screening:", "",
        *family_table(tables), "",
    ]


def shortened(key):
    return key if len(key) <= 40 else f"{key[:25]}…{key[-14:]}"


def family_table(tables):
    """What each family costs: its ratios in the screening, and its parts."""
    parts, screened = tables["parts"]["parts"], tables["messages"]["screened"]
    screened = {name: found for name, found in screened.items() if found}
    head = ["Family", "Example", *(MESSAGES[name].words() for name in screened),
            "Copy, 1,024 entries", "One search, 1,024 keys", "Search outweighs reading from"]
    rows = []
    for family, example in tables["parts"]["examples"].items():
        ratios = (found.get(family) for found in screened.values())
        row = [family, f"`{shortened(example)}`"]
        row += [f"×{ratio:.2f}" if ratio else "" for ratio in ratios]
        row += [
            amount(parts["copy"][family]["1024"], "s"),
            amount(parts["search"][family]["1024"] / 1024, "s"),
            size_text(crossing(parts, family)),
        ] if family in parts["search"] else [""] * 3
        rows.append(row)
    return measuring.table(head, rows)


def start_section(tables):
    starts = tables["starts"]["starts"]
    own = [(start["entries"], start["seconds"] - start["host"]) for start in starts]
    further = [amount((more_time - time) / (more - entries), "s")
               for (entries, time), (more, more_time) in itertools.pairwise(own)]
    rows = [[f"{entries:,}", amount(start["seconds"], "s"), amount(start["host"], "s"),
             amount(time, "s"), each]
            for start, (entries, time), each in zip(starts, own, ["", *further])]
    head = ["Entries", "startCycle", "The host's operations", "The module itself",
            "The module for each further entry"]
    return [*measuring.table(head, rows), ""]


def check_section(tables):
    def speed(run):
        # A single line says nothing about the speed.
        return f"{run['bytes'] / run['seconds'] / 1e6:.0f} MB/s" if run["meters"] > 1 else ""

    rows = [[f"{run['meters']:,}", run["kind"], amount(run["bytes"], "B"),
             amount(run["seconds"], "s"), speed(run)]
            for run in tables["check"]["checks"]]
    return [*measuring.table(["Meters", "Lines", "File", "CPU", "Speed"], rows), ""]


def recording_section(tables):
    rows = [
        [
            f"{run['wanted']:,.0f} /s" if run["wanted"] else "as many as possible",
            amount(run["messages"] / run["seconds"], "/s"),
            f"{run['lost']:,.0f}",
            f"{run['bytes'] / run['seconds'] / 1e6:.0f} MB/s",
            f"{run['cpu'] / run['seconds']:.0%}",
            f"{run['file'] / run['seconds'] / 1e6:.2f} MB/s",
        ]
        for run in tables["recording"]["runs"]
    ]
    head = ["Messages sent", "Recorded", "Lost", "Content", "CPU", "File"]
    seconds = tables["recording"]["runs"][0]["seconds"]
    return [*measuring.table(head, rows), "", f"Each row was recorded for {seconds:.0f} s.", ""]


def relay_section(tables):
    def speed(rate):
        return f"{rate / 1e6:,.0f} MB/s"

    rows = [
        [
            f"{run['bytes']:,} B",
            amount(run["directTrip"] / 2, "s"),
            amount(run["relayedTrip"] / 2, "s"),
            amount((run["relayedTrip"] - run["directTrip"]) / 2, "s"),
            speed(run["directRate"]),
            speed(run["relayedRate"]),
            amount(run["cpu"] * 1e6, "s"),
        ]
        for run in tables["relay"]["sizes"]
    ]
    head = ["Message", "Latency, direct", "Through the relay", "Added", "Throughput, direct",
            "Through the relay", "The relay's CPU per MB"]
    return [*measuring.table(head, rows), ""]


def live_page_section(tables):
    rows = [
        [
            f"{run['slots']:,.0f}",
            f"{run['moving']:,.0f}",
            f"{run['changes']:,.0f}",
            f"{run['frames']:.0f}",
            f"{run['long']:.0f}",
            amount(run["longest"], "s") if run["long"] else "below 50 ms",
            amount(run["longestInUse"], "s") if run["longestInUse"] else "below 50 ms",
            f"{run['browserCpu']:.0%}",
            f"{run['hostCpu']:.1%}",
            amount(run["browserMemory"], "B"),
            amount(run["hostMemory"], "B"),
        ]
        for run in tables["page"]["pages"]
    ]
    head = ["Slots", "Changing", "Changes/s", "Frames/s", "Tasks over 50 ms", "Longest task",
            "Longest task in use", "CPU of the browser", "CPU of the host",
            "Memory of the browser", "Memory of the host"]
    seconds = tables["page"]["pages"][0]["seconds"]
    return [*measuring.table(head, rows), "", f"Each row was measured for {seconds:.0f} s.", ""]


SECTIONS = {
    "saturation": saturation_section,
    "parts": part_section,
    "starts": start_section,
    "check": check_section,
    "recording": recording_section,
    "relay": relay_section,
    "page": live_page_section,
}


# ---- The page -----------------------------------------------------------------------------------


def load_text(loads):
    """Whether the machine had other work: the load before a table adds its own."""
    return (
        f"Load average when a table was begun: {min(loads):.1f} to {max(loads):.1f} (a run by"
        " itself makes about 2)."
    )


def page(data):
    """The lines between the marks of docs/performance.md."""
    tables = data["tables"]
    taken = [(name, figures["day"], figures["machine"]) for name, figures in tables.items()]
    seeds = {figures["seed"] for figures in tables.values() if "seed" in figures}
    lines = [*measuring.taken_on("Measured", taken)]
    lines += [load_text([load for figures in tables.values() for load in figures["load"]])]
    lines += [f"Seed of the keys: {', '.join(map(str, sorted(seeds)))}.", ""]
    for name, (title, _) in TABLES.items():
        made = SECTIONS[name](tables) if name in SECTIONS else row_table(tables[name])
        lines += [f"### {title}", "", *made]
    return lines


def chart_of(data):
    tables = data["tables"]
    return growth_chart(tables["messages"], tables["parts"]["parts"])


PAGE = measuring.Page("scripts/bench", "docs/performance.md", "docs/performance.json", page)
