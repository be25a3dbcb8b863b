#!/usr/bin/env -S python3 -B
"""Checks that docs/api.md and docs/openapi.json describe what `gatewayctl host` serves.

It runs each command of api.md, provokes each documented refusal, and validates every answer. It
fails on a member, refusal or metric that is not documented, and on a documented one that nothing
shows. page_test compares the paths with those in the code.

Usage: api_test.py GATEWAYCTL SOURCE_FOLDER OPENAPI_VALIDATOR
"""

import http.client
import json
import os
import pathlib
import re
import socket
import subprocess
import sys
import tempfile
import threading
from concurrent.futures import ThreadPoolExecutor

from jsonschema import Draft202012Validator

from checklist import check, check_same, end
from running import PATIENCE, Host, Simulator
from schemas import closed

GATEWAYCTL, SOURCE, VALIDATOR = (pathlib.Path(path).resolve() for path in sys.argv[1:4])
DOCUMENT = (SOURCE / "docs/api.md").read_text()
OPENAPI = json.loads((SOURCE / "docs/openapi.json").read_text())
TOKEN = "0123-abc_DEF"
SHOWN = "127.0.0.1:8080"  # the address in the document
CURL_TIMED_OUT = 28


# ---- Schemas --------------------------------------------------------------------------------

COMPONENTS = closed(OPENAPI["components"])
ERROR = {"application/json": {"schema": {"$ref": "#/components/schemas/Error"}}}


def check_instance(where, instance, schema):
    validator = Draft202012Validator({**schema, "components": COMPONENTS})
    problems = [f"{error.json_path}: {error.message}" for error in validator.iter_errors(instance)]
    check(f"{where} fits its schema: {problems[:3]}", not problems)


def operation(method, path):
    path = "/{file}" if re.fullmatch(r"/[\w-]+\.[a-z]+", path) else path
    return OPENAPI["paths"].get(path, {}).get(method.lower())


def content_of(described, status):
    """Returns the documented contents of an answer, by media type."""
    response = described["responses"].get(str(status), {})
    name = response.get("$ref", "").rpartition("/")[2]
    return (COMPONENTS["responses"][name] if name else response).get("content", {})


def check_answer(where, method, path, answer):
    """Validates (status, media type, body). Without such an operation, it has to be a refusal."""
    status, kind, body = answer
    described = operation(method, path)
    content = content_of(described, status) if described else ERROR
    check(f"{where}: {status} with {kind} is documented", kind in content)
    if kind == "application/json" and kind in content:
        check_instance(where, json.loads(body), content[kind]["schema"])


# ---- Requests -------------------------------------------------------------------------------

def request(address, method, path, headers=None, body=None):
    """Returns status, media type and body of the answer."""
    connection = http.client.HTTPConnection(address, timeout=PATIENCE)
    connection.request(method, path, body, headers or {})
    response = connection.getresponse()
    return response.status, response.getheader("Content-Type"), response.read().decode()


def connect(address, source="127.0.0.1"):
    host, port = address.split(":")
    return socket.create_connection((host, int(port)), PATIENCE, (source, 0))


def refusal_on(client):
    """Returns status, media type and body of an answer on a socket."""
    answer = b"".join(iter(lambda: client.recv(65536), b"")).decode()
    head, _, body = answer.partition("\r\n\r\n")
    return int(head.split()[1]), re.search("Content-Type: (.*)\r", head)[1], body


def refusal_of(address, text):
    """Returns the answer to bytes that http.client would not send."""
    with connect(address) as client:
        client.sendall(text.encode())
        return refusal_on(client)


def refusal_beside(address, sources, source):
    """Returns the answer to a connection while each of the sources has 64 open."""
    others = [connect(address, each) for each in sources for _ in range(64)]
    with connect(address, source) as client:
        answer = refusal_on(client)
    for each in others:
        each.close()
    return answer


# ---- The document ---------------------------------------------------------------------------

def table_rows(heading):
    """Returns the rows of the table below a heading, as lists of cells."""
    section = DOCUMENT.split(f"{heading}\n", 1)[1].split("\n#", 1)[0]
    lines = [line for line in section.splitlines() if line.startswith("|")]
    return [[cell.strip() for cell in line.strip("|").split(" |")] for line in lines[2:]]


def operations():
    """Returns those of openapi.json that have a section, such as "GET /ready"."""
    return {f"{method.upper()} {path}" for path, methods in OPENAPI["paths"].items()
            for method in methods if path != "/{file}"}


def check_document():
    valid = subprocess.run(["node", VALIDATOR, SOURCE / "docs/openapi.json"], text=True,
                           stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)
    check(f"openapi.json is valid: {valid.stdout}", valid.returncode == 0)
    check_same("sections of api.md", operations(),
               re.findall(r"^### ([A-Z]+ /\S*)$", DOCUMENT, re.MULTILINE))
    check_same("paths of api.md", operations(),
               [f"{method} {path.strip('`')}" for path, method, _ in table_rows("# The HTTP "
                "interface of gatewayctl host")])


def commands():
    """Yields each command with the JSON that the document shows after it, or None."""
    for block in re.finditer(r"((?:^    .*\n)+)\n(?:```json\n((?:^(?!```).*\n)+))?", DOCUMENT,
                             re.MULTILINE):
        if block[1].strip().startswith("curl"):
            yield re.sub(r"\\\n\s*", "", block[1]).strip(), block[2]


def run_command(command, shown, address):
    """Validates the answer to a command and the one that the document shows."""
    report = "curl --silent --show-error --write-out '\\n%{http_code} %{content_type}'"
    done = subprocess.run(["bash", "-c", command.replace(SHOWN, address).replace("curl", report)],
                          env={**os.environ, "TOKEN": TOKEN}, stdout=subprocess.PIPE, text=True,
                          check=False, timeout=PATIENCE)
    check(f"{command} ended with {done.returncode}",
          done.returncode == (CURL_TIMED_OUT if "--max-time" in command else 0))
    body, _, last = done.stdout.rpartition("\n")
    status, _, kind = last.partition(" ")
    method = "POST" if "--json" in command else "GET"
    path = re.split("[?']", command.split(SHOWN)[-1])[0]
    check_answer(command, method, path, (status, kind, body))
    if shown:
        check_answer(f"the answer shown for {path}", method, path, (status, kind, shown))
    return f"{method} {path}", body


def check_commands(host, guarded):
    """Runs all commands; returns the last body of each operation."""
    bodies = dict(run_command(command, shown, (guarded if "$TOKEN" in command else host).address)
                  for command, shown in commands())
    check_same("paths with an example", operations(), set(bodies) - {"GET /api/stat"})
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
    schemas = OPENAPI["paths"]["/api/events"]["get"]["responses"]["200"]["x-events"]
    names, members = set(), set()
    for block in blocks_of(address):
        opened.set()
        event = dict(line.split(": ", 1) for line in block.splitlines())
        if "event" not in event:
            continue  # a comment
        name, data = event["event"], json.loads(event["data"])
        check(f"event {name} is documented", name in schemas)
        check_instance(f"event {name}", data, schemas.get(name, {}))
        names.add(name)
        members |= set(data) if name == "update" else set()
        if any(each["state"] == "answered" for each in data.get("deliveries", [])):
            answered.set()
    check_same("events", schemas, names)
    # A module with healthy servers logs nothing between its start and its stop.
    check_same("members of updates", set(COMPONENTS["schemas"]["Update"]["properties"]) - {"log"},
               members - {"log"})
    check_same("events of api.md", schemas,
               [row[0].strip("`") for row in table_rows("### GET /api/events")
                if row[0].startswith("`")])


# ---- Refusals ---------------------------------------------------------------------------------

def documented_refusals():
    """Returns status and pattern of each."""
    return {(int(status), re.sub("<[a-z]+>", ".*", re.escape(text.strip("`"))))
            for status, text, *_ in table_rows("## Refusals")}


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


def check_refusals(address, guarded):
    rows, provoked = documented_refusals(), set()
    for method, path, answer in refused_requests(address, guarded):
        status, _, body = answer
        text = json.loads(body)["error"]
        where = f"{method} {path} refused with {status} {text}"
        matching = {row for row in rows if row[0] == status and re.fullmatch(row[1], text)}
        check(f"{where} has one row in api.md: {matching}", len(matching) == 1)
        provoked |= matching
        check_answer(where, method, path, answer)
    # No request can provoke a failure of the host or a reload.
    check_same("documented refusals", {row for row in rows if row[0] != 500 and
                                       not row[1].startswith(re.escape("the module is "))},
               provoked)


# ---- Metrics ----------------------------------------------------------------------------------

def check_metrics(text):
    documented = {(name.strip("`"), kind, *re.findall(r"`(\w+)`", labels))
                  for name, kind, labels, *_ in table_rows("### GET /metrics")}
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
            check_refusals(host.address, guarded.address)
            check_head(host.address)
            opened, answered = threading.Event(), threading.Event()
            events = pool.submit(check_events, host.address, opened, answered)
            opened.wait(PATIENCE)
            check_metrics(check_commands(host, guarded)["GET /metrics"])
            answered.wait(PATIENCE)
            host.tell("quit")
            events.result(PATIENCE)


def check_head(address):
    for path in (each.removeprefix("GET ") for each in operations() if each.startswith("GET ")):
        status, _, body = request(address, "HEAD", path)
        check(f"HEAD {path} gives {status} without a body", status == 200 and not body)


check_document()
with tempfile.TemporaryDirectory() as made:
    run(pathlib.Path(made))
end()
