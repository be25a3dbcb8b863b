#!/usr/bin/env -S python3 -B
"""Checks that the systemd units are valid and hardened, and name options that gatewayctl has.
tests/package/services_test runs them.

Usage: units_test.py GATEWAYCTL SOURCE_FOLDER UNIT_FOLDER SYSTEMD_ANALYZE
"""

import pathlib
import re
import subprocess
import sys
import tempfile

GATEWAYCTL, SOURCE, UNITS, ANALYZE = (pathlib.Path(path).resolve() for path in sys.argv[1:5])
sys.path.append(str(SOURCE / "tests/docs"))

from checklist import check, check_same, end  # noqa: E402
from help_text import options_of  # noqa: E402

MOST_EXPOSURE = 2.0


def analyze(*arguments):
    return subprocess.run([ANALYZE, *arguments], text=True, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, check=False)


def check_exposure(unit):
    done = analyze("security", "--offline=true", f"--threshold={int(MOST_EXPOSURE * 10)}", unit)
    level = re.search(r"exposure level for .*: ([\d.]+)", done.stdout)
    check(f"{unit.name} has an exposure of {MOST_EXPOSURE} at most: {level and level[1]}",
          level and float(level[1]) <= MOST_EXPOSURE and done.returncode == 0)


def check_syntax(unit, folder):
    """Checks everything but the path of the program, which need not be installed here."""
    copy = folder / unit.name
    copy.write_text(unit.read_text().replace("ExecStart=gatewayctl", f"ExecStart={GATEWAYCTL}"))
    done = analyze("verify", "--man=no", copy)
    check(f"{unit.name} is valid: {done.stdout}", done.returncode == 0 and not done.stdout)


def check_options(unit):
    text = unit.read_text()
    subcommand = re.search(r"^ExecStart=gatewayctl (\w+)", text, re.MULTILINE)[1]
    known = {name for option in options_of(GATEWAYCTL, subcommand) for name in option.names}
    named = set(re.findall(r"(?<![\w-])--[\w-]+", text))
    check(f"{unit.name} names options: {named}", named and named <= known)


found = sorted(UNITS.glob("*.service"))
check_same("units", ["gatewayctl-host@.service", "gatewayctl-sim@.service"],
           [unit.name for unit in found])
with tempfile.TemporaryDirectory() as made:
    for each in found:
        check_exposure(each)
        check_syntax(each, pathlib.Path(made))
        check_options(each)
end()
