#!/usr/bin/env -S python3 -B
"""The completions of a shell offer the sub-commands, options, rules and files that there are.

Usage: completions_test.py GATEWAYCTL COMPLETIONS_FOLDER bash|zsh|fish SHELL

The shell itself is asked. Of zsh, which completes at a terminal only, it is what the completion
hands to the functions that would.
"""

import os
import pathlib
import re
import subprocess
import sys
import tempfile

from checklist import check, check_same, end
from help_text import SUBCOMMANDS, help_of, rules_of

GATEWAYCTL, COMPLETIONS = (pathlib.Path(path).resolve() for path in sys.argv[1:3])
SHELL, PROGRAM = sys.argv[3:5]
FILE = "a-file-of-the-test"
# Who takes files: the sub-command's own arguments, or an option's.
TAKE_FILES = {("check",), ("host",), ("host", "--module"), ("sim", "--config"),
              ("sim", "--fault-plan")}
TAKE_RULES = {("check", "--allow"), ("check", "--explain")}

BASH = """
source $COMPLETIONS/gatewayctl.bash
COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
_gatewayctl
printf '%s\\n' "${COMPREPLY[@]}"
"""
FISH = """
source $COMPLETIONS/gatewayctl.fish
complete --do-complete=(string join -- ' ' $argv | string collect --allow-empty)
"""
# _describe and compadd get names of arrays, _arguments its specifications.
ZSH = """
_arguments() { print -rl -- "$@" }
_describe() { print -rl -- ${(P)2} }
compadd() { print -rl -- ${(P)2} }
compdef() { }
words=("$@") CURRENT=$# PREFIX=${@[-1]}
source $COMPLETIONS/_gatewayctl
"""


def run(*arguments, script):
    environment = dict(os.environ, COMPLETIONS=str(COMPLETIONS),
                       PATH=f"{GATEWAYCTL.parent}:{os.environ['PATH']}", HOME=os.getcwd())
    # bash and zsh take the first argument behind the script for their own name.
    start = {"bash": ["--norc", "-c", script, "bash"], "zsh": ["-f", "-c", script, "zsh"],
             "fish": ["--no-config", "-c", script]}[SHELL]
    done = subprocess.run([PROGRAM, *start, *arguments], stdout=subprocess.PIPE, check=False,
                          stderr=subprocess.PIPE, text=True, env=environment)
    check(f"{SHELL} completes {arguments} without a word: {done.stderr}", not done.stderr)
    return [line for line in done.stdout.splitlines() if line]


class Asked:
    """What the shell offers behind some words."""

    def __init__(self, script):
        self.script = script

    def offered(self, *words):
        lines = run("gatewayctl", *words, script=self.script)
        return {line.split("\t")[0] for line in lines}

    def subcommands(self):
        return {word for word in self.offered("") if not word.startswith("-")}

    def options(self, *subcommand):
        return self.offered(*subcommand, "--") | self.offered(*subcommand, "-")

    def takes_value(self, subcommand, option):
        # Where a value belongs no option is offered.
        return not self.offered(subcommand, option, "-") & self.options(subcommand)

    def has_files(self, *words):
        return FILE in self.offered(*words, "a-f")

    def rules(self, *words):
        return self.offered(*words, "")


class Fish(Asked):
    """It offers options where a value belongs, too, if the word begins like one."""

    def takes_value(self, subcommand, option):
        if option == "-h":
            return False
        all_lines = run(script="source $COMPLETIONS/gatewayctl.fish\ncomplete gatewayctl")
        lines = [line for line in all_lines
                 if f" -l {option.removeprefix('--')} " in line
                 and (f"'__gatewayctl_at {subcommand}'" in line or option == "--help")]
        check(f"fish: {subcommand} {option} stands once", len(lines) == 1)
        return any(re.search("--(exclusive|force-files|require-parameter) ", line)
                   for line in lines)


class Zsh:
    """What the completion says to _arguments."""

    SPECIFICATION = re.compile(r"(?:\([^)]*\))?\*?(-[\w-]+)\[[^]]*\](.*)")

    def specifications(self, *words):
        lines = run("gatewayctl", *words, "-", script=ZSH)
        return {found[1]: found[2] for found in map(self.SPECIFICATION.fullmatch, lines) if found}

    def subcommands(self):
        return {line.split(":")[0] for line in run("gatewayctl", "", script=ZSH)}

    def options(self, *subcommand):
        return set(self.specifications(*subcommand))

    def takes_value(self, subcommand, option):
        return bool(self.specifications(subcommand).get(option))

    def has_files(self, subcommand, option=None):
        if option:
            return self.specifications(subcommand)[option].endswith(":_files")
        lines = run("gatewayctl", subcommand, "", script=ZSH)
        return any(re.match(r"\*?:.*:_files$", line) for line in lines)

    def rules(self, subcommand, option):
        if not self.specifications(subcommand)[option].endswith(":_gatewayctl_rules"):
            return set()
        asked = ZSH + "_arguments() { }\n_gatewayctl_rules"
        return set(run("gatewayctl", subcommand, "", script=asked.replace(
            "source $COMPLETIONS/_gatewayctl", "source $COMPLETIONS/_gatewayctl >/dev/null")))


def check_subcommand(shell, *subcommand):
    known = help_of(GATEWAYCTL, *subcommand).options
    where = f"{SHELL}: options of gatewayctl {' '.join(subcommand)}"
    check_same(where, [name for option in known for name in option.names],
               shell.options(*subcommand))
    for option in known if subcommand else ():
        for name in option.names:
            words = (*subcommand, name)
            # One that may stand without its value has options offered behind it.
            if name != "--strict-pings":
                check(f"{SHELL}: {words} takes a value or not",
                      shell.takes_value(*words) == option.takes_value)
            if option.takes_value:
                check(f"{SHELL}: {words} takes a file or not",
                      shell.has_files(*words) == (words in TAKE_FILES))
            if words in TAKE_RULES:
                check_same(f"{SHELL}: rules behind {words}", rules_of(GATEWAYCTL),
                           shell.rules(*words))


with tempfile.TemporaryDirectory() as folder:
    os.chdir(folder)
    pathlib.Path(FILE).touch()
    the_shell = {"bash": Asked(BASH), "fish": Fish(FISH), "zsh": Zsh()}[SHELL]
    check_same(f"{SHELL}: sub-commands", SUBCOMMANDS, the_shell.subcommands())
    check_subcommand(the_shell)
    for each in SUBCOMMANDS:
        check_subcommand(the_shell, each)
        check(f"{SHELL}: {each} takes files or not",
              the_shell.has_files(each) == ((each,) in TAKE_FILES))
end()
