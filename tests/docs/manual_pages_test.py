#!/usr/bin/env -S python3 -B
"""Checks the built manual pages: they format without warnings, and grpc-gateway.conf(5) contains
all of docs/configuration.md.

Usage: manual_pages_test.py MAN PAGES_FOLDER SOURCE_FOLDER VERSION
"""

import os
import pathlib
import re
import subprocess
import sys

from checklist import check, check_same, end

MAN, PAGES, SOURCE, VERSION = sys.argv[1], *map(pathlib.Path, sys.argv[2:4]), sys.argv[4]
SECTIONS = ("NAME", "SYNOPSIS", "DESCRIPTION", "SEE ALSO")


def shown(page):
    """Formats a page for a very wide terminal, so that only necessary line breaks remain."""
    environment = dict(os.environ, MANWIDTH="1000", LC_ALL="C.UTF-8", MAN_KEEP_FORMATTING="")
    done = subprocess.run([MAN, "--local-file", "--warnings", "--no-hyphenation",
                           "--no-justification", "--pager=cat", page], stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, check=True, text=True, env=environment)
    check(f"{page.name} formats without a warning: {done.stderr}", not done.stderr)
    return done.stdout


def joined(text):
    return " ".join(text.split())


def pieces_of(markdown):
    """Yields each paragraph, list item, table cell and line of code as the page shows it."""
    for block in re.split(r"\n\n+", re.sub(r"^(```.*)$", r"\n\1\n", markdown, flags=re.MULTILINE)):
        if block.startswith("|"):
            rows = [row for row in block.splitlines() if not row.startswith("|---")]
            yield from (cell for row in rows for cell in row.strip("|").split("|"))
        elif block.startswith("- "):
            yield from re.split(r"^- ", block, flags=re.MULTILINE)
        elif block.startswith("## "):
            yield block[3:].upper()
        elif not block.startswith(("# ", "```")):
            yield block.removeprefix("### ")


def plain(piece):
    piece = re.sub(r"`([^`]*)`", r"\1", piece)
    return joined(re.sub(r"\*([^*]+)\*", r"\1", piece))


def check_configuration(text):
    pieces = map(plain, pieces_of((SOURCE / "docs/configuration.md").read_text()))
    for piece in filter(None, pieces):
        check(f"grpc-gateway.conf(5) says: {piece}", f" {piece} " in text)


check_same("pages", {path.stem for path in (SOURCE / "docs/man").glob("*.scd")},
           {path.name for path in PAGES.glob("*.[0-9]")})
for each in sorted(PAGES.glob("*.[0-9]")):
    seen = shown(each)
    check(f"{each.name} states version {VERSION}", f"grpc-gateway {VERSION}" in seen)
    for head in SECTIONS:
        # Pages of section 7 have no synopsis.
        if head != "SYNOPSIS" or each.suffix != ".7":
            check(f"{each.name} has {head}", re.search(f"^{head}$", seen, re.MULTILINE))
    for name, section in re.findall(r"([\w.-]+)\((\d)\)", seen.split("SEE ALSO")[-1]):
        page = f"{name}.{section}"
        check(f"{each.name}: {page} is one of ours", (PAGES / page).exists())
    if each.name == "grpc-gateway.conf.5":
        check_configuration(f" {joined(seen)} ")
end()
