"""The rules of the module that a host or a peer can see. Each has a fault that breaks it, and names
the test that must fail then. They stand in the files of the folder rules, one for each theme.
"""

import dataclasses
import os.path
import pathlib
import re
import tomllib

import measuring
from subjects import ASSERTION

FOLDER = pathlib.Path(__file__).parent / "rules"
DATA = "docs/rules.json"
DOCUMENT = "docs/reliability.md"
CONTEXT = 30  # characters of the source shown on each side of a fault
LONGEST = 160  # characters of a fault that are shown


@dataclasses.dataclass(frozen=True)
class Rule:
    theme: str
    rule: str
    file: str
    before: str  # the text of the file that the fault replaces
    after: str
    test: str  # a program and one of its tests, or a target and ASSERTION
    occurrence: int = 1  # of `before` in the file

    @property
    def name(self):
        return self.file, self.rule, self.before, self.after, self.occurrence, self.test

    @property
    def checks(self):
        """The program and the filter of its tests."""
        return [tuple(self.test.split(" ", 1))]

    def text(self):
        return f"{self.file}: {self.rule}"

    def apply(self, text):
        start = -1
        for _ in range(self.occurrence):
            start = text.index(self.before, start + 1)
        return text[:start] + self.after + text[start + len(self.before):]

    def fault(self):
        """What the fault changes, with a little of what stands around it."""
        before, after = (" ".join(text.split()) for text in (self.before, self.after))
        start = len(os.path.commonprefix([before, after]))
        end = len(os.path.commonprefix([before[start:][::-1], after[start:][::-1]]))
        left = last_words(before[:start])
        right = last_words(before[len(before) - end:][::-1])[::-1]
        return tuple(left + text[start:len(text) - end] + right for text in (before, after))


def last_words(text):
    """As many of the last words as fit into CONTEXT, after an ellipsis if there are more."""
    return text if len(text) <= CONTEXT else "…" + text[-CONTEXT:].partition(" ")[2]


def read():
    """Every rule, by the title of its theme."""
    files = (tomllib.loads(path.read_text()) for path in sorted(FOLDER.glob("*.toml")))
    return {file["title"]: [Rule(file["title"], **row) for row in file["rules"]] for file in files}


def by_file(themes):
    """The rules that are broken in each source."""
    rules = [rule for rules in themes.values() for rule in rules]
    return {file: [rule for rule in rules if rule.file == file]
            for file in sorted({rule.file for rule in rules})}


# ---- The table ----------------------------------------------------------------------------------


def shortened(text):
    return text if len(text) <= LONGEST else f"{text[:LONGEST // 2]} … {text[-LONGEST // 2:]}"


def code(text):
    """Markdown's code, whatever stands in the text."""
    return f"`` {text} ``" if "`" in text else f"`{text}`"


def row(rule, result):
    before, after = map(shortened, rule.fault())
    return {"theme": rule.theme, "rule": rule.rule, "test": rule.test,
            "fault": f"{pathlib.Path(rule.file).name}: {code(before)} → {code(after or ' ')}",
            "seen": result.state == "killed"}


def page(data):
    """The lines between the marks of the document."""
    rows = data["rows"]
    seen = sum(each["seen"] for each in rows)
    yield from (f"The tests noticed {measuring.share(seen, len(rows), 'faults')} on {data['day']}.",
                "")
    for theme in dict.fromkeys(each["theme"] for each in rows):
        cells = [[each["rule"], code(re.sub(r"^\w+ ", "", each["test"])), each["fault"],
                  "it fails" if each["seen"] else "**it does not notice**"]
                 for each in rows if each["theme"] == theme]
        yield from (f"### {theme}", "")
        yield from measuring.table(("Rule", "Test", "Planted fault", "The test then"), cells)
        yield ""


PAGE = measuring.Page("scripts/mutate --rules", DOCUMENT, DATA, page)


def write(themes, results):
    rows = [row(rule, results[rule]) for rules in themes.values() for rule in rules]
    PAGE.write({"day": measuring.today(), "rows": rows})
