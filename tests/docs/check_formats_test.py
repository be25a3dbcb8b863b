#!/usr/bin/env -S python3 -B
"""Checks what `gatewayctl check --format` prints for programs.

JSON and SARIF have to fit their published schemas. The JSON holds exact bytes, so it also says what
each other format has to say, and in which column.

Usage: check_formats_test.py GATEWAYCTL SOURCE_FOLDER SARIF_SCHEMA
"""

import json
import pathlib
import random
import re
import subprocess
import sys
import tempfile
import urllib.parse
import xml.etree.ElementTree

from jsonschema import Draft4Validator, Draft202012Validator

from checklist import check, check_same, end
from schemas import closed

GATEWAYCTL, SOURCE, SARIF_SCHEMA = (pathlib.Path(path).resolve() for path in sys.argv[1:4])
CASES = SOURCE / "tests/tools/check/cases"
LEVELS = {"error": "error", "warning": "warning", "note": "notice"}  # of GitHub


def run(arguments, folder, data=None):
    done = subprocess.run([GATEWAYCTL, "check", *arguments], cwd=folder, input=data,
                          stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=False)
    return done.returncode, done.stdout


# ---- The configurations -----------------------------------------------------------------------

def write_odd_files(folder):
    """Writes files that the cases lack: long lines, many mistakes, and any bytes."""
    sound = b"[Meters]\nTarget=localhost:50005\n[MetersFloat]\n"
    wide = "\u00e4\u97f3\U0001f50a"
    texts = {
        "plain.conf": sound + b"Meter=Key=a DefaultValue=nan\n",
        "marked.conf": b"\xef\xbb\xbfTarget=x:1\n" + sound + b"Meter=key=b\n",
        "wide.conf": sound + f'Meter=key="{wide}" CustomKey=a, DefaultValue=1x\n'.encode() * 3,
        "latin.conf": sound + b"Meter=Key=T\xfcr key=b\nMeter=Key=\xf0\x9f Size=1 kez=2\n",
        "long.conf": sound + f"Meter=Key={wide * 113} CustomKey=a Tipe=fast Tyqe=x\n".encode() * 2,
        "many.conf": sound + b"Meter=Key=a Type=medium\n" * 103,
        "markup.conf": sound + b"Meter=<a href='%0A'>&\"]]>\x1b[31m\x01\xef\xbf\xbe=1:2,3\r\n",
        "nul.conf": sound + b"Meter=Key=a\0b=c\nMeter=key=d\n",
        "a b%:,\u00e4'.conf": sound + b"Meter: Key=a\n",
    }
    bytes_of = random.Random(17)
    for number in range(40):
        parts = [b"Meter=", b"Key=", b"[", b"]", b"\n", b" ", b"=", b"\xc3", b"\xa4", b"\xf0\x9f",
                 b"\x98\x80", b"\0", b"\r", b"[MetersFloat]\n", b"\x7f", b"\"", b"Param=key=x\n"]
        texts[f"soup{number}.conf"] = b"".join(bytes_of.choices(parts, k=200))
    for name, text in texts.items():
        (folder / name).write_bytes(text)
    return sorted(texts)


# ---- What each report has to say --------------------------------------------------------------

def message_of(diagnostic):
    lines = [f"{diagnostic['text']}; {diagnostic['remedy']}"]
    for note in diagnostic["notes"]:
        same_file = note["file"] == diagnostic["file"]
        place = (f" in {note['file']}:{note['line']}:" if not same_file else
                 f" in line {note['line']}:" if note["line"] != diagnostic["line"] else "")
        lines.append(f"so{place if note['line'] else ''} {note['text']} [{note['rule']}]")
    return "\n".join(lines)


def line_of(folder, diagnostic):
    """Returns the bytes of the line, without a byte order mark, and how many bytes that has."""
    lines = (folder / diagnostic["file"]).read_bytes().split(b"\n")
    line = lines[diagnostic["line"] - 1]
    marked = diagnostic["line"] == 1 and line.startswith(b"\xef\xbb\xbf")
    return (line[3:], 3) if marked else (line, 0)


def units(data):
    return len(data.decode("utf-8", "replace").encode("utf-16-le")) // 2


def columns_of(folder, diagnostic, column, length):
    """Returns the columns in UTF-16 code units, or None within a character."""
    line, mark = line_of(folder, diagnostic)
    begin = column - 1 - mark
    at, after = line[:begin], line[:begin + length]
    cut_after = units(after) + units(line[len(after):]) != units(line)
    cut_at = units(at) + units(line[len(at):]) != units(line)
    return None if cut_at or cut_after else (units(at) + 1, units(after) + 1)


def check_columns(where, folder, diagnostic, column, length, actual):
    # A NUL byte ends the text that the checker sees.
    if b"\0" in line_of(folder, diagnostic)[0]:
        return False
    expected = columns_of(folder, diagnostic, column, length)
    if expected is None:
        return False
    check(f"{where}: columns {actual}, expected {expected}", actual == expected[:len(actual)])
    return True


# ---- The formats ------------------------------------------------------------------------------

def read_json(folder, arguments, validator):
    code, output = run(["--json", *arguments], folder)
    again = run(["--format", "json", *arguments], folder)
    check("--json means --format json", again == (code, output))
    document = json.loads(output)
    problems = [f"{error.json_path}: {error.message[-300:]} {error.context[:5]}"
                for error in validator.iter_errors(document)]
    check(f"the JSON fits its schema: {problems[:1]}", not problems)
    check("the JSON has the exit code", document["exit_code"] == code)
    return document


def check_fix(folder, result, diagnostic):
    edit = diagnostic["edit"]
    whole = "\ufffd" not in diagnostic["source"]
    check(f"{diagnostic} has a fix if it has an edit", ("fixes" in result) == bool(edit and whole))
    if "fixes" not in result:
        return
    change = result["fixes"][0]["artifactChanges"][0]
    replacement = change["replacements"][0]
    region = replacement["deletedRegion"]
    check("a fix inserts what the edit writes",
          replacement["insertedContent"]["text"] == edit["after"])
    check("a fix is in the line of the edit", region["startLine"] == edit["line"])
    check("a fix says whether it is safe",
          result["fixes"][0]["properties"]["safe"] == edit["safe"])
    check_columns(f"fix of {diagnostic}", folder, diagnostic, edit["column"],
                  len(edit["before"].encode()), (region["startColumn"], region["endColumn"]))


def check_sarif(folder, arguments, document, diagnostics, validator):
    code, output = run(["--format", "sarif", *arguments], folder)
    check("SARIF has the same exit code", code == document["exit_code"])
    log = json.loads(output)
    problems = [error.message[:300] for error in validator.iter_errors(log)]
    check(f"SARIF fits its schema: {problems[:3]}", not problems)
    [sarif] = log["runs"]
    check("SARIF says its unit of columns", sarif["columnKind"] == "utf16CodeUnits")
    rules = [rule["id"] for rule in sarif["tool"]["driver"]["rules"]]
    check_same("SARIF has all rules", rules, listed_rules())
    check("SARIF has all diagnostics", len(sarif["results"]) == len(diagnostics))
    for result, diagnostic in zip(sarif["results"], diagnostics):
        place = result["locations"][0]["physicalLocation"]
        uri = place["artifactLocation"]["uri"]
        said = (result["ruleId"], rules[result["ruleIndex"]], result["level"],
                result["message"]["text"], urllib.parse.unquote(uri.removeprefix("file://")),
                place.get("region", {}).get("startLine"))
        expected = (diagnostic["rule"], diagnostic["rule"], diagnostic["severity"],
                    message_of(diagnostic), diagnostic["file"], diagnostic["line"])
        check(f"SARIF says {said}, expected {expected}", said == expected)
        if diagnostic["line"]:
            region = place["region"]
            check_columns(f"SARIF, {diagnostic}", folder, diagnostic, diagnostic["column"],
                          diagnostic["length"], (region["startColumn"], region["endColumn"]))
            check_fix(folder, result, diagnostic)
        related = [note["message"]["text"] for note in result.get("relatedLocations", [])]
        check("SARIF has all notes", related == [note["text"] for note in diagnostic["notes"]])
    [invocation] = sarif["invocations"]
    told = [note["message"]["text"] for note in invocation["toolExecutionNotifications"]]
    unreadable = [file["reason"] for file in document["files"] if file["reason"]]
    check(f"SARIF names unreadable files: {told}", set(unreadable) <= set(told))
    check("SARIF says that it leaves diagnostics out",
          sum(text.startswith("not shown: ") for text in told) ==
          sum(file["omitted"] > 0 for file in document["files"]))


def visible(text):
    """Returns the text with control characters as their escapes."""
    return re.sub("[\0-\x08\x0b\x0c\x0e-\x1f]", lambda found: f"\\x{ord(found[0]):02x}", text)


def unescaped(text):
    for code, character in (("%0D", "\r"), ("%0A", "\n"), ("%3A", ":"), ("%2C", ","), ("%25", "%")):
        text = text.replace(code, character)
    return text


COMMAND = re.compile(r"::(\w+) file=([^,:]*)"
                     r"(?:,line=(\d+),endLine=\3,col=(\d+),endColumn=(\d+))?"
                     r"(?:,title=([a-z0-9-]+))?::(.*)")


def check_github(folder, arguments, document, diagnostics):
    code, output = run(["--format", "github", *arguments], folder)
    check("GitHub's commands have the same exit code", code == document["exit_code"])
    lines = output.decode().split("\n")[:-1]  # valid UTF-8, whatever the files hold
    commands = [COMMAND.fullmatch(line) for line in lines]
    check(f"all lines are commands: {lines[:3]}", all(commands))
    with_rule = [command for command in commands if command[6]]
    check("GitHub has all diagnostics", len(with_rule) == len(diagnostics))
    for command, diagnostic in zip(with_rule, diagnostics):
        said = (command[1], unescaped(command[2]), command[6], unescaped(command[7]))
        expected = (LEVELS[diagnostic["severity"]], diagnostic["file"], diagnostic["rule"],
                    visible(message_of(diagnostic)))
        known = "\ufffd" in expected[3] or "\x7f" in expected[3]
        check(f"GitHub reads {said}, expected {expected}", said == expected or known)
        check("GitHub has the line", command[3] == (str(diagnostic["line"] or "") or None))
        if diagnostic["line"]:
            check_columns(f"GitHub, {diagnostic}", folder, diagnostic, diagnostic["column"],
                          diagnostic["length"], (int(command[4]), int(command[5])))
    others = [unescaped(command[7]) for command in commands if not command[6]]
    for file in document["files"]:
        if file["reason"]:
            check("GitHub names unreadable files", f"can't be checked: {file['reason']}" in others)


def check_checkstyle(folder, arguments, document, diagnostics):
    code, output = run(["--format", "checkstyle", *arguments], folder)
    check("Checkstyle has the same exit code", code == document["exit_code"])
    root = xml.etree.ElementTree.fromstring(output)
    judged = {file["file"] for file in document["files"]}
    check_same("Checkstyle has all files", judged | {each["file"] for each in diagnostics},
               {file.get("name") for file in root})
    for file in root:
        errors = [error for error in file if not error.get("source").endswith((".omitted",
                                                                               ".unreadable"))]
        expected = [each for each in diagnostics if each["file"] == file.get("name")]
        check(f"Checkstyle has all of {file.get('name')}", len(errors) == len(expected))
        for error, diagnostic in zip(errors, expected):
            wanted = visible(message_of(diagnostic)).replace("\ufffe", "\\xef\\xbf\\xbe")
            known = "\ufffd" in wanted
            said = error.get("message")
            check(f"Checkstyle says {said!r}, expected {wanted!r}", said == wanted or known)
            check("Checkstyle has the line", int(error.get("line")) == (diagnostic["line"] or 0))
            severity = {"note": "info"}.get(diagnostic["severity"], diagnostic["severity"])
            check("Checkstyle has the severity", error.get("severity") == severity)
            check("Checkstyle has the rule",
                  error.get("source") == f"gatewayctl.check.{diagnostic['rule']}")
            if diagnostic["line"]:
                check_columns(f"Checkstyle, {diagnostic}", folder, diagnostic,
                              diagnostic["column"], diagnostic["length"],
                              (int(error.get("column")),))


def listed_rules():
    return [line.split()[0].decode() for line in run(["--list-rules"], SOURCE)[1].splitlines()]


# ---- All of it --------------------------------------------------------------------------------

def check_all(folder, arguments, json_validator, sarif_validator):
    document = read_json(folder, arguments, json_validator)
    diagnostics = [each for file in document["files"] for each in file["diagnostics"]]
    check_sarif(folder, arguments, document, diagnostics, sarif_validator)
    check_github(folder, arguments, document, diagnostics)
    check_checkstyle(folder, arguments, document, diagnostics)
    return document, diagnostics


def check_comparison(folder, validator):
    def write(name, target, floats, ints, more=""):
        (folder / name).write_text(f"[Meters]\nTarget={target}:1\n[Engine]\nTarget=x:1\n"
                                   f"[MetersFloat]\n{floats}\n[MetersInt]\n{ints}\n{more}")

    write("old.conf", "x", "Meter=Key=a\nMeter=Key=b", "Meter=Key=c", "[EngineInt]\nParam=Key=p\n")
    write("new.conf", "y", "Meter=Key=b DefaultValue=nan\nMeter=Key=d",
          "Meter=Key=a\nMeter=Key=c Type=slow")
    document = read_json(folder, ["--compare", "old.conf", "new.conf"], validator)
    check("settings differ", document["settings"])
    kinds = {(bool(each["before"]), bool(each["after"])) for each in document["slots"]}
    check(f"slots are new, gone and changed: {kinds}",
          kinds == {(False, True), (True, False), (True, True)})


def check_that_all_members_occur(documents, diagnostics):
    """Shows that the schema's members were tried: each has a value somewhere."""
    files = [file for document in documents for file in document["files"]]
    check("all verdicts occur",
          {file["verdict"] for file in files} == {"accepted", "refused", "unreadable"})
    for member in ("reason", "omitted_by_rule", "slots", "module_log"):
        check(f"{member} occurs", any(file[member] for file in files))
    for member in ("line", "edit", "notes", "section", "read_at", "source"):
        check(f"{member} occurs, and is left out",
              {bool(each[member]) for each in diagnostics} == {True, False})
    # The others compare a file with what a server sends, which no case does here.
    of_files = {name for name in listed_rules() if not (CASES / f"{name}.heard").exists()}
    check_same("all rules of files occur", {each["rule"] for each in diagnostics}, of_files)


def main():
    schema = json.loads((SOURCE / "docs/check.schema.json").read_text())
    Draft202012Validator.check_schema(schema)
    json_validator = Draft202012Validator(closed(schema))
    sarif_validator = Draft4Validator(json.loads(SARIF_SCHEMA.read_text()))
    cases = [path.relative_to(CASES).as_posix() for path in sorted(CASES.glob("**/*.conf"))]
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        odd = [*write_odd_files(folder), "missing.conf"]
        reports = [check_all(CASES, cases, json_validator, sarif_validator),
                   check_all(folder, odd, json_validator, sarif_validator),
                   check_all(folder, ["--strict", "plain.conf"], json_validator, sarif_validator)]
        check_comparison(folder, json_validator)
    check_that_all_members_occur([report[0] for report in reports],
                                 [each for report in reports for each in report[1]])


main()
end()
