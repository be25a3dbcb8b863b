#!/usr/bin/env -S python3 -B
"""Checks that every gatewayctl command works that a document or manual shows on a line of its own.

Usage: commands_test.py GATEWAYCTL SOURCE_FOLDER

They run as written, except that they stop after a second or two, use free ports, read the sample
instead of files in /etc, and serve no page.
"""

import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import threading
from concurrent.futures import ThreadPoolExecutor

import markdown
from checklist import check, end
from help_text import help_of, subcommands

GATEWAYCTL, SOURCE = (pathlib.Path(path).resolve() for path in sys.argv[1:3])
COMMAND = re.compile(r"(?:build/)?gatewayctl (?:check|demo|discover|host|probe|record|sim|top)\b.*")
# Generous: on a busy machine, a stop may wait for a stream that waits for its next attempt.
LONGEST_RUN = 120


def commands_of(text):
    """Yields the commands in code blocks, which are indented or fenced."""
    fenced = False
    for line in re.sub(r"\\\n\s*", "", text).splitlines():
        if line.startswith("```"):
            fenced = not fenced
        elif (fenced or line.startswith("    ")) and COMMAND.fullmatch(line.strip()):
            yield line.strip().removeprefix("build/")


def shortened(command, meters, engine):
    """Returns a variant of the command that ends soon and disturbs nothing."""
    subcommand = command.split()[1]
    command = re.sub(r"--cycles \d+", "--cycles 2", command)
    # The recording made at the beginning stays, since other commands read it.
    command = command.replace("--output session.gwrec", "--output other.gwrec")
    command = command.replace("/etc/sonalith/", "etc/").replace("127.0.0.1:50005", meters)
    command = re.sub(r"(probe .*)127\.0\.0\.1:50006", rf"\g<1>{engine}", command)
    command = command.replace("127.0.0.1:8081", "127.0.0.1:0")
    options = {"host": ["--no-page"], "demo": ["--no-page"], "discover": [], "check": [],
               "record": [], "probe": [],
               "sim": ["--meters 127.0.0.1:0", "--engine 127.0.0.1:0"],
               # There is no terminal here.
               "top": [] if "--batch" in command else ["--batch", "-n 1"]}[subcommand]
    if subcommand not in ("check", "top") and not re.search("--show|--from", command):
        command = re.sub(r"--for \d+", "", command)
        options = [*options, "--for 1"]
    # Before redirections and options that take several values.
    return command.replace(subcommand, " ".join([subcommand, *options]), 1)


def run(shown, meters, engine):
    command = shortened(shown, meters, engine)
    done = subprocess.run(["bash", "-c", command], stdin=subprocess.DEVNULL, text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, check=False,
                          timeout=LONGEST_RUN)
    # With --strict, warnings make the exit code 3. No server is there to meet an expectation.
    good = (0, 3) if "--strict" in command else (0, 1) if "--expect" in command else (0,)
    return shown, done.returncode in good, f"{command} ended with {done.returncode}: {done.stderr}"


def prepare():
    os.symlink(SOURCE / "examples", "examples")
    os.mkdir("etc")
    # The sample of an installation, and the configurations that a user makes from it: copies, since
    # some commands write to them.
    for name in ("grpc-gateway.conf.example", "grpc-gateway.conf"):
        shutil.copy(SOURCE / "examples/grpc-gateway.conf", f"etc/{name}")
    for name in ("gateway.conf", "old.conf", "new.conf"):
        shutil.copy(SOURCE / "examples/grpc-gateway.conf", name)
    os.environ["PATH"] = f"{GATEWAYCTL.parent}:{os.environ['PATH']}"


def simulator():
    """Starts both servers for the commands that need them; returns process and addresses."""
    process = subprocess.Popen(
        [GATEWAYCTL, "sim", "--meters", "127.0.0.1:0", "--engine", "127.0.0.1:0", "--config",
         SOURCE / "examples/grpc-gateway.conf"], stdout=subprocess.PIPE, text=True)
    addresses = [process.stdout.readline().split()[1] for _ in range(2)]
    # The parameters that it prints would fill the pipe.
    threading.Thread(target=process.stdout.read, daemon=True).start()
    return process, *addresses


found = {}
texts = {path.relative_to(SOURCE): path.read_text()
         for path in (*markdown.documents(SOURCE), *(SOURCE / "docs/man").glob("*.scd"))}
for each in subcommands(GATEWAYCTL):
    texts[f"gatewayctl {each} --help"] = help_of(GATEWAYCTL, each)
for where, text in texts.items():
    for each in commands_of(text):
        found.setdefault(each, where)
check(f"the documents show enough commands: {len(found)}", len(found) >= 15)
with tempfile.TemporaryDirectory() as folder:
    os.chdir(folder)
    prepare()
    server, *addresses = simulator()
    try:
        subprocess.run([GATEWAYCTL, "record", addresses[0], "--output", "session.gwrec",
                        "--for", "1"], stderr=subprocess.DEVNULL, check=True)
        with ThreadPoolExecutor(4) as pool:
            for shown, good, outcome in pool.map(lambda each: run(each, *addresses), found):
                check(f"{found[shown]}: {outcome}", good)
    finally:
        server.terminate()
        server.wait()
end()
