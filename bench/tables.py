"""The tables of docs/performance.md: how each is measured. A measuring function returns the rows of
its table, and whatever else the page says about it.
"""

import math
import os
import pathlib
import statistics
import time

import workload
from workload import GROWTH, configuration, values_of

GOALS = {16: 1.15, 128: 1.40, 1024: 2.5}
RATE_GOALS = {16: 0.87, 128: 0.70, 1024: 0.40}
SHAPE_FACTOR = 1.5
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
    """`figures` has a list for each subject, measured in pairs; the goal is one of the ratio."""
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
        "goal": goal and rounded(goal),
        "more_is_better": more_is_better,
        "bound": bound,
    }


def each(figures, value):
    """Applies `value` to the figures of every run."""
    return {subject: [value(run) for run in runs] for subject, runs in figures.items()}


# ---- Streams ------------------------------------------------------------------------------------


def stream_figures(bench, shape, sent, configured):
    values = values_of(shape, max(sent, configured))
    scale = bench.scale
    with bench.server(workload.in_sending_order(shape, values[:sent]), "full") as port:
        text = configuration(values[:configured], f"127.0.0.1:{port}")
        config = bench.write("gateway.conf", text)
        return bench.pairs("stream", port, config, scale.pairs, scale.seconds, scale.warmup)


def cpu_row(name, what, figures, goal):
    cpu = each(figures, lambda run: run["cpu"] / run["messages"] / 1e9)
    return row(name, what, cpu, goal, "s")


def measure_messages(bench):
    rows = []
    for count, goal in GOALS.items():
        figures = stream_figures(bench, "plain", count, count)
        rows.append(cpu_row(f"cpu-{count}", f"CPU per message, {count:,} values", figures, goal))
    return {"rows": rows}


def measure_growth(bench):
    rows = []
    for count in GROWTH:
        figures = stream_figures(bench, "plain", count, count)
        rows.append(cpu_row(f"growth-{count}", f"CPU per message, {count:,} values", figures, None))
    return {"rows": rows}


def measure_shapes(bench):
    """Compares each shape with plain keys of the same size, which are measured again here."""
    rows = []
    for count in (128, 1024):
        figures = stream_figures(bench, "plain", count, count)
        plain = cpu_row(f"plain-{count}", f"{count:,} values: plain keys, for comparison", figures,
                        None)
        rows.append(plain)
        goal = SHAPE_FACTOR * plain["ratio"]
        for shape, words in workload.SHAPES.items():
            figures = stream_figures(bench, shape, count, count)
            rows.append(cpu_row(f"{shape}-{count}", f"{count:,} values: {words}", figures, goal))
    for sent, configured in ((1024, 64), (64, 1024)):
        figures = stream_figures(bench, "plain", sent, configured)
        what = f"{sent:,} values sent, {configured:,} configured"
        rows.append(cpu_row(f"sent-{sent}-{configured}", what, figures, goal))
    return {"rows": rows}


# ---- Saturation ---------------------------------------------------------------------------------


def cpu_seconds_of(process):
    fields = pathlib.Path(f"/proc/{process.pid}/stat").read_text().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def saturated_figures(bench, count):
    """Figures measured with a server that is faster than any client, and how much of its own core
    that server used."""
    values = values_of("plain", count)
    scale = bench.scale
    with bench.running("bench-feeder", values) as (process, port):
        config = bench.write("gateway.conf", configuration(values, f"127.0.0.1:{port}"))
        begin = time.monotonic()
        figures = bench.pairs("stream", port, config, scale.pairs, scale.seconds, scale.warmup)
        return figures, cpu_seconds_of(process) / (time.monotonic() - begin)


def busy_share(figures):
    """How much of its core the less busy subject used: low if the server was too slow for it."""
    shares = each(figures, lambda run: run["cpu"] / run["wall"])
    return min(map(statistics.median, shares.values()))


def measure_saturation(bench):
    rows, busy = [], {}
    for count, goal in RATE_GOALS.items():
        figures, server_share = saturated_figures(bench, count)
        busy[count] = {"client": busy_share(figures), "server": server_share}
        rates = each(figures, lambda run: run["messages"] / run["wall"] * 1e9)
        what = f"messages per second, {count:,} values"
        rows.append(row(f"rate-{count}", what, rates, goal, "/s", more_is_better=True))
    return {"rows": rows, "busy": busy}


# ---- Parts of a message -------------------------------------------------------------------------


def measure_parts(bench):
    times = bench.google_benchmark(
        "bench-parts",
        "--benchmark_filter=/plain/",
        f"--benchmark_repetitions={bench.scale.parts_repetitions}",
        f"--benchmark_min_time={bench.scale.parts_seconds}",
    )
    parts = {}
    for name, repeated in times.items():
        part, _, count = name.split("/")
        searches = int(count) if part in ("search", "naive") else 1
        parts[f"{part}/{count}"] = rounded(searches * statistics.median(repeated))
    return {"rows": [], "parts": parts}


# ---- The host's thread --------------------------------------------------------------------------

HOST_ROWS = {
    "notify-1": ("CPU of the host's thread, notification of 1 change, 16 entries", 1.05, None),
    "notify-64": ("CPU of the host's thread, notification of 64 changes, 256 entries", 5, None),
    "start-present": ("startCycle, 192 entries, servers present", 1.5, START_BOUND),
    "start-absent": ("startCycle, 192 entries, servers absent", 1.5, START_BOUND),
    "start-silent": ("startCycle, 192 entries, servers silent", 1.5, START_BOUND),
    "stop-quiet": ("stopCycle, streams quiet", 1.5, None),
    "stop-busy": ("stopCycle, streams busy", 1.5, None),
}
# Compared with a bare client that an alarm stops, as one stops the module.
ALARM_ROWS = {
    "stop-quiet": "stopCycle, streams quiet; bare stopped by an alarm",
    "stop-busy": "stopCycle, streams busy; bare stopped by an alarm",
}
NOTIFICATIONS_TIMED_TOGETHER = 8


def host_times(bench):
    values = values_of("plain", 16)
    with bench.server(values, "once") as quiet, bench.server(values, "full") as busy:
        return bench.google_benchmark(
            "bench-host",
            f"--quiet={quiet}",
            f"--busy={busy}",
            f"--board={bench.board}",
            f"--groups={bench.scale.host_groups}",
            f"--benchmark_repetitions={bench.scale.host_repetitions}",
        )


def measure_host(bench):
    times = host_times(bench)
    rows = []
    for name, (what, goal, bound) in HOST_ROWS.items():
        together = NOTIFICATIONS_TIMED_TOGETHER if name.startswith("notify") else 1
        figures = {"bare": times[f"{name}/bare"], "module": times[f"{name}/module"]}
        figures = each(figures, lambda seconds, together=together: seconds / together)
        rows.append(row(name, what, figures, goal, "s", bound=bound))
    for name, what in ALARM_ROWS.items():
        figures = {"bare": times[f"{name}/alarm"], "module": times[f"{name}/module"]}
        rows.append(row(f"{name}-alarm", what, figures, None, "s"))
    return {"rows": rows}


# ---- At rest, and latency -----------------------------------------------------------------------


def rest_figures(bench):
    scale = bench.scale
    values = values_of("plain", 16)
    kinds = ("string", "int", "uint", "float")
    configured = [values[0]] + [(kinds[i % 4], f"level.{i}") for i in range(1, 64)]
    with bench.server(values, "once") as port:
        text = configuration(configured, f"127.0.0.1:{port}", slow=True)
        config = bench.write("gateway.conf", text)
        return bench.side_by_side("rest", port, config, scale.rest_processes, scale.rest_seconds,
                                  scale.rest_warmup)


def measure_rest(bench):
    """All processes rest at the same time, so their figures are paired by rank."""
    figures = rest_figures(bench)
    span = f"{bench.scale.rest_seconds} s at rest"

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
    values = values_of("plain", 63) + [("string", "last")]
    scale = bench.scale
    with bench.server(values, 1000) as port:
        config = bench.write("gateway.conf", configuration(values, f"127.0.0.1:{port}"))
        figures = bench.pairs(
            "latency", port, config, scale.latency_pairs, scale.latency_seconds, scale.warmup
        )
    rows = []
    for field in ("p50", "p99"):
        what = f"latency from write to slot, 1 kHz, 64 values, {field}"
        seconds = each(figures, lambda run, field=field: run[field] / 1e9)
        rows.append(row(f"latency-{field}", what, seconds, 1.1, "s"))
    return {"rows": rows}


TABLES = {
    "messages": ("A fast stream, as fast as the client takes it", measure_messages),
    "saturation": ("A stream that is fed faster than any client reads", measure_saturation),
    "shapes": ("Keys of other shapes, CPU per message", measure_shapes),
    "growth": ("Growth of CPU per message", measure_growth),
    "parts": ("Parts of a message, without a network", measure_parts),
    "host": ("The host's thread", measure_host),
    "rest": ("A started module with quiet streams", measure_rest),
    "latency": ("Latency", measure_latency),
}
