"""What became of each mutant: the results of earlier runs, the explanations of survivors, and the
tally of this run.
"""

import collections
import hashlib
import json
import threading

import measuring
import subjects
from measuring import ROOT

EXPLAINED = ROOT / "tests/mutants/survivors.json"

# `state` is killed, survived or rejected; `by` names the test that killed it.
Result = collections.namedtuple("Result", "state by seconds sanitized", defaults=(False,))


class Hashes:
    """Identify everything that a mutant is built from and tested with."""

    def __init__(self, files, checks_of):
        self.files = files
        self.checks_of = checks_of
        self.known = {}

    def _of_file(self, file):
        if file not in self.known:
            self.known[file] = hashlib.sha256((ROOT / file).read_bytes()).hexdigest()
        return self.known[file]

    def of(self, mutant):
        mutated = mutant.apply((ROOT / mutant.file).read_text())
        digest = hashlib.sha256(mutated.encode())
        folders = subjects.folders_of(self.checks_of(mutant))
        for file in self.files:
            if file != mutant.file and file.startswith(folders):
                digest.update(f"{file} {self._of_file(file)}\n".encode())
        return digest.hexdigest()


class Kept:
    """The results of earlier runs and of this one. A result counts until something changes that the
    mutant is built from or tested with. Safe to use from several threads."""

    def __init__(self, path, hashes, keep_killed):
        self.path = path
        self.hashes = hashes
        self.keep_killed = keep_killed
        self.lock = threading.Lock()
        self.results = json.loads(path.read_text()) if path.is_file() else {}

    @staticmethod
    def key(mutant):
        return "\n".join(map(str, mutant.name))

    def find(self, mutant):
        with self.lock:
            kept = self.results.get(self.key(mutant))
        if kept is None:
            return None
        trusted = self.keep_killed and kept["state"] != "survived"
        if not trusted and kept["hash"] != self.hashes.of(mutant):
            return None
        return Result(kept["state"], kept["by"], kept["seconds"], kept["sanitized"])

    def put(self, mutant, result):
        entry = {**result._asdict(), "hash": self.hashes.of(mutant)}
        with self.lock:
            self.results[self.key(mutant)] = entry
            new = self.path.with_suffix(".new")
            new.write_text(json.dumps(self.results, indent=1))
            new.replace(self.path)


class Explanations:
    """The mutants that are known to survive, and why. A row without "after" explains all mutants of
    its line that survive."""

    def __init__(self, rows=None):
        rows = json.loads(EXPLAINED.read_text()) if rows is None else rows
        rows = [{key: self._joined(value) for key, value in row.items()} for row in rows]
        self.rows = {(row["file"], row["before"], row.get("after"), row.get("occurrence", 1)): row
                     for row in rows}

    @staticmethod
    def _joined(value):
        """A text that is too long for a line is kept as a list of pieces."""
        return " ".join(value) if isinstance(value, list) else value

    def find(self, mutant):
        return self.rows.get(mutant.name) or self.rows.get((mutant.file, mutant.before, None, 1))

    def sanitizers_may_detect(self, mutant):
        row = self.find(mutant)
        return row is None or row.get("sanitizers detect it", False)

    def stale(self, possible, results):
        """Rows that are no longer true, each with the reason."""
        names = {mutant.name for mutants in possible.values() for mutant in mutants}
        existing = names | {(file, before, None, 1) for file, before, _, _ in names}
        killed = {mutant.name: result for mutant, result in results.items()
                  if result.state == "killed"}
        for name, row in self.rows.items():
            if name[0] not in possible:
                continue
            if name not in existing:
                yield row, "the mutant no longer exists"
            elif name in killed and not killed[name].sanitized:
                yield row, f"{killed[name].by} kills it"


def line_of(mutant, result, explanation):
    state = "explained" if result.state == "survived" and explanation else result.state
    text = f"{state:<9} {mutant.text()}"
    if result.by:
        text += f"  [{result.by}{' under the sanitizers' if result.sanitized else ''}]"
    return f"{text}  ({result.seconds} s)"


class Tally:
    """The results of this run, which are added from several threads."""

    COLUMNS = ("possible", "rejected", "tried", "killed", "explained", "survived")

    def __init__(self, possible, explanations):
        self.possible = possible
        self.explanations = explanations
        self.lock = threading.Lock()
        self.results = {}

    def add(self, mutant, result, was_kept):
        with self.lock:
            self.results[mutant] = result
            if result.state == "survived" or not was_kept:
                print(line_of(mutant, result, self.explanations.find(mutant)), flush=True)

    def of(self, file, state):
        return [mutant for mutant, result in self.results.items()
                if mutant.file == file and result.state == state]

    def unexplained(self, file):
        return [mutant for mutant in self.of(file, "survived")
                if not self.explanations.find(mutant)]

    def row(self, file):
        killed, survived = self.of(file, "killed"), self.of(file, "survived")
        unexplained = self.unexplained(file)
        return {
            "possible": len(self.possible[file]),
            "rejected": len(self.of(file, "rejected")),
            "tried": len(killed) + len(survived),
            "killed": len(killed),
            "explained": len(survived) - len(unexplained),
            "survived": len(unexplained),
        }

    def rows(self):
        rows = {file: self.row(file) for file in self.possible}
        return {file: row for file, row in rows.items() if row["tried"]}

    def print_table(self):
        rows = self.rows()
        print(f"\n{'':<48}" + "".join(f"{column:>11}" for column in self.COLUMNS))
        total = {column: sum(row[column] for row in rows.values()) for column in self.COLUMNS}
        for file, row in [*rows.items(), ("total", total)]:
            print(f"{file:<48}" + "".join(f"{row[column]:>11}" for column in self.COLUMNS))

    def keep_rows(self, seed):
        """For the proofs' table."""
        for number, (file, row) in enumerate(self.rows().items()):
            folder, _, name = file.rpartition("/")
            measuring.keep_row(f"mutants-{number}", {
                "part": "Mutants",
                "group": folder,
                "what": name,
                "tried": {"possible mutants": [row["tried"], row["possible"]]},
                "held": "",
                "counted": {"killed": row["killed"],
                            "undetectable": row["explained"],
                            "survived": row["survived"]},
                "failed": row["survived"] > 0,
                "seed": seed,
            })
