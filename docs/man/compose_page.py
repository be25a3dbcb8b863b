#!/usr/bin/env -S python3 -B
"""Writes a manual page in scdoc on standard output.

Usage: compose_page.py SOURCE VERSION MARKDOWN

In SOURCE, @VERSION@ becomes VERSION, and a line @MARKDOWN@ becomes the text of the file MARKDOWN,
so that documents and pages share one source. It supports the Markdown that docs/configuration.md
uses: headings, paragraphs, tables, lists, code blocks, and inline code, emphasis and links.
"""

import re
import sys

MARKS = re.compile(
    r"`(?P<code>[^`]+)`|\*\*(?P<strong>[^*]+)\*\*|\*(?P<emphasis>[^*]+)\*"
    r"|\[(?P<link>[^]]+)\]\([^)]+\)")


def literal(text):
    return re.sub(r"([\\*_])", r"\\\1", text)


def inline(text):
    written, last = "", 0
    for mark in MARKS.finditer(text):
        written += literal(text[last:mark.start()])
        last = mark.end()
        if mark["link"]:
            written += inline(mark["link"])
        elif mark["emphasis"]:
            written += "_" + literal(mark["emphasis"]) + "_"
        else:
            written += "*" + literal(mark["code"] or mark["strong"]) + "*"
    return written + literal(text[last:])


def joined(lines):
    return " ".join(line.strip() for line in lines)


def table(lines):
    rows = [line.strip().strip("|").split("|") for line in lines]
    del rows[1]  # the rule below the header
    last = len(rows[0]) - 1
    written = []
    for number, row in enumerate(rows):
        for column, cell in enumerate(row):
            # The last column takes the rest of the line's width, and wraps.
            alignment = " " if number else "<" if column == last else "["
            text = inline(cell.strip())
            begin = ":" if column else "|"
            written.append(f"{begin}{alignment} " + (text if number else f"*{text}*"))
    return written


def list_items(lines):
    items = []
    for line in lines:
        if line.startswith("- "):
            items.append(line[2:])
        else:
            items[-1] += " " + line.strip()
    return ["- " + inline(item) for item in items]


def code(lines):
    return ["```", *lines, "```"]


def heading(line):
    """The lines of a heading, and whether the text after it describes a term."""
    level, text = line.split(" ", 1)
    if level == "##":
        return [f"# {text.upper()}", ""], False
    if level == "###":
        return [f"*{literal(text)}*"], True
    return [], False  # the title: the page has its own


def block(lines):
    if lines[0].startswith("|"):
        return table(lines)
    if lines[0].startswith("- "):
        return list_items(lines)
    if lines[0].startswith("    "):
        return code([line[4:] for line in lines])
    return [inline(joined(lines))]


def blocks(text):
    """Yields the blocks of a text as lists of lines; a fenced block begins with its fence."""
    block_lines, fenced = [], False
    for line in text.splitlines():
        if line.startswith("```"):
            fenced = not fenced
            if not fenced:
                yield block_lines
                block_lines = []
                continue
        if line or fenced:
            block_lines.append(line)
        elif block_lines:
            yield block_lines
            block_lines = []
    if block_lines:
        yield block_lines


def scdoc_of(markdown):
    written, in_term = [], False
    for lines in blocks(markdown):
        if lines[0].startswith("#"):
            head, in_term = heading(lines[0])
            written += head
        elif lines[0].startswith("```"):
            written += [*code(lines[1:]), ""]
        else:
            indent = "\t" if in_term else ""
            written += [indent + line for line in block(lines)] + [""]
    return "\n".join(written)


def main():
    source, version, markdown = sys.argv[1:]
    with open(source, encoding="utf-8") as file:
        page = file.read().replace("@VERSION@", version)
    if "@MARKDOWN@" in page:
        with open(markdown, encoding="utf-8") as file:
            page = page.replace("@MARKDOWN@\n", scdoc_of(file.read()))
    sys.stdout.reconfigure(encoding="utf-8")
    sys.stdout.write(page)


if __name__ == "__main__":
    main()
