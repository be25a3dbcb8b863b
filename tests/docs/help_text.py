"""Parses `gatewayctl SUBCOMMAND --help` for the tests of manual pages and completions."""

import re
import subprocess
from typing import NamedTuple

SUBCOMMANDS = ("check", "demo", "discover", "host", "sim")


class Option(NamedTuple):
    names: tuple  # such as ("-h", "--help")
    takes_value: bool
    default: str  # a number or an address, or ""


class Help(NamedTuple):
    options: list
    positionals: list
    literal_lines: list  # indented lines below the options: formats, commands, examples


def section_of(text, head):
    """Returns the lines between a heading and the next empty line."""
    found = re.search(rf"^{head}:\n(.*?)(?:\n\n|\Z)", text, re.MULTILINE | re.DOTALL)
    return found[1].splitlines() if found else []


def option_of(line):
    # One blank separates an option from its value, more from its description.
    found = re.match(r"  ((?:-\w,)?--[\w-]+)(?: (?! )(.*))?", line)
    if not found:
        return None
    rest = re.split(r"  |Excludes:", found[2] or "")[0].strip()
    default = re.search(r"=(\d\S*)$", rest)
    return Option(tuple(found[1].split(",")), bool(rest), default[1] if default else "")


def help_of(gatewayctl, *subcommand):
    run = subprocess.run([gatewayctl, *subcommand, "--help"], stdout=subprocess.PIPE, check=True,
                         text=True)
    text = run.stdout
    options = [option_of(line) for line in section_of(text, "Options")]
    positionals = [re.match(r"  (\w+)", line) for line in section_of(text, "Positionals")]
    below = text[text.index("Options:\n"):].split("\n\n", 1)[1]
    return Help([option for option in options if option],
                [name[1] for name in positionals if name],
                [line.strip() for line in below.splitlines() if line.startswith("  ")])


def rules_of(gatewayctl):
    run = subprocess.run([gatewayctl, "check", "--list-rules"], stdout=subprocess.PIPE, check=True,
                         text=True)
    return [line.split()[0] for line in run.stdout.splitlines()]
