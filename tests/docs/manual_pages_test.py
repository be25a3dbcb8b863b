#!/usr/bin/env -S python3 -B
"""Checks the built manual pages: they format without warnings and have their sections. Those of
gatewayctl fit a terminal and say what --help says; grpc-gateway.conf(5) contains all of
docs/configuration.md.

Usage: manual_pages_test.py MAN PAGES_FOLDER SOURCE_FOLDER VERSION GATEWAYCTL
"""

import os
import pathlib
import re
import subprocess
import sys

from checklist import check, check_same, end
from help_text import help_of, subcommands

MAN, PAGES, SOURCE, VERSION, GATEWAYCTL = (
    sys.argv[1], *map(pathlib.Path, sys.argv[2:4]), *sys.argv[4:6])
NARROW, WIDE = 80, 1000


def shown(page, width):
    """Formats a page for a terminal. On a very wide one, only necessary line breaks remain."""
    environment = dict(os.environ, MANWIDTH=str(width), LC_ALL="C.UTF-8", MAN_KEEP_FORMATTING="")
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


def sections(page):
    """Returns the sections that a page must have, in order."""
    names = ["NAME", "SYNOPSIS", "DESCRIPTION", "OPTIONS", "EXIT STATUS", "EXAMPLES", "SEE ALSO"]
    if page.suffix != ".1":
        names = [name for name in names if name in ("NAME", "DESCRIPTION", "SEE ALSO")]
    return names


def check_page(page):
    seen = shown(page, WIDE)
    check(f"{page.name} is of version {VERSION}", f"grpc-gateway {VERSION}" in seen)
    heads = re.findall("^[A-Z].*$", seen, re.MULTILINE)
    check(f"{page.name} has its sections in order: {heads}",
          [head for head in heads if head in sections(page)] == sections(page))
    for name, section in re.findall(r"([\w.-]+)\((\d)\)", seen.split("SEE ALSO")[-1]):
        check(f"{page.name}: {name}({section}) is a page", (PAGES / f"{name}.{section}").exists())
    if page.name == "grpc-gateway.conf.5":
        check_configuration(f" {joined(seen)} ")
    if page.suffix == ".1":
        check_fits(page)
        check_says_what_help_says(page, seen)


def check_fits(page):
    for line in shown(page, NARROW).splitlines():
        check(f"{page.name} fits {NARROW} columns: {line}", len(line) <= NARROW)


def check_says_what_help_says(page, seen):
    told = help_of(GATEWAYCTL, *page.stem.split("-")[1:])
    usage, told = re.search(r"\n\nUsage: (.*)\n\n((?:.|\n)*)", told).groups()
    name = rf"NAME\n\s+{page.stem} - .*\nSYNOPSIS\n\s+{re.escape(usage)}\nDESCRIPTION\n(.*)\n"
    page_text = re.search(name, re.sub(r"\n\n+", "\n", seen), re.DOTALL)
    check(f"{page.name} begins with name, synopsis and description", page_text)
    # The last line is the footer.
    text = page_text[1].rpartition("\n")[0]
    check(f"{page.name} says what --help says", joined(text) == joined(told))


expected = {path.stem for path in (SOURCE / "docs/man").glob("*.scd")} | {"gatewayctl.1"}
expected |= {f"gatewayctl-{name}.1" for name in subcommands(GATEWAYCTL)}
check_same("pages", expected, {path.name for path in PAGES.glob("*.[0-9]")})
for each in sorted(PAGES.glob("*.[0-9]")):
    check_page(each)
end()
