#!/usr/bin/env -S python3 -B
"""Every command of gatewayctl that a document or a manual page shows in a line of its own works.

Usage: commands_test.py GATEWAYCTL SOURCE_FOLDER

They run as they stand, but for a second or two, at ports of their own, with the sample for what is
under /etc, and without a page.
"""

import os
import pathlib
import re
import subprocess
import sys
import tempfile
from concurrent.futures import ThreadPoolExecutor

import markdown
from checklist import check, end

GATEWAYCTL, SOURCE = (pathlib.Path(path).resolve() for path in sys.argv[1:3])
COMMAND = re.compile(r"(?:build/)?gatewayctl (?:check|demo|discover|host|sim)\b.*")
# Generous: a stop waits for a stream that waits for its next attempt, on a machine that is busy.
LONGEST_RUN = 120


def commands_of(path):
    """Those in blocks of code: indented in Markdown, or between fences."""
    fenced = False
    for line in path.read_text().replace("\\\n", " ").splitlines():
        if line.startswith("```"):
            fenced = not fenced
        elif (fenced or line.startswith("    ")) and COMMAND.fullmatch(line.strip()):
            yield line.strip().removeprefix("build/")


def shortened(command, meters):
    """What runs in place of a command, so that it ends soon and disturbs nobody."""
    subcommand = command.split()[1]
    command = re.sub(r"--cycles \d+", "--cycles 2", command)
    command = command.replace("/etc/sonalith/", "etc/").replace("127.0.0.1:50005", meters)
    options = {"host": ["--no-page"], "demo": ["--no-page"], "discover": [], "check": [],
               "sim": ["--meters 127.0.0.1:0", "--engine 127.0.0.1:0"]}[subcommand]
    if subcommand != "check":
        command = re.sub(r"--for \d+", "", command)
        options = [*options, "--for 1"]
    # In front of the redirections and of options that take many values.
    return command.replace(subcommand, " ".join([subcommand, *options]), 1)


def run(shown, meters):
    command = shortened(shown, meters)
    done = subprocess.run(["bash", "-c", command], stdin=subprocess.DEVNULL, text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, check=False,
                          timeout=LONGEST_RUN)
    # 3 is for what a stricter reader than the module would not take.
    good = (0, 3) if "--strict" in command else (0,)
    return shown, done.returncode in good, f"{command} ended with {done.returncode}: {done.stderr}"


def prepare():
    os.symlink(SOURCE / "examples", "examples")
    os.mkdir("etc")
    # What an installation brings, and what a user makes of it.
    for name in ("grpc-gateway.conf.example", "grpc-gateway.conf"):
        os.symlink(SOURCE / "examples/grpc-gateway.conf", f"etc/{name}")
    os.symlink(SOURCE / "examples/grpc-gateway.conf", "gateway.conf")
    os.environ["PATH"] = f"{GATEWAYCTL.parent}:{os.environ['PATH']}"


def simulator():
    """A meter server for those who need one, and its address."""
    process = subprocess.Popen(
        [GATEWAYCTL, "sim", "--meters", "127.0.0.1:0", "--engine", "", "--config",
         SOURCE / "examples/grpc-gateway.conf"], stdout=subprocess.PIPE, text=True)
    return process, process.stdout.readline().split()[1]


found = {}
for document in (*markdown.documents(SOURCE), *(SOURCE / "docs/man").glob("*.scd")):
    for each in commands_of(document):
        found.setdefault(each, document.relative_to(SOURCE))
check(f"the documents show commands: {len(found)}", len(found) >= 15)
with tempfile.TemporaryDirectory() as folder:
    os.chdir(folder)
    prepare()
    server, address = simulator()
    try:
        with ThreadPoolExecutor(4) as pool:
            for shown, good, told in pool.map(lambda each: run(each, address), found):
                check(f"{found[shown]}: {told}", good)
    finally:
        server.terminate()
        server.wait()
end()
