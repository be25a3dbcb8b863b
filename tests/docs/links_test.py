#!/usr/bin/env -S python3 -B
"""Checks that links in documents lead to existing files and headings, and that the README links to
all documents.

Usage: links_test.py SOURCE_FOLDER
"""

import pathlib
import re
import sys

from checklist import check, check_same, end
from markdown import anchors, documents, links

SOURCE = pathlib.Path(sys.argv[1]).resolve()


def check_link(document, link):
    if re.match(r"[a-z]+:", link):
        return  # another site
    path, _, anchor = link.partition("#")
    target = (document.parent / path).resolve() if path else document
    name = document.relative_to(SOURCE)
    check(f"{name}: {link} exists", target.exists())
    check(f"{name}: {link} stays within the project", target.is_relative_to(SOURCE))
    if anchor and target.is_file():
        check(f"{name}: {link} has its heading", anchor in anchors(target.read_text()))


def folders_of_table(readme):
    """Returns the folders in the table, and the top-level folder of each."""
    table = readme.split("## Folders", 1)[1]
    cells = re.findall(r"^\| (`.*?) \|", table, re.MULTILINE)
    paths = [path for cell in cells for path in re.findall(r"`([\w./-]+)/`", cell)]
    return paths, [path.split("/")[0] for path in paths]


def check_readme(path):
    readme = path.read_text()
    led_to = {(SOURCE / link.partition("#")[0]).resolve() for link in links(readme)}
    for document in (*SOURCE.glob("*.md"), *(SOURCE / "docs").glob("*.md")):
        if document != path:
            check(f"README.md links to {document.relative_to(SOURCE)}", document in led_to)
    paths, tops = folders_of_table(readme)
    check(f"README.md lists each folder once: {paths}", len(paths) == len(set(paths)))
    check_same("folders of the README", {each.name for each in SOURCE.iterdir() if each.is_dir()
               and not each.name.startswith((".", "build"))}, tops)


for each in documents(SOURCE):
    for found in links(each.read_text()):
        check_link(each, found)
check_readme(SOURCE / "README.md")
end()
