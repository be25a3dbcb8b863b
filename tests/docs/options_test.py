#!/usr/bin/env -S python3 -B
"""The manual pages of gatewayctl have what --help has, and documents use no option that is not.

Usage: options_test.py GATEWAYCTL SOURCE_FOLDER
"""

import pathlib
import re
import sys

import markdown
from checklist import check, check_same, end
from help_text import SUBCOMMANDS, help_of

GATEWAYCTL, SOURCE = sys.argv[1], pathlib.Path(sys.argv[2])
MANUAL = SOURCE / "docs/man"


def plain(text):
    """With one blank wherever there is white space, and without emphasis."""
    return " ".join(text.replace("\\\n", " ").replace("\\*", "").replace("*", "").split())


def terms_of(page):
    """The options that a page explains: names, value, explanation."""
    section = re.search(r"^# OPTIONS\n(.*?)^# ", page, re.MULTILINE | re.DOTALL)[1]
    return re.findall(r"^(\*-.*)\n((?:\t.*\n)+)", section, re.MULTILINE)


def check_option(where, option, terms):
    for term, explanation in terms:
        if re.findall(r"\*(--?[\w-]+)\*", term) != list(option.names):
            continue
        check(f"{where}: {option.names[-1]} has a value or not as in --help",
              option.takes_value == ("_" in term))
        check(f"{where}: {option.names[-1]} tells its default {option.default}",
              option.default in explanation)
        return
    check(f"{where}: explains {option.names}", False)


def check_page(*subcommand):
    name = "-".join(("gatewayctl", *subcommand)) + ".1.scd"
    page = (MANUAL / name).read_text()
    known = help_of(GATEWAYCTL, *subcommand)
    terms = terms_of(page)
    for option in known.options:
        check_option(name, option, terms)
    check(f"{name}: explains {len(known.options)} options and no more",
          len(terms) == len(known.options))
    synopsis = page.split("# SYNOPSIS", 1)[1].split("\n# ", 1)[0]
    for positional in known.positionals:
        check(f"{name}: the synopsis has {positional}", f"_{positional}_" in synopsis)
    text = plain(page)
    for line in known.literal_lines:
        check(f"{name}: says, as --help does: {line}", plain(line) in text)


def check_uses(path):
    text = path.read_text().replace("\\\n", " ")
    for subcommand, rest in re.findall(r"gatewayctl (\w+)([^\n`]*)", text):
        if subcommand not in SUBCOMMANDS:
            continue
        for option in re.findall(r"(?<![\w-])--[\w-]+", rest.replace("*", "")):
            check(f"{path.name}: gatewayctl {subcommand} has {option}", option in KNOWN[subcommand])


KNOWN = {subcommand: [name for option in help_of(GATEWAYCTL, subcommand).options
                      for name in option.names] for subcommand in SUBCOMMANDS}
check_page()
for each in SUBCOMMANDS:
    check_page(each)
check_same("a page for each sub-command", {f"gatewayctl-{each}.1.scd" for each in SUBCOMMANDS},
           {path.name for path in MANUAL.glob("gatewayctl-*.scd")})
for document in (*markdown.documents(SOURCE), *MANUAL.glob("*.scd")):
    check_uses(document)
end()
