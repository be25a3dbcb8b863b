"""The project's documents in Markdown: which there are, their links and anchors."""

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
    """Fenced blocks, indented ones and code within a line have no links."""
    text = re.sub(r"^```.*?^```", "", text, flags=re.MULTILINE | re.DOTALL)
    text = re.sub(r"(?<=\n\n)(?:    .*\n|\n(?=    ))+", "", text)
    return re.sub(r"`[^`]*`", "`", text)


def links(text):
    return re.findall(r"\]\(<?([^)\s>]+)[^)]*\)", without_code(text))


def anchors(text):
    """Those of the headings, as forges make them, and those that stand in the text."""
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
    """What one has to type to build, test, measure and install: those in indented blocks, without
    comments, one by one. What gatewayctl does is not among them."""
    for line in re.findall(r"^    (\S.*)$", path.read_text(), re.MULTILINE):
        for command in re.split(r" && |; ", re.split(r"\s{2,}#", line)[0]):
            if PROJECT_COMMAND.match(command.strip()):
                yield command.strip()
