"""Finds the project's Markdown documents, and their links, anchors and commands."""

import os
import re

NOT_OURS = {"build", "node_modules"}
PROJECT_COMMAND = re.compile(r"(?:sudo )?(?:cmake|ctest|npm|bash \.ci|scripts/|tests/|examples/|"
                             r"\.ci/|build/(?:[\w-]+/tests|example)/|clang-|mkdir )")


def documents(source):
    for folder, folders, files in os.walk(source):
        folders[:] = sorted(name for name in folders
                            if name not in NOT_OURS and not name.startswith((".", "build-")))
        for name in sorted(files):
            if name.endswith(".md"):
                yield type(source)(folder) / name


def without_code(text):
    """Removes fenced blocks, indented blocks and inline code, which contain no links."""
    text = re.sub(r"^```.*?^```", "", text, flags=re.MULTILINE | re.DOTALL)
    text = re.sub(r"(?<=\n\n)(?:    .*\n|\n(?=    ))+", "", text)
    return re.sub(r"`[^`]*`", "`", text)


def links(text):
    return re.findall(r"\]\(<?([^)\s>]+)[^)]*\)", without_code(text))


def anchors(text):
    """Returns the anchors that forges derive from headings, and the explicit ones."""
    made = set()
    unfenced = re.sub(r"^```.*?^```", "", text, flags=re.MULTILINE | re.DOTALL)
    for heading in re.findall(r"^#+ (.*)$", unfenced, re.MULTILINE):
        words = re.sub(r"\[([^]]*)\]\([^)]*\)", r"\1", heading).lower()
        anchor = re.sub(r"[^\w\- ]", "", words.strip()).replace(" ", "-")
        count = 0
        while (numbered := anchor + (f"-{count}" if count else "")) in made:
            count += 1
        made.add(numbered)
    return made | set(re.findall(r'<a (?:id|name)="([^"]+)"', text))


def project_commands(path):
    """Yields each command in indented blocks that builds, tests, measures or installs, without
    comments. Commands of gatewayctl are not included."""
    for line in re.findall(r"^    (\S.*)$", path.read_text(), re.MULTILINE):
        for command in re.split(r" && |; ", re.split(r"\s{2,}#", line)[0]):
            if PROJECT_COMMAND.match(command.strip()):
                yield command.strip()
