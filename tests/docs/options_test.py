#!/usr/bin/env -S python3 -B
"""Checks that documents and manuals name only options that gatewayctl has, and that the manuals fit
a terminal.

Usage: options_test.py GATEWAYCTL SOURCE_FOLDER
"""

import pathlib
import re
import sys

import markdown
from checklist import check, end
from help_text import help_of, options_of, subcommands

GATEWAYCTL, SOURCE = sys.argv[1], pathlib.Path(sys.argv[2])
WIDTH = 80


def check_uses(where, text):
    text = text.replace("\\\n", " ")
    for subcommand, rest in re.findall(r"gatewayctl (\w+)([^\n`]*)", text):
        if subcommand not in KNOWN:
            continue
        for option in re.findall(r"(?<![\w-])--[\w-]+", rest.replace("*", "")):
            check(f"{where}: gatewayctl {subcommand} has {option}", option in KNOWN[subcommand])


def check_manual(*subcommand):
    where, text = " ".join(("gatewayctl", *subcommand, "--help")), help_of(GATEWAYCTL, *subcommand)
    check_uses(where, text)
    for line in text.splitlines():
        check(f"{where} fits {WIDTH} columns: {line}", len(line) < WIDTH and line == line.rstrip())
    if subcommand:
        own = re.sub(rf"gatewayctl (?!{subcommand[0]}\b)[^\n`]*", "", text)
        for option in re.findall(r"(?<![\w-])--[a-z][\w-]*", own):
            check(f"{where}: {option} is an option of it", option in KNOWN[subcommand[0]])


KNOWN = {subcommand: [name for option in options_of(GATEWAYCTL, subcommand)
                      for name in option.names] for subcommand in subcommands(GATEWAYCTL)}
check(f"there are sub-commands: {list(KNOWN)}", len(KNOWN) >= 6)
for document in (*markdown.documents(SOURCE), *(SOURCE / "docs/man").glob("*.scd")):
    check_uses(document.name, document.read_text())
check_manual()
for each in KNOWN:
    check_manual(each)
end()
