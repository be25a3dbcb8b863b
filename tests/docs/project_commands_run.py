#!/usr/bin/env -S python3 -B
"""Runs the commands of the documents that build, test, measure and install, in a clone of the
newest commit and in the order of the documents.

Usage: project_commands_run.py SOURCE_FOLDER [PATTERN...]

All of them take hours, so this is not part of ctest. PATTERNs select commands. Commands that run
for long, or until they are stopped, run in a short form; all others run as written. Commands that
change the system are left to tests/package/system_test, which installs into a fresh Debian.
"""

import pathlib
import re
import subprocess
import sys
import tempfile

import markdown
from checklist import check, end

SOURCE = pathlib.Path(sys.argv[1]).resolve()
PATTERNS = sys.argv[2:]
SHORTER = (
    (r"^scripts/prove$", "scripts/prove --quick"),
    (r"^scripts/prove --soak 480\b", "scripts/prove --quick"),
    (r"^scripts/bench\b", "scripts/bench --quick"),
    (r"^scripts/fuzz 60$", "scripts/fuzz 1"),
    (r"--runs 10000000\b", "--runs 1000"),
    (r"^scripts/demo$", "scripts/demo --for 3 --page 127.0.0.1:0"),
    (r"\bFOLDER\b|\bMORE\b", "tests/fuzz/corpus/fuzz_ini"),
    (r"\bFILE\b", "src/ini/ini.cpp"),
    # 124 means that it ran until the timeout.
    (r"^(build/example/server|examples/servers/\S+)$",
     r"timeout --signal=INT 5 \1 --meters 127.0.0.1:0 --engine 127.0.0.1:0; test $? = 124"),
)


def commands():
    """Returns each command once, in order of first appearance."""
    found = dict.fromkeys(command for path in sorted(markdown.documents(SOURCE))
                          for command in markdown.project_commands(path))
    own = pathlib.Path(sys.argv[0]).name
    wanted = [each for each in found if not each.startswith("sudo ") and own not in each]
    return [each for each in wanted if not PATTERNS or any(re.search(p, each) for p in PATTERNS)]


def shortened(command):
    for long, short in SHORTER:
        command = re.sub(long, short, command)
    return command


with tempfile.TemporaryDirectory() as clone:
    subprocess.run(["git", "clone", "--quiet", SOURCE, clone], check=True)
    for each in commands():
        print(f"{each}: {shortened(each)}", flush=True)
        done = subprocess.run(["bash", "-c", shortened(each)], cwd=clone, check=False,
                              stdin=subprocess.DEVNULL, text=True, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT)
        check(f"{each} ended with {done.returncode}:\n{done.stdout[-4000:]}", done.returncode == 0)
end()
