#!/usr/bin/env -S python3 -B
"""Checks that docs/sim-control.md and docs/sim-control.openapi.json describe what
`gatewayctl sim --control` serves.

It runs each command of the document, provokes each documented refusal, and validates every answer
and every kind of event. control_test compares the paths with those in the code.

Usage: sim_control_test.py GATEWAYCTL SOURCE_FOLDER OPENAPI_VALIDATOR
"""

import json
import pathlib
import sys
import tempfile
from concurrent.futures import ThreadPoolExecutor

from checklist import check, check_same, end
from http_document import HttpDocument, refusal_beside, refusal_of, request
from running import Host, Simulator

GATEWAYCTL, SOURCE, VALIDATOR = (pathlib.Path(path).resolve() for path in sys.argv[1:4])
DOCUMENT = HttpDocument(SOURCE / "docs/sim-control.md", SOURCE / "docs/sim-control.openapi.json",
                        "127.0.0.1:8081")
SAMPLE = SOURCE / "examples/grpc-gateway.conf"
JSON = {"Content-Type": "application/json"}


def post(address, path, body, headers=None):
    return request(address, "POST", path, headers or JSON,
                   body if isinstance(body, str) else json.dumps(body))


def events(address, query):
    """Returns the events, once there is one."""
    answer = request(address, "GET", f"/api/events?wait=60&{query}")
    DOCUMENT.check_answer(f"events {query}", "GET", "/api/events", answer)
    found = json.loads(answer[2])["events"]
    check(f"an event came for {query}", found)
    return found


# ---- Refusals -------------------------------------------------------------------------------

def refused_bodies():
    """Yields path and body of requests that have to be refused."""
    yield "/api/send", "[" * 33 + "]" * 33
    value = {"key": "k", "type": "int", "value": 1.5}
    yield from (("/api/reset", body) for body in ("{", "[]", {"x": 1}))
    yield from (("/api/send", {"stream": "fast", **more}) for more in (
        {}, {"values": [value]}, {"bytes": "f"}, {"bytes": "-", "times": 0}))
    yield "/api/send", {"stream": "medium", "bytes": "-"}
    yield from (("/api/end", {"stream": "fast", **more}) for more in (
        {"status": "BROKEN"}, {"text": "why"}, {"text": 1}))
    yield from (("/api/fault", {"fault": fault}) for fault in ("freze", "at 1: freeze"))
    yield "/api/fault", {"fault": "freeze meters", "for": "long"}
    yield "/api/reset", " " * (16 * 2 ** 20 + 1)


def refused_requests(address):
    """Yields method, path and answer of requests that have to be refused."""
    late = ThreadPoolExecutor(1).submit(refusal_of, address, "GET /api/status HTTP/1.1\r\nX")
    for path, body in refused_bodies():
        yield "POST", path, post(address, path, body)
    for query in ("event=set_param", "after=x", "wait=61", "stream=x"):
        yield "GET", "/api/events", request(address, "GET", f"/api/events?{query}")
    for path in ("/api/send", "/api/end"):
        yield "POST", path, post(address, path, {"stream": "slow"} if path == "/api/end" else
                                 {"stream": "slow", "bytes": "-"})
    for kind in ("text/plain", "multipart/form-data"):
        yield "POST", "/api/reset", post(address, "/api/reset", "{}", {"Content-Type": kind})
    yield "POST", "/api/reset", refusal_of(
        address, f"POST /api/reset HTTP/1.1\r\nHost: {address}\r\n"
        "Content-Type: application/json\r\nTransfer-Encoding: chunked\r\n\r\nx\r\n")
    yield "GET", "/api/status", refusal_of(address, "nonsense\r\n\r\n")
    for headers in ({"Host": "example.com"}, {"Origin": "http://example.com"},
                    {"X": "x" * 16384}):
        yield "GET", "/api/status", request(address, "GET", "/api/status", headers)
    yield "GET", "/api/status", request(address, "GET", "/api/status", body="x")
    yield "GET", "/api/stat", request(address, "GET", "/api/stat")
    yield "GET", "/api/send", request(address, "GET", "/api/send")
    yield "GET", "/api/status", late.result()
    yield "GET", "/api/status", refusal_beside(address, ["127.0.0.2"], "127.0.0.2")
    yield "GET", "/api/status", refusal_beside(
        address, [f"127.0.0.{each}" for each in range(3, 7)], "127.0.0.99")


def is_unprovoked(status, pattern):
    """No short request can make the simulator fail or fill 64 MiB; control_test does the latter."""
    return status == 500 or "reads\\ too\\ slowly" in pattern


# ---- Events ---------------------------------------------------------------------------------

def documented_events():
    return {name.strip(" `") for row in DOCUMENT.table_rows("### GET /api/events")
            if row[0].startswith("`") and len(row) == 3 for name in row[0].split(",")}


def check_events(address):
    """Provokes each kind of event that needs no replay; all answers are validated."""
    after = events(address, "event=set_params&key=out.gain")[-1]["number"]
    post(address, "/api/fault", {"fault": "stall fast", "for": 0.01})
    events(address, f"event=fault_over&after={after}")
    post(address, "/api/end", {"stream": "slow"})
    events(address, "event=closed&stream=slow")
    seen = {event["event"] for event in events(address, "after=0")}
    check_same("events of a run", {"opened", "closed", "set_params", "fault", "fault_over"}, seen)
    schema = DOCUMENT.openapi["paths"]["/api/events"]["get"]["parameters"][1]["schema"]
    check_same("events", schema["enum"], documented_events())


def run(folder):
    with Simulator(GATEWAYCTL, SAMPLE, "--control", "127.0.0.1:0") as simulator:
        address = simulator.wait("listening", service="control")["address"]
        DOCUMENT.check_refusals(refused_requests(address), is_unprovoked)
        DOCUMENT.check_head(address)
        config = simulator.configuration(SAMPLE, folder / "gateway.conf")
        with Host(GATEWAYCTL, config, "--set", "out_gain=-6.5"):
            for stream in ("fast", "slow"):
                events(address, f"event=opened&stream={stream}")
            check_events(address)
            # The module opens an ended stream again after five seconds.
            number = events(address, "event=closed&stream=slow")[-1]["number"]
            events(address, f"event=opened&stream=slow&after={number}")
            bodies = dict(DOCUMENT.run_command(command, shown, address)
                          for command, shown in DOCUMENT.commands())
        check_same("paths with an example", DOCUMENT.operations(), set(bodies) - {"GET /api/stat"})


DOCUMENT.check_document(VALIDATOR)
with tempfile.TemporaryDirectory() as made:
    run(pathlib.Path(made))
end()
