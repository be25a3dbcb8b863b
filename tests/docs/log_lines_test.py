#!/usr/bin/env -S python3 -B
"""Checks that docs/troubleshooting.md shows log lines as the module writes them, and shows all
lines of levels 3 and 4.

Usage: log_lines_test.py SOURCE_FOLDER
"""

import pathlib
import re
import sys

from checklist import check, end

SOURCE = pathlib.Path(sys.argv[1])
LITERAL = r'"((?:[^"\\]|\\.)*)"'
CALL = re.compile(r"GATEWAY_LOG\(\s*(\w+)\s*,\s*((?:" + LITERAL + r"\s*)+)((?:,[^;]*)?)\);")


def shown_lines(text):
    blocks = re.findall(r"^```log\n(.*?)^```", text, re.MULTILINE | re.DOTALL)
    return [line for block in blocks for line in block.splitlines()]


def formats_of(code):
    """Yields level and format of each call, with a literal function name filled in."""
    for call in CALL.finditer(code):
        text = "".join(re.findall(LITERAL, call[2]))
        name = re.match(rf",\s*{LITERAL}", call[4])
        if name:
            text = text.replace("%s", name[1], 1)
        yield call[1], text


def pattern_of(text):
    parts = re.split(r"%(?:s|d|p)", text)
    # A "%d" without its argument may print anything, even itself.
    return re.compile(r"\S.*".join(re.escape(part) for part in parts))


code = [path.read_text() for folder in ("src/module",)
        for path in sorted((SOURCE / folder).rglob("*.cpp"))]
known = [each for text in code for each in formats_of(text)]
shown = shown_lines((SOURCE / "docs/troubleshooting.md").read_text())

check("the module's sources have log lines", len(known) >= 30)
for line in shown:
    check(f"the module writes: {line}",
          any(pattern_of(text).fullmatch(line) for _, text in known))
for level, text in known:
    weighty = level in ("SONALITH_LOG_FAULT", "SONALITH_LOG_ERROR", "level")
    if weighty or "verification failed" in text:
        check(f"docs/troubleshooting.md shows: {text}",
              any(pattern_of(text).fullmatch(line) for line in shown))
end()
