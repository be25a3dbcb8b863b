"""What scripts/bench, coverage, fuzz, mutate, platforms and prove share: running stages, describing
the machine, writing figures as text, and pages whose tables are made from a data file.
"""

import contextlib
import datetime
import json
import os
import pathlib
import platform
import subprocess
import sys
import textwrap
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
WIDTH = 100  # of a page's prose


# ---- Running ------------------------------------------------------------------------------------


def say(text):
    """Reports progress on standard error, so that standard output keeps to the results."""
    print(f"scripts/{pathlib.Path(sys.argv[0]).name}: {text}", file=sys.stderr, flush=True)


@contextlib.contextmanager
def stage(name):
    """Announces a stage, and reports how many seconds it took."""
    say(name)
    started = time.monotonic()
    try:
        yield
    finally:
        say(f"{name} took {time.monotonic() - started:.1f} s")


def run(*command, **options):
    """Runs a command at the root of the tree; the options are those of subprocess.run."""
    return subprocess.run([str(word) for word in command], cwd=ROOT, **{"check": True, **options})


def build(preset, *targets, quiet=False):
    """Configures and builds. If quiet, the output is only seen when that fails."""
    chosen = ["--target", *targets] if targets else []
    caught = {"stdout": subprocess.PIPE, "stderr": subprocess.STDOUT, "text": True}
    for command in (["--preset", preset], ["--build", "--preset", preset, *chosen]):
        run("cmake", *command, **(caught if quiet else {}))


def end_with(main):
    """Ends the script with main's exit code, or with 1 and a message if a command fails."""
    try:
        sys.exit(main())
    except subprocess.CalledProcessError as error:
        say(f"{' '.join(error.cmd)} failed; scripts/setup installs what is missing")
        sys.exit(error.output or 1)


def choose(parser, kind, names, known):
    """Ends the script with a usage error if one of the names is unknown."""
    for name in names:
        if name not in known:
            parser.error(f'there is no {kind} "{name}": choose from {", ".join(known)}')


# ---- The machine --------------------------------------------------------------------------------


def version_of(*command):
    return run(*command, capture_output=True, text=True).stdout.split("\n")[0]


def processor():
    for line in pathlib.Path("/proc/cpuinfo").read_text().splitlines():
        if line.startswith("model name"):
            return line.partition(":")[2].strip()
    return platform.machine()


def machine():
    """The processors and the versions that figures depend on, in one line."""
    return ", ".join((
        f"{len(os.sched_getaffinity(0))} × {processor()}",
        platform.freedesktop_os_release()["PRETTY_NAME"],
        f"Linux {platform.release()}",
        version_of("g++", "--version"),
        f"gRPC {version_of('pkg-config', '--modversion', 'grpc++')}",
    ))


def today():
    return str(datetime.date.today())


# ---- Figures as text ----------------------------------------------------------------------------


def amount(value, unit):
    """Three significant digits of a time in seconds, and whole numbers of everything else."""
    if unit == "B":
        return f"{value / 1e6:.2f} MB"
    if unit == "/s":
        return f"{value:,.0f} /s"
    if unit != "s":
        return f"{value:,.0f}"
    for factor, name in ((1, "s"), (1e-3, "ms"), (1e-6, "µs")):
        if value >= factor:
            return f"{value / factor:.3g} {name}"
    return f"{value * 1e9:.0f} ns"


def singular(noun):
    return f"{noun[:-3]}y" if noun.endswith("ies") else noun.removesuffix("s")


def counted(count, things):
    """`things` begins with a plural: gives "1 stop under load" or "2 stops under load"."""
    noun, blank, rest = things.partition(" ")
    return f"{count:,} {singular(noun) if count == 1 else noun}{blank}{rest}"


def share(part, whole, things):
    return f"{part:,} of {counted(whole, things)} ({100 * part / max(whole, 1):.1f} %)"


def period(days):
    """The first day and the last one, or the only one."""
    return " to ".join(sorted({min(days), max(days)}))


# ---- Rows of the proofs' table ------------------------------------------------------------------


def measured(name, value, form, unit=""):
    """An entry of a row's "measured"; `form` is a format of Python's, such as ".2f"."""
    return {"name": name, "least": value, "most": value, "format": form, "unit": unit}


def keep_row(name, row):
    """Writes a row to the folder that scripts/prove names; does nothing without one. A row has the
    fields that tests/proof/Proof.h describes."""
    folder = os.environ.get("GATEWAY_PROOF_ROWS")
    if folder:
        pathlib.Path(folder, f"{name}.json").write_text(json.dumps(row) + "\n")


# ---- Pages --------------------------------------------------------------------------------------


def table(head, rows):
    """The lines of a Markdown table."""
    def line(cells):
        return "| " + " | ".join(cell.replace("|", "\\|") for cell in cells) + " |"

    return [line(head), "|" + "---|" * len(head), *map(line, rows)]


def taken_on(verb, taken):
    """On which days and on what machine figures were taken: a sentence per machine. `taken` has
    (part of the page, day, machine) for each figure or group of figures."""
    machines = {}
    for part, day, where in taken:
        machines.setdefault(where, []).append((part, day))
    for where, parts in machines.items():
        which = "" if len(machines) == 1 else f" ({', '.join(dict.fromkeys(p for p, _ in parts))})"
        yield f"{verb} on {period([day for _, day in parts])}{which}: {where}."


def is_prose(line):
    return bool(line) and not line.startswith(("|", "#", "!", "<"))


def laid_out(value, indent=0):
    """JSON with a line for each row of a table, so that a diff shows which rows have changed."""
    inner, outer = "\n" + " " * (indent + 1), "\n" + " " * indent
    if isinstance(value, dict) and any(isinstance(each, (dict, list)) for each in value.values()):
        lines = (f"{json.dumps(key, ensure_ascii=False)}: {laid_out(each, indent + 1)}"
                 for key, each in value.items())
        return "{" + inner + ("," + inner).join(lines) + outer + "}"
    if isinstance(value, list) and value and isinstance(value[0], dict):
        lines = (json.dumps(each, ensure_ascii=False) for each in value)
        return "[" + inner + ("," + inner).join(lines) + outer + "]"
    return json.dumps(value, ensure_ascii=False)


class Page:
    """A document, the data file beside it, and the part of the document that a script makes from
    the data: everything between two marks. `made` turns the data into that part's lines."""

    def __init__(self, script, document, data, made):
        self.begin = f"<!-- Made by {script}: do not edit. -->"
        self.end = f"<!-- End of what {script} made. -->"
        self.document = ROOT / document
        self.data = ROOT / data
        self.made = made

    def load(self):
        return json.loads(self.data.read_text())

    def text(self, data):
        """The document with the part that belongs to this data."""
        before, rest = self.document.read_text().split(self.begin)
        after = rest.split(self.end)[1]
        wrapped = (line for made in self.made(data)
                   for line in (textwrap.wrap(made, WIDTH) if is_prose(made) else [made]))
        return before + "\n".join([self.begin, "", *wrapped, self.end]) + after

    def write(self, data):
        text = self.text(data)
        self.data.write_text(laid_out(data) + "\n")
        self.document.write_text(text)
        print(f"Written: {self.data.relative_to(ROOT)}, {self.document.relative_to(ROOT)}")
