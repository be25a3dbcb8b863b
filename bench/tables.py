"""The tables of docs/performance.md: how each is measured. A measuring function returns the rows of
its table, and whatever else the page says about it.
"""

import math
import statistics
import typing

from programs import CORES
from workload import configuration

START_BOUND = 5e-3  # seconds


# ---- Rows ---------------------------------------------------------------------------------------


def quartiles(values):
    if len(values) == 1:
        return [values[0]] * 3
    return statistics.quantiles(values, n=4, method="inclusive")


def rounded(value):
    """Six significant digits: more than any measurement here is worth."""
    return float(f"{value:.6g}")


def row(name, what, figures, goal, unit, more_is_better=False, bound=None):
    """`figures` has a list for each subject, measured in pairs; the goal is one of the ratio. A row
    whose name has a slash is only for comparison: --check ignores it."""
    bare, module = figures["bare"], figures["module"]
    ratios = [m / b if b else math.inf if m else 1.0 for m, b in zip(module, bare)]
    low, median, high = quartiles(ratios)
    return {
        "name": name,
        "what": what,
        "unit": unit,
        "bare": rounded(statistics.median(bare)),
        "module": rounded(statistics.median(module)),
        "low": rounded(low),
        "ratio": rounded(median),
        "high": rounded(high),
        "goal": goal,
        "more_is_better": more_is_better,
        "bound": bound,
    }


def each(figures, value):
    """Applies `value` to the figures of every run."""
    return {subject: [value(run) for run in runs] for subject, runs in figures.items()}


# ---- Streams with keys of all families ----------------------------------------------------------


class Load(typing.NamedTuple):
    """How many values are sent and configured, and the goal. It is one of the worst family, or of
    plain keys if only those are measured."""
    sent: int
    configured: int
    goal: float | None
    every_family: bool = True

    def words(self):
        if self.sent == self.configured:
            return f"{self.sent:,} values"
        return f"{self.sent:,} values sent, {self.configured:,} configured"


MESSAGES = {
    "cpu-16": Load(16, 16, 1.0),
    "cpu-128": Load(128, 128, 0.85),
    "cpu-1024": Load(1024, 1024, 0.75),
    "cpu-4096": Load(4096, 4096, 1.5),
    "cpu-64-1024": Load(64, 1024, 1.6),
    "cpu-1024-64": Load(1024, 64, None, every_family=False),
}
RATES = {
    "rate-16": Load(16, 16, 1.0),
    "rate-128": Load(128, 128, 1.18),
    "rate-1024": Load(1024, 1024, 1.3),
}
FINALISTS = 3


def badness(row):
    return 1 / row["ratio"] if row["more_is_better"] else row["ratio"]


class Streams:
    """Measures a load with one family of keys after another. `serve` runs a server of the given
    values and yields its port; `make_row` makes a row from its name, text, goal and runs."""

    def __init__(self, bench, serve, make_row):
        self.bench = bench
        self.serve = serve
        self.make_row = make_row

    def row(self, name, words, goal, load, family, turns):
        families = self.bench.families
        values = families.values(family, max(load.sent, load.configured))
        with self.serve(families.sent(family, values[:load.sent])) as port:
            text = configuration(values[:load.configured], f"127.0.0.1:{port}")
            config = self.bench.write("gateway.conf", text)
            stored = min(load.sent, load.configured)
            runs = self.bench.pairs("stream", port, config, turns, stored)
        return self.make_row(name, f"{load.words()}, {words}", goal, runs)

    def screened(self, load):
        """The ratio of each family, from the best to the worst: the median of a few short turns. A
        round takes all families in turn, so that a disturbance affects few of them, each once."""
        scale = self.bench.scale
        found = {family: [] for family in scale.families or self.bench.families.names()}
        for _ in range(scale.screening_rounds):
            for family, rows in found.items():
                rows.append(self.row("", "", None, load, family, scale.screening))
        median = {family: sorted(rows, key=badness)[len(rows) // 2]
                  for family, rows in found.items()}
        return {family: median[family]["ratio"]
                for family in sorted(median, key=lambda family: badness(median[family]))}

    def rows(self, name, load):
        """Rows for plain keys, for the median family of the screening, and for the worst of those
        that came last in it. All are measured again, for longer. Also returns the screening."""
        turns = self.bench.scale.streams
        if not load.every_family:
            return [self.row(name, "plain keys", load.goal, load, "plain", turns)], {}
        screened = self.screened(load)
        order = list(screened)
        median = order[len(order) // 2]
        return [
            self.row(f"{name}/plain", "plain keys", None, load, "plain", turns),
            self.row(f"{name}/median", f"median family: {median}", None, load, median, turns),
            max((self.row(name, f"worst family: {family}", load.goal, load, family, turns)
                 for family in order[-FINALISTS:]), key=badness),
        ], screened

    def table(self, loads):
        rows, screened = [], {}
        for name, load in loads.items():
            more, screened[name] = self.rows(name, load)
            rows += more
        return {"seed": self.bench.scale.seed, "rows": rows, "screened": screened}


def measure_messages(bench):
    def cpu_row(name, what, goal, runs):
        cpu = each(runs, lambda run: run["cpu"] / run["messages"] / 1e9)
        return row(name, what, cpu, goal, "s")

    return Streams(bench, bench.server, cpu_row).table(MESSAGES)


def measure_saturation(bench):
    """A row's "busy" is how much of its core the less busy subject used: little if the server was
    too slow for it."""
    def rate_row(name, what, goal, runs):
        shares = each(runs, lambda run: run["cpu"] / run["wall"])
        rates = each(runs, lambda run: run["messages"] / run["wall"] * 1e9)
        busy = min(map(statistics.median, shares.values()))
        return row(name, what, rates, goal, "/s", more_is_better=True) | {"busy": rounded(busy)}

    return Streams(bench, bench.feeder, rate_row).table(RATES)


# ---- Parts of a message -------------------------------------------------------------------------


def measure_parts(bench):
    """The CPU of each part for a whole message, by part, family and number of values."""
    runs = bench.google_benchmark(
        "bench-parts",
        f"--seed={bench.scale.seed}",
        f"--benchmark_repetitions={bench.scale.parts_repetitions}",
        f"--benchmark_min_time={bench.scale.parts_seconds}",
    )
    parts = {}
    for name, repeated in sorted(runs.items()):
        part, family, count = name.split("/")
        searches = int(count) if part in ("search", "naive") else 1
        seconds = searches * statistics.median(run["cpu"] for run in repeated)
        parts.setdefault(part, {}).setdefault(family, {})[count] = rounded(seconds)
    examples = {family: keys[0] for family, keys in bench.families.keys.items()}
    return {"seed": bench.scale.seed, "rows": [], "parts": parts, "examples": examples}


# ---- The host's thread --------------------------------------------------------------------------

HOST_ROWS = {
    "notify-1": ("CPU of the host's thread, notification of 1 change, 16 entries", 1.05, None),
    "notify-64": ("CPU of the host's thread, notification of 64 changes, 256 entries", 4.0, None),
    "start-present": ("startCycle, 192 entries, servers present", 1.4, START_BOUND),
    "start-absent": ("startCycle, 192 entries, servers absent", 1.4, START_BOUND),
    "start-silent": ("startCycle, 192 entries, servers silent", 1.4, START_BOUND),
    "stop-quiet": ("stopCycle, streams quiet", 1.5, None),
    "stop-busy": ("stopCycle, streams busy", 1.5, None),
}
# Compared with a bare client that an alarm stops, as one stops the module.
ALARM_ROWS = {
    "stop-quiet": "stopCycle, streams quiet; bare stopped by an alarm",
    "stop-busy": "stopCycle, streams busy; bare stopped by an alarm",
}
NOTIFICATIONS_TIMED_TOGETHER = 8


def host_runs(bench, *arguments):
    values = bench.families.values("plain", 16)
    with bench.server(values, "once") as quiet, bench.server(values) as busy:
        return bench.google_benchmark(
            "bench-host",
            f"--quiet={quiet}",
            f"--busy={busy}",
            f"--board={bench.board}",
            f"--groups={bench.scale.host_groups}",
            *arguments,
        )


def measure_host(bench):
    runs = host_runs(bench, f"--benchmark_repetitions={bench.scale.host_repetitions}")

    def figures(name, bare, together):
        subjects = {"bare": runs[f"{name}/{bare}"], "module": runs[f"{name}/module"]}
        return each(subjects, lambda run: run["seconds"] / together)

    rows = []
    for name, (what, goal, bound) in HOST_ROWS.items():
        together = NOTIFICATIONS_TIMED_TOGETHER if name.startswith("notify") else 1
        rows.append(row(name, what, figures(name, "bare", together), goal, "s", bound=bound))
    for name, what in ALARM_ROWS.items():
        rows.append(row(f"{name}-alarm", what, figures(name, "alarm", 1), None, "s"))
    return {"rows": rows}


def measure_starts(bench):
    """The seconds of a start, and those of them that the host's operations took."""
    runs = host_runs(bench, "--long-starts",
                     f"--benchmark_repetitions={bench.scale.start_repetitions}")
    starts = [
        {"entries": int(name.removeprefix("start-"))} | {
            field: rounded(statistics.median(run[field] for run in repeated))
            for field in ("seconds", "host")
        }
        for name, repeated in runs.items()
    ]
    return {"rows": [], "starts": sorted(starts, key=lambda start: start["entries"])}


# ---- At rest, and latency -----------------------------------------------------------------------


def rest_figures(bench):
    values = bench.families.values("plain", 16)
    kinds = ("string", "int", "uint", "float")
    configured = [values[0]] + [(kinds[i % 4], f"level.{i}") for i in range(1, 64)]
    with bench.server(values, "once") as port:
        text = configuration(configured, f"127.0.0.1:{port}", slow=True)
        config = bench.write("gateway.conf", text)
        return bench.side_by_side("rest", port, config, bench.scale.rest)


def measure_rest(bench):
    """All processes rest at the same time, so their figures are paired by rank."""
    figures = rest_figures(bench)
    span = f"{bench.scale.rest.seconds} s at rest"

    def rest_row(name, what, field, goal, unit, factor):
        ranked = {subject: sorted(values)
                  for subject, values in each(figures, lambda run: run[field] * factor).items()}
        return row(name, what, ranked, goal, unit)

    return {
        "rows": [
            rest_row("memory", "resident memory, 128 entries", "resident", 1.05, "B", 1024),
            rest_row("switches", f"context switches, {span}", "switches", 1.0, "", 1),
            rest_row("own", f"those of the client's own threads, {span}", "own", 1.0, "", 1),
            rest_row("idle-cpu", f"CPU, {span}", "cpu", 1.0, "s", 1e-9),
        ]
    }


def measure_latency(bench):
    values = [*bench.families.values("plain", 63), ("string", "last")]
    with bench.server(values, 1000) as port:
        config = bench.write("gateway.conf", configuration(values, f"127.0.0.1:{port}"))
        figures = bench.pairs("latency", port, config, bench.scale.latency)
    rows = []
    for field in ("p50", "p99"):
        what = f"latency from write to slot, 1 kHz, 64 values, {field}"
        seconds = each(figures, lambda run, field=field: run[field] / 1e9)
        rows.append(row(f"latency-{field}", what, seconds, 1.1, "s"))
    return {"rows": rows}


# ---- The checker --------------------------------------------------------------------------------

CHECKED_WORDS = {
    "sound": "CustomKey=channel_{}_level DefaultValue=-60.5",
    "a mistake in each": "CustomKey=channel_{}_level DefaultValue=none",
}


def measure_checks(bench):
    """The CPU of gatewayctl check by the number of meters; of a single one, that of its start."""
    checks = []
    for count in bench.scale.checked_meters:
        for kind, words in CHECKED_WORDS.items():
            text = "[Meters]\nTarget=localhost:50005\n[MetersFloat]\n"
            text += "".join(f"Meter=Key=console.channel.{i}.level {words.format(i)}\n"
                            for i in range(count))
            runs = [bench.check_seconds(text) for _ in range(bench.scale.check_repetitions)]
            checks.append({"meters": count, "kind": kind, "bytes": len(text),
                           "seconds": rounded(statistics.median(runs))})
    return {"rows": [], "checks": checks}


# ---- The recorder -------------------------------------------------------------------------------


def measure_recording(bench):
    """What gatewayctl record keeps at several rates, half of the messages on each stream. 0 stands
    for as many messages as the recorder takes."""
    values = bench.families.values("plain", 1024)
    runs = []
    for wanted in bench.scale.recorded_rates:
        server = bench.server(values, wanted / 2) if wanted else bench.feeder(values)
        with server as port:
            runs.append({"wanted": wanted, **bench.recorded(port, bench.scale.recording_seconds)})
    return {"rows": [], "runs": [{name: rounded(value) for name, value in run.items()}
                                 for run in runs]}


# ---- The relay of the simulator -----------------------------------------------------------------


def measure_relay(bench):
    """The seconds of a message there and back, and the bytes per second, by the size of a message:
    over a direct connection, and through the relay."""
    runs = bench.google_benchmark("bench-relay", cores=CORES, *(
        f"--benchmark_repetitions={bench.scale.relay_repetitions}",
        f"--benchmark_min_time={bench.scale.relay_seconds}",
    ))

    def median(name, field):
        return rounded(statistics.median(run[field] for run in runs[name]))

    sizes = sorted({int(name.split("/")[2]) for name in runs})
    return {"rows": [], "sizes": [
        {
            "bytes": size,
            "directTrip": median(f"trip/direct/{size}", "seconds"),
            "relayedTrip": median(f"trip/relayed/{size}", "seconds"),
            "directRate": median(f"rate/direct/{size}", "bytes"),
            "relayedRate": median(f"rate/relayed/{size}", "bytes"),
            "cpu": median(f"rate/relayed/{size}", "relay"),
        }
        for size in sizes
    ]}


# ---- The live page ------------------------------------------------------------------------------


def measure_page(bench):
    """One run for each number of slots and of those that change."""
    runs = [bench.live_page(slots, moving) for slots, moving in bench.scale.pages]
    return {"rows": [],
            "pages": [{name: rounded(value) for name, value in run.items()} for run in runs]}


TABLES = {
    "messages": ("CPU per message of a fast stream, as fast as the client takes it",
                 measure_messages),
    "saturation": ("Messages per second of a stream that is fed faster than any client reads",
                   measure_saturation),
    "parts": ("Parts of a message, without a network", measure_parts),
    "host": ("The host's thread", measure_host),
    "starts": ("A start with many entries", measure_starts),
    "rest": ("A started module with quiet streams", measure_rest),
    "latency": ("Latency", measure_latency),
    "check": ("A check by gatewayctl", measure_checks),
    "recording": ("Recording messages of 1,024 values", measure_recording),
    "relay": ("The relay of the simulator", measure_relay),
    "page": ("The live page of gatewayctl", measure_page),
}
