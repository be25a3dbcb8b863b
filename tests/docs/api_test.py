#!/usr/bin/env -S python3 -B
"""Checks that docs/api.md and docs/openapi.json describe what `gatewayctl host` serves.

It runs each command of api.md, provokes each documented refusal, and validates every answer. It
fails on a member, refusal or metric that is not documented, and on a documented one that nothing
shows. page_test compares the paths with those in the code.

Usage: api_test.py GATEWAYCTL SOURCE_FOLDER OPENAPI_VALIDATOR
"""

import http.client
import json
import pathlib
import re
import sys
import tempfile
import threading
from concurrent.futures import ThreadPoolExecutor

from checklist import check, check_same, end
from http_document import HttpDocument, refusal_beside, refusal_of, request
from running import PATIENCE, Host, Simulator

GATEWAYCTL, SOURCE, VALIDATOR = (pathlib.Path(path).resolve() for path in sys.argv[1:4])
DOCUMENT = HttpDocument(SOURCE / "docs/api.md", SOURCE / "docs/openapi.json", "127.0.0.1:8080")
TOKEN = "0123-abc_DEF"


def check_commands(host, guarded):
    """Runs all commands; returns the last body of each operation."""
    bodies = dict(DOCUMENT.run_command(
        command, shown, (guarded if "$TOKEN" in command else host).address, TOKEN=TOKEN)
                  for command, shown in DOCUMENT.commands())
    check_same("paths with an example", DOCUMENT.operations(), set(bodies) - {"GET /api/stat"})
    return bodies


# ---- Events ---------------------------------------------------------------------------------

def blocks_of(address):
    """Yields the blocks of the event stream until it ends."""
    connection = http.client.HTTPConnection(address, timeout=PATIENCE)
    connection.request("GET", "/api/events")
    response, text = connection.getresponse(), ""
    while piece := response.read1():
        *blocks, text = (text + piece.decode()).split("\n\n")
        yield from blocks


def check_events(address, opened, answered):
    """Validates all events of a host, and sets what they show."""
    schemas = DOCUMENT.openapi["paths"]["/api/events"]["get"]["responses"]["200"]["x-events"]
    names, members = set(), set()
    for block in blocks_of(address):
        opened.set()
        event = dict(line.split(": ", 1) for line in block.splitlines())
        if "event" not in event:
            continue  # a comment
        name, data = event["event"], json.loads(event["data"])
        check(f"event {name} is documented", name in schemas)
        DOCUMENT.check_instance(f"event {name}", data, schemas.get(name, {}))
        names.add(name)
        members |= set(data) if name == "update" else set()
        if any(each["state"] == "answered" for each in data.get("deliveries", [])):
            answered.set()
    check_same("events", schemas, names)
    # A module with healthy servers logs nothing between its start and its stop.
    update = DOCUMENT.components["schemas"]["Update"]["properties"]
    check_same("members of updates", set(update) - {"log"}, members - {"log"})
    check_same("events of api.md", schemas,
               [row[0].strip("`") for row in DOCUMENT.table_rows("### GET /api/events")
                if row[0].startswith("`")])


# ---- Refusals ---------------------------------------------------------------------------------

def refused_changes(address):
    """Yields the answers to changes that have to be refused."""
    own = {"Origin": f"http://{address}", "Content-Type": "application/json"}
    for name, value in (("gain", 1), ("out_level", 1), ("out_gain", "loud"), ("out_gain", 1e300)):
        yield request(address, "POST", "/api/set", own,
                      json.dumps({"changes": [{"name": name, "value": value}]}))
    for body in ("{", "{}", '{"changes":[]}', " " * 65537):
        yield request(address, "POST", "/api/set", own, body)
    for headers in ({**own, "Content-Type": "text/plain"}, {"Content-Type": "application/json"},
                    {**own, "Content-Type": "multipart/form-data"}):
        yield request(address, "POST", "/api/set", headers, "{}")
    head = "".join(f"{name}: {value}\r\n" for name, value in own.items())
    yield refusal_of(address, f"POST /api/set HTTP/1.1\r\nHost: {address}\r\n{head}"
                     "Transfer-Encoding: chunked\r\n\r\nx\r\n")


def slots_of(address):
    return json.loads(request(address, "GET", "/api/slots")[2])["slots"]


def refused_requests(address, guarded):
    """Yields method, path and answer of requests that have to be refused."""
    late = ThreadPoolExecutor(1).submit(refusal_of, address, "GET / HTTP/1.1\r\nX")
    for answer in refused_changes(address):
        yield "POST", "/api/set", answer
    yield "GET", "/", refusal_of(address, "nonsense\r\n\r\n")
    yield "GET", "/api/status", request(guarded, "GET", "/api/status")
    yield "GET", "/metrics", request(address, "GET", "/metrics", {"Host": "example.com"})
    yield "GET", "/api/slots", request(address, "GET", "/api/slots",
                                       {"Origin": "http://example.com"})
    texts = [index for index, slot in enumerate(slots_of(address)) if slot["type"] == "string"]
    for index in (texts[0], 1000000):
        yield "GET", "/api/history", request(address, "GET", f"/api/history?slots={index}")
    yield "GET", "/main.jx", request(address, "GET", "/main.jx")
    yield "GET", "/api/set", request(address, "GET", "/api/set")
    yield "GET", "/ready", request(address, "GET", "/ready", body="x")
    yield "GET", "/main.js", request(address, "GET", "/main.js", {"X": "x" * 16384})
    yield "GET", "/", late.result()
    yield "GET", "/", refusal_beside(address, ["127.0.0.2"], "127.0.0.2")
    # The host may not have closed the connections above yet.
    yield "GET", "/", refusal_beside(address, [f"127.0.0.{each}" for each in range(3, 7)],
                                     "127.0.0.99")


def is_unprovoked(status, pattern):
    """No request can provoke a failure of the host or a reload."""
    return status == 500 or pattern.startswith(re.escape("the module is "))


# ---- Metrics ----------------------------------------------------------------------------------

def check_metrics(text):
    documented = {(name.strip("`"), kind, *re.findall(r"`(\w+)`", labels))
                  for name, kind, labels, *_ in DOCUMENT.table_rows("### GET /metrics")}
    kinds = dict(re.findall(r"^# TYPE (\S+) (\S+)$", text, re.MULTILINE))
    real = {(name, kinds[name], *re.findall(r'(\w+)="', labels))
            for name, labels in re.findall(r"^(\w+)(?:\{(.*)\})? \S+$", text, re.MULTILINE)}
    check_same("metrics", documented, real)


def run(folder):
    sample = SOURCE / "examples/grpc-gateway.conf"
    with Simulator(GATEWAYCTL, sample) as simulator, ThreadPoolExecutor(1) as pool:
        config = simulator.configuration(sample, folder / "gateway.conf")
        with (Host(GATEWAYCTL, config) as host,
              Host(GATEWAYCTL, config, "--token", TOKEN) as guarded):
            host.wait_state("receiving", "fast", "slow")  # for /ready
            DOCUMENT.check_refusals(refused_requests(host.address, guarded.address), is_unprovoked)
            DOCUMENT.check_head(host.address)
            opened, answered = threading.Event(), threading.Event()
            events = pool.submit(check_events, host.address, opened, answered)
            opened.wait(PATIENCE)
            check_metrics(check_commands(host, guarded)["GET /metrics"])
            answered.wait(PATIENCE)
            host.tell("quit")
            events.result(PATIENCE)


DOCUMENT.check_document(VALIDATOR)
with tempfile.TemporaryDirectory() as made:
    run(pathlib.Path(made))
end()
