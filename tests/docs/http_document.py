"""Checks that a Markdown document and an OpenAPI file describe what an HTTP interface serves."""

import http.client
import json
import os
import re
import socket
import subprocess

from jsonschema import Draft202012Validator

from checklist import check, check_same
from running import PATIENCE
from schemas import closed

ERROR = {"application/json": {"schema": {"$ref": "#/components/schemas/Error"}}}
CURL_TIMED_OUT = 28


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


class HttpDocument:
    """A document and its OpenAPI file. `shown` is the address in the document's commands."""

    def __init__(self, document, openapi, shown):
        self.openapi_path, self.shown = openapi, shown
        self.text = document.read_text()
        self.openapi = json.loads(openapi.read_text())
        self.components = closed(self.openapi["components"])

    # ---- Schemas ----------------------------------------------------------------------------

    def check_instance(self, where, instance, schema):
        validator = Draft202012Validator({**schema, "components": self.components})
        problems = [f"{error.json_path}: {error.message}"
                    for error in validator.iter_errors(instance)]
        check(f"{where} fits its schema: {problems[:3]}", not problems)

    def operation(self, method, path):
        path = "/{file}" if re.fullmatch(r"/[\w-]+\.[a-z]+", path) else path
        return self.openapi["paths"].get(path, {}).get(method.lower())

    def content_of(self, described, status):
        """Returns the documented contents of an answer, by media type."""
        response = described["responses"].get(str(status), {})
        name = response.get("$ref", "").rpartition("/")[2]
        return (self.components["responses"][name] if name else response).get("content", {})

    def check_answer(self, where, method, path, answer):
        """Validates (status, media type, body). Without such an operation, it has to be a
        refusal."""
        status, kind, body = answer
        described = self.operation(method, path)
        content = self.content_of(described, status) if described else ERROR
        check(f"{where}: {status} with {kind} is documented", kind in content)
        if kind == "application/json" and kind in content:
            self.check_instance(where, json.loads(body), content[kind]["schema"])

    # ---- The document -----------------------------------------------------------------------

    def table_rows(self, heading):
        """Returns the rows of the table below a heading, as lists of cells."""
        section = self.text.split(f"{heading}\n", 1)[1].split("\n#", 1)[0]
        lines = [line for line in section.splitlines() if line.startswith("|")]
        return [[cell.strip() for cell in line.strip("|").split(" |")] for line in lines[2:]]

    def operations(self):
        """Returns the operations that have a section, such as "GET /ready"."""
        return {f"{method.upper()} {path}" for path, methods in self.openapi["paths"].items()
                for method in methods if path != "/{file}"}

    def check_document(self, validator):
        valid = subprocess.run(["node", validator, self.openapi_path], text=True,
                               stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)
        check(f"{self.openapi_path.name} is valid: {valid.stdout}", valid.returncode == 0)
        check_same("sections", self.operations(),
                   re.findall(r"^### ([A-Z]+ /\S*)$", self.text, re.MULTILINE))
        heading = self.text.splitlines()[0]
        check_same("paths of the first table", self.operations(),
                   [f"{method} {path.strip('`')}" for path, method, _ in self.table_rows(heading)])

    def commands(self):
        """Yields each command with the JSON that the document shows after it, or None."""
        for block in re.finditer(r"((?:^    .*\n)+)\n(?:```json\n((?:^(?!```).*\n)+))?", self.text,
                                 re.MULTILINE):
            if block[1].strip().startswith("curl"):
                yield re.sub(r"\\\n\s*", "", block[1]).strip(), block[2]

    def run_command(self, command, shown, address, **environment):
        """Validates the answer to a command and the one that the document shows. Returns the
        operation and the body."""
        report = "curl --silent --show-error --write-out '\\n%{http_code} %{content_type}'"
        done = subprocess.run(
            ["bash", "-c", command.replace(self.shown, address).replace("curl", report)],
            env={**os.environ, **environment}, stdout=subprocess.PIPE, text=True, check=False,
            timeout=PATIENCE)
        check(f"{command} ended with {done.returncode}",
              done.returncode == (CURL_TIMED_OUT if "--max-time" in command else 0))
        body, _, last = done.stdout.rpartition("\n")
        status, _, kind = last.partition(" ")
        method = "POST" if "--json" in command else "GET"
        path = re.split("[?']", command.split(self.shown)[-1])[0]
        self.check_answer(command, method, path, (status, kind, body))
        if shown:
            self.check_answer(f"the answer shown for {path}", method, path, (status, kind, shown))
        return f"{method} {path}", body

    def check_head(self, address):
        for path in (each.removeprefix("GET ") for each in self.operations()
                     if each.startswith("GET ")):
            status, _, body = request(address, "HEAD", path)
            check(f"HEAD {path} gives {status} without a body", status == 200 and not body)

    # ---- Refusals ---------------------------------------------------------------------------

    def documented_refusals(self):
        """Returns status and pattern of each."""
        return {(int(status), re.sub("<[a-z]+>", ".*", re.escape(text.strip("`"))))
                for status, text, *_ in self.table_rows("## Refusals")}

    def check_refusals(self, refused, is_unprovoked):
        """Checks method, path and answer of each refused request. Every documented refusal has to
        be among them, except for those (status, pattern) that no request can provoke."""
        rows, provoked = self.documented_refusals(), set()
        for method, path, answer in refused:
            status, _, body = answer
            text = json.loads(body)["error"]
            where = f"{method} {path} refused with {status} {text}"
            matching = {row for row in rows if row[0] == status and re.fullmatch(row[1], text)}
            check(f"{where} has one documented row: {matching}", len(matching) == 1)
            provoked |= matching
            self.check_answer(where, method, path, answer)
        check_same("documented refusals", {row for row in rows if not is_unprovoked(*row)},
                   provoked)
