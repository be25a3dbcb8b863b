#!/usr/bin/env -S python3 -B
"""Checks what a shell offers with its completion script: the sub-commands, options, words and files
that there are, and no option that can't be combined with those already given.

Usage: completions_test.py GATEWAYCTL bash|zsh|fish SHELL
"""

import contextlib
import os
import pathlib
import pty
import subprocess
import sys
import tempfile
import threading

from checklist import check, check_same, end
from help_text import options_of, subcommands

GATEWAYCTL, NAME, PROGRAM = pathlib.Path(sys.argv[1]).resolve(), *sys.argv[2:4]
FILE = "a-file-of-the-test"
# Sub-commands whose arguments are files.
TAKE_FILES = {"check", "host", "top"}
# Some of the words that options accept as these values.
WORDS = {"RULE": {"bad-line", "rate-off"}, "FORMAT": {"json", "sarif"},
         "ORDER": {"name", "age"}}
ENVIRONMENT = dict(os.environ, PATH=f"{GATEWAYCTL.parent}:{os.environ['PATH']}", TERM="dumb")

BASH = """
source <(gatewayctl completion bash)
COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
_gatewayctl
printf '%s\\n' "${COMPREPLY[@]}"
"""
FISH = """
gatewayctl completion fish | source
complete --do-complete=(string join -- ' ' $argv | string collect --allow-empty)
"""
# zsh reads a script as users do, or finds it in a folder as that of a package.
ZSH_WAYS = {
    "user": "autoload -Uz compinit && compinit -D -u && source <(gatewayctl completion zsh)",
    "package": "gatewayctl completion zsh >_gatewayctl && fpath=($PWD $fpath)\n"
               "autoload -Uz compinit && compinit -D -u",
}
# It completes at a terminal only. At the Tab key this writes the matches instead of showing them.
ZSH = """
compadd() {
  local -a found
  if [[ ${@[1,(i)(-|--)]} == *-[OAD]* ]]; then
    builtin compadd "$@"
  else
    builtin compadd -O found "$@"
    print -rl -- $found >>$MATCHES
  fi
}
capture() {
  zle list-matches
  print -- END >>$MATCHES
  BUFFER=
}
zle -C list-matches list-choices _main_complete
zle -N capture
bindkey '^I' capture
"""


class Script:
    """bash or fish. Each question starts a shell that runs a script."""

    def __init__(self, start):
        self.start = start

    def offered(self, *words):
        done = subprocess.run([PROGRAM, *self.start, "gatewayctl", *words], stdout=subprocess.PIPE,
                              check=False, stderr=subprocess.PIPE, text=True, env=ENVIRONMENT)
        check(f"{NAME} completes {words} without a message: {done.stderr}", not done.stderr)
        return {line.split("\t")[0] for line in done.stdout.splitlines() if line}


class Zsh:
    """One zsh at a terminal of its own. Each question is typed there."""

    def __init__(self, way):
        home = os.getcwd()
        matches = os.path.join(home, f"matches.{way}")
        os.mkfifo(matches)
        pathlib.Path(".zshrc").write_text(ZSH_WAYS[way] + ZSH)
        self.terminal, inside = pty.openpty()
        self.shell = subprocess.Popen(
            [PROGRAM, "-d", "-i"], stdin=inside, stdout=inside, stderr=inside,
            env=dict(ENVIRONMENT, ZDOTDIR=home, MATCHES=matches), start_new_session=True)
        os.close(inside)
        # Also for writing, so that it does not end between two matches.
        self.matches = os.fdopen(os.open(matches, os.O_RDWR))
        threading.Thread(target=self.drain, daemon=True).start()

    def drain(self):
        """Reads what the shell shows: a terminal that nobody reads stops it."""
        with contextlib.suppress(OSError):
            while os.read(self.terminal, 65536):
                pass

    def end(self):
        os.write(self.terminal, b"exit\n")
        self.shell.wait()

    def offered(self, *words):
        os.write(self.terminal, (" ".join(("gatewayctl", *words)) + "\t").encode())
        return {line for line in iter(lambda: self.matches.readline().rstrip("\n"), "END") if line}


def options(shell, *words):
    return {word for word in shell.offered(*words, "-") | shell.offered(*words, "--")
            if word.startswith("-")}


def check_value(shell, subcommand, option, name):
    """Checks what the shell offers after an option."""
    offered = shell.offered(subcommand, name, "")
    takes_file = option.value == "FILE"
    check(f"{NAME}: {subcommand} {name} takes a file or not: {offered}",
          (FILE in offered) == takes_file or not option.value)
    if option.value in WORDS:
        check(f"{NAME}: {subcommand} {name} takes certain words: {offered}",
              WORDS[option.value] <= offered)
    elif option.value and not takes_file and not option.value.startswith("["):
        check_same(f"{NAME}: nothing is offered for {subcommand} {name}", (), offered)


def check_subcommand(shell, subcommand):
    known = options_of(GATEWAYCTL, subcommand)
    check_same(f"{NAME}: options of {subcommand}",
               {name for option in known for name in option.names}, options(shell, subcommand))
    check(f"{NAME}: {subcommand} takes files or not",
          (FILE in shell.offered(subcommand, "a-f")) == (subcommand in TAKE_FILES))
    for option in known:
        for name in option.names:
            check_value(shell, subcommand, option, name)


def check_exclusions(shell):
    left = options(shell, "host", "--cycles", "2")
    check_same(f"{NAME}: options beside host --cycles", (),
               left & {"--watch", "--set", "--page", "--token"})
    check(f"{NAME}: others are left: {left}", {"--json", "--for", "--module"} <= left)
    left = options(shell, "sim", "--seed", "2")
    check(f"{NAME}: sim --seed leaves no --commands: {left}",
          "--commands" not in left and "--json" in left)


def check_all(shell):
    names = subcommands(GATEWAYCTL)
    check_same(f"{NAME}: sub-commands", names, shell.offered(""))
    check_same(f"{NAME}: options of gatewayctl", {"-h", "--help", "--version"}, options(shell))
    for name in names:
        check_subcommand(shell, name)
    check_same(f"{NAME}: shells", {"bash", "fish", "zsh"}, shell.offered("completion", ""))
    check_exclusions(shell)


with tempfile.TemporaryDirectory() as folder:
    os.chdir(folder)
    ENVIRONMENT["HOME"] = folder
    pathlib.Path(FILE).touch()
    if NAME == "zsh":
        for each in ZSH_WAYS:
            zsh = Zsh(each)
            check_all(zsh)
            zsh.end()
    else:
        # bash takes the first argument after the script for its own name.
        check_all(Script({"bash": ["--norc", "-c", BASH, "bash"],
                          "fish": ["--no-config", "-c", FISH]}[NAME]))
end()
