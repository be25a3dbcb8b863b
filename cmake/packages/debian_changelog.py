"""Writes CHANGELOG.md as the changelog of a Debian package.

Usage: debian_changelog.py CHANGELOG.md PACKAGE MAINTAINER OUTPUT

An unreleased version gets the date of SOURCE_DATE_EPOCH, or today's.
"""

import os
import pathlib
import re
import sys
import textwrap
import time
from datetime import datetime, timezone
from email.utils import format_datetime

RELEASE = re.compile(r"^## (\S+) (?:- (\d{4}-\d\d-\d\d)|\(unreleased\))$", re.MULTILINE)


def plain(item):
    return re.sub(r"[`*]", "", " ".join(item.split()))


def items_of(section):
    """Yields each item as one text that begins with the heading above it."""
    for heading, body in re.findall(r"^### (.*)\n+((?:(?!^#).*\n)*)", section, re.MULTILINE):
        for item in re.split(r"^- ", body, flags=re.MULTILINE)[1:]:
            yield f"{heading}: {plain(item)}"


def entry_of(package, maintainer, version, date, section):
    if date:
        moment = datetime.fromisoformat(date).replace(tzinfo=timezone.utc)
    else:
        moment = datetime.fromtimestamp(int(os.environ.get("SOURCE_DATE_EPOCH", time.time())),
                                        timezone.utc)
    lines = [textwrap.fill(item, 76, initial_indent="  * ", subsequent_indent="    ")
             for item in items_of(section)]
    return "\n".join([f"{package} ({version}) {'unstable' if date else 'UNRELEASED'}; "
                      "urgency=medium", "", *lines, "",
                      f" -- {maintainer}  {format_datetime(moment)}", ""])


changelog, package, maintainer, output = sys.argv[1:]
_, *releases = RELEASE.split(pathlib.Path(changelog).read_text())
if not releases:
    sys.exit(f"{changelog} has no heading like \"## 1.2.3 - 2026-01-31\" or \"(unreleased)\"")
entries = [entry_of(package, maintainer, *releases[at:at + 3])
           for at in range(0, len(releases), 3)]
pathlib.Path(output).write_text("\n".join(entries))
