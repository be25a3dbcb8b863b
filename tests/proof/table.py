"""The table of docs/reliability.md: puts the rows of proofs together, one per group.

A row is a case, as tests/proof/Proof.h describes it. The cases of a group become one row of the
page: what was tried and what was counted is added up, and of what was measured the table has the
least and the most. docs/reliability.json keeps the cases themselves.
"""

import measuring

PARTS = (  # in the order of the page; others follow
    "Out of memory",
    "Faults of the network",
    "Peers on other implementations",
    "Stop in every state",
    "Cycles",
    "Soak",
    "Hosts of every kind",
    "Host's thread",
    "Sanitizers",
    "Fuzzing",
    "Coverage",
    "Mutants",
)
HEAD = ("What", "Cases", "Tried", "Held", "Seed")


def by_part(rows):
    """The parts in their order, each with its rows, which are sorted by group and case."""
    order = {part: place for place, part in enumerate(PARTS)}
    parts = {}
    for row in sorted(rows, key=lambda row: (row["group"], row["what"])):
        parts.setdefault(row["part"], []).append(row)
    return sorted(parts.items(), key=lambda item: order.get(item[0], len(PARTS)))


def groups_of(rows):
    """The rows of one part, put together by group."""
    groups = {}
    for row in rows:
        groups.setdefault(row["group"], []).append(row)
    return groups.items()


def added_up(rows, field):
    """What each row counted, by name. A count is a number, or a pair: a number out of another."""
    sums = {}
    for row in rows:
        for name, count in row.get(field, {}).items():
            counts = count if isinstance(count, list) else [count]
            sums[name] = [a + b for a, b in zip(sums.get(name, [0, 0]), counts)]
    return sums


def count_text(name, count):
    return measuring.share(*count, name) if len(count) == 2 else measuring.counted(*count, name)


def range_text(ranges):
    """The least and the most of what several cases measured. Some measure only the most. The limit
    is the highest of all cases, and shown only if each has one."""
    form = f"{{:{ranges[0]['format']}}}"
    most = form.format(max(each["most"] for each in ranges))
    lows = [each["least"] for each in ranges if "least" in each]
    least = form.format(min(lows)) if lows else most
    text = most if least == most else f"{least} to {most}"
    limits = [each["limit"] for each in ranges if "limit" in each]
    limit = f" (limit {form.format(max(limits))})" if len(limits) == len(ranges) else ""
    return f"{ranges[0]['name']} {text} {ranges[0]['unit']}".rstrip() + limit


def measured(rows):
    ranges = {}
    for row in rows:
        for each in row.get("measured", []):
            ranges.setdefault(each["name"], []).append(each)
    return [range_text(each) for each in ranges.values()]


def tried(rows):
    return ", ".join(count_text(*each) for each in added_up(rows, "tried").items())


def held(rows):
    claims = list(dict.fromkeys(row["held"] for row in rows if row["held"]))
    counts = ", ".join(count_text(*each) for each in added_up(rows, "counted").items())
    failed = "FAILED: " if any(row.get("failed") for row in rows) else ""
    return failed + "; ".join(filter(None, [*claims, counts, *measured(rows)]))


def seeds(rows):
    return ", ".join(sorted({str(row["seed"]) for row in rows if row.get("seed") is not None}))


def cells(what, rows):
    return [what, str(len(rows)), tried(rows), held(rows), seeds(rows)]


def case(row):
    """A row by itself, as the terminal shows it."""
    what = f"{row['group']}: {row['what']}" if row["what"] else row["group"]
    return [what, tried([row]), held([row]), seeds([row])]


def page(data):
    """The lines between the marks of docs/reliability.md."""
    stages = data["stages"].items()
    taken = [(name, row["day"], stage["machine"])
             for name, stage in stages for row in stage["rows"]]
    lines = [*measuring.taken_on("Run", taken), ""]
    rows = [row for _, stage in stages for row in stage["rows"]]
    for part, members in by_part(rows):
        groups = [cells(group, cases) for group, cases in groups_of(members)]
        lines += [f"### {part}", "", *measuring.table(HEAD, groups), ""]
    return lines


PAGE = measuring.Page("scripts/prove", "docs/reliability.md", "docs/reliability.json", page)
