#!/usr/bin/env -S python3 -B
"""Checks the alert rules and the dashboard in operations/, by themselves and with the metrics of a
host whose simulated servers fail.

Usage: monitoring_test.py GATEWAYCTL SOURCE_FOLDER PROMTOOL
"""

import json
import pathlib
import re
import subprocess
import sys
import tempfile
import urllib.request

GATEWAYCTL, SOURCE, PROMTOOL = (pathlib.Path(path).resolve() for path in sys.argv[1:4])
sys.path.append(str(SOURCE / "tests/docs"))

from checklist import check, check_same, end  # noqa: E402
from running import Host, Simulator  # noqa: E402

ALERTS = SOURCE / "operations/alerts.yml"
DASHBOARD = json.loads((SOURCE / "operations/dashboard.json").read_text())
# Minutes of a test with promtool: the fault begins at CHANGE.
CHANGE, EARLY, LATE = 10, 12, 19


def promtool(*arguments, text=None):
    done = subprocess.run([PROMTOOL, *arguments], input=text, text=True, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, check=False)
    check(f"promtool {' '.join(map(str, arguments))}: {done.stdout}", done.returncode == 0)


def scrape(host):
    """Returns the series of /metrics with their values, labelled as Prometheus labels them."""
    with urllib.request.urlopen(f"http://{host.address}/metrics") as answer:
        text = answer.read().decode()
    promtool("check", "metrics", text=text)
    series = {'up{job="gateway",instance="a:1"}': "1"}
    for name, labels, value in re.findall(r"^(\w+)(?:\{(.*)\})? (\S+)$", text, re.MULTILINE):
        own = ",".join(filter(None, (labels, 'job="gateway",instance="a:1"')))
        series[f"{name}{{{own}}}"] = value
    return series


def is_age(name):
    return name.startswith(("gateway_slot_age_seconds", "gateway_link_last_message_age_seconds"))


def values_of(name, before, after, grow):
    """Returns the values of a series, minute by minute, as promtool writes them."""
    first = f"{before[name]}x{CHANGE - 1}" if name in before else f"_x{CHANGE - 1}"
    if name not in after:
        return f"{first} stale"
    step = 60 if grow and is_age(name) else 0
    return f"{first} {after[name]}+{step}x{LATE - CHANGE}"


def firing(moment, counts):
    return {"expr": 'count by (alertname) (ALERTS{alertstate="firing"})', "eval_time": f"{moment}m",
            "exp_samples": [{"labels": f'{{alertname="{name}"}}', "value": count}
                            for name, count in counts.items()]}


def test_of(name, before, after, early, late, grow=False, queries=()):
    """A promtool test of a fault that begins at CHANGE. With `grow`, ages then keep growing."""
    return {"name": name, "interval": "1m",
            "input_series": [{"series": each, "values": values_of(each, before, after, grow)}
                             for each in {**before, **after}],
            "promql_expr_test": [firing(CHANGE - 1, {}), firing(EARLY, early), firing(LATE, late),
                                 *queries]}


def tests_of_faults(host, simulator, queries):
    """Yields a test for each alert, with what the host measures during the fault."""
    def inflict(fault, state, *links):
        simulator.inflict(fault)
        host.wait_state(state, *links)

    host.wait_state("receiving", "fast", "slow")
    host.tell("set out_gain -6.5")
    host.wait("delivery", state="answered")
    well = scrape(host)
    check_names(well)

    inflict("refuse meters", "no-server", "fast", "slow")
    late = {"GatewayStreamDown": 2, "GatewaySlotsStale": 1}
    yield test_of("no meter server", well, scrape(host), {"GatewayStreamDown": 2}, late, grow=True,
                  queries=queries)
    inflict("normal meters", "receiving", "fast", "slow")
    inflict("freeze meters", "silent", "fast", "slow")
    late = {"GatewayStreamSilent": 2, "GatewaySlotsStale": 1}
    yield test_of("a frozen meter server", well, scrape(host), {"GatewayStreamSilent": 2}, late,
                  grow=True)
    inflict("normal meters", "receiving", "fast", "slow")

    simulator.inflict("no-reply engine")
    host.tell("set out_gain -7")
    host.wait_state("silent", "engine")
    unanswered = {"GatewayCallsUnanswered": 1}
    yield test_of("no answer", well, scrape(host), unanswered, unanswered)
    simulator.inflict("fail engine UNAVAILABLE")
    host.tell("set out_gain -8")
    host.wait_state("failing", "engine")
    yield test_of("refused parameters", well, scrape(host), {"GatewayCallsFailing": 1}, {})

    gone = {'up{job="gateway",instance="a:1"}': "0"}
    yield test_of("no host", well, gone, {"GatewayHostGone": 1}, {"GatewayHostGone": 1})


# ---- Dashboard ------------------------------------------------------------------------------

def queries_of_dashboard():
    """Returns tests that each query of the dashboard finds something."""
    found = [target["expr"] for panel in DASHBOARD["panels"] for target in panel["targets"]]
    check(f"the dashboard has queries: {len(found)}", len(found) >= 10)
    return [{"expr": f"count({expr}) > bool 0", "eval_time": f"{LATE}m",
             "exp_samples": [{"labels": "{}", "value": 1}]}
            for expr in (each.replace("$host", ".*").replace("$slot", ".*")
                         .replace("$__rate_interval", "5m") for each in found)]


def check_names(series):
    """Checks that a running host has the metrics and labels that the files name."""
    known = {name.partition("{")[0] for name in series}
    for path in (ALERTS, SOURCE / "operations/dashboard.json"):
        named = set(re.findall(r"\bgateway_\w+", path.read_text()))
        check(f"{path.name} names metrics that exist: {named - known}", named and named <= known)
    for variable in DASHBOARD["templating"]["list"][1:]:
        metric, label = re.fullmatch(r"label_values\((\w+).*, (\w+)\)",
                                     variable["query"]["query"]).groups()
        check(f"{metric} has the label {label}",
              any(name.startswith(metric) and f'{label}="' in name for name in series))


# ---- All of it ------------------------------------------------------------------------------

def check_document(folder):
    """Checks the configuration and the list of alerts in docs/api.md."""
    section = (SOURCE / "docs/api.md").read_text().split("## Monitoring")[1]
    check_same("alerts of docs/api.md", re.findall(r"- alert: (\w+)", ALERTS.read_text()),
               re.findall(r"^\| `(\w+)` \| ", section, re.MULTILINE))
    shown = re.search(r"```yaml\n(.*?)```", section, re.DOTALL)[1]
    (folder / "page.token").touch()
    (folder / "prometheus.yml").write_text(
        re.sub(r"/\S*/(page\.token|alerts\.yml)", rf"{folder}/\1", shown))
    promtool("check", "config", folder / "prometheus.yml")


def run(folder):
    (folder / "alerts.yml").write_text(ALERTS.read_text())
    (folder / "alerts.test.yml").write_text(
        (SOURCE / "tests/operations/alerts.test.yml").read_text())
    check_document(folder)
    promtool("test", "rules", folder / "alerts.test.yml")
    sample = SOURCE / "examples/grpc-gateway.conf"
    with Simulator(GATEWAYCTL, sample, "--live-faults") as simulator:
        config = simulator.configuration(sample, folder / "gateway.conf")
        with Host(GATEWAYCTL, config) as host:
            tests = list(tests_of_faults(host, simulator, queries_of_dashboard()))
    # JSON is YAML, too.
    (folder / "run.test.yml").write_text(json.dumps(
        {"rule_files": ["alerts.yml"], "evaluation_interval": "1m", "tests": tests}))
    promtool("test", "rules", folder / "run.test.yml")


with tempfile.TemporaryDirectory() as made:
    run(pathlib.Path(made))
end()
