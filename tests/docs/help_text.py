"""Parses `gatewayctl --help` and `gatewayctl SUBCOMMAND --help` for tests."""

import re
import subprocess
from typing import NamedTuple


class Option(NamedTuple):
    names: tuple  # such as ("-h", "--help"); empty for an argument without a name
    value: str  # such as "FILE"; or ""


def help_of(gatewayctl, *subcommand):
    done = subprocess.run([gatewayctl, *subcommand, "--help"], stdout=subprocess.PIPE, check=True,
                          text=True)
    return done.stdout


def terms_of(text, section):
    """Returns the terms of the entries in a section."""
    lines = re.search(rf"^{section}\n(.*?)^[A-Z ]+$", text, re.MULTILINE | re.DOTALL)[1]
    return [re.split("  ", line[2:])[0] for line in lines.splitlines()
            if re.match(r"  \S", line)]


def subcommands(gatewayctl):
    return terms_of(help_of(gatewayctl), "SUBCOMMANDS")


def options_of(gatewayctl, *subcommand):
    options = []
    for term in terms_of(help_of(gatewayctl, *subcommand), "OPTIONS"):
        names = tuple(re.findall(r"(?:^|, )(--?[\w-]+)", term))
        # A flag such as --fix[=safe|unsafe] takes no word after it.
        flag = re.sub(r"\[=.*\]", "", term)
        value = flag[len(", ".join(names)):].strip().removesuffix("...")
        options.append(Option(names, value))
    return options
