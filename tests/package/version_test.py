#!/usr/bin/env -S python3 -B
"""Checks that every place that states the version states the same one.

Usage: version_test.py SOURCE_FOLDER BUILD_FOLDER VERSION [PACKAGE...]
"""

import pathlib
import re
import subprocess
import sys

SOURCE, BUILD = (pathlib.Path(path).resolve() for path in sys.argv[1:3])
VERSION, PACKAGES = sys.argv[3], sys.argv[4:]
sys.path.append(str(SOURCE / "tests/docs"))

from checklist import check, end  # noqa: E402


def output_of(*command):
    return subprocess.run(command, stdout=subprocess.PIPE, check=True, text=True).stdout.strip()


def found_in(path, pattern):
    return set(re.findall(pattern, path.read_text(), re.MULTILINE))


def check_file(path, pattern):
    found = found_in(path, pattern)
    check(f"{path} states only version {VERSION}: {sorted(found)}", found == {VERSION})


check("the version is semantic", re.fullmatch(r"(0|[1-9]\d*)(\.(0|[1-9]\d*)){2}", VERSION))
check_file(SOURCE / "CMakeLists.txt", r"^ +VERSION (\S+)")
printed = output_of(BUILD / "gatewayctl", "--version")
check(f"gatewayctl --version prints it: {printed}", printed == f"gatewayctl {VERSION}")
check_file(BUILD / "dev/sonalith-host.pc", r"^Version: (.*)$")
check_file(BUILD / "dev/sonalith-host-config-version.cmake", r'PACKAGE_VERSION "([\d.]+)"')
for each in ("openapi", "sim-control.openapi"):
    check_file(SOURCE / f"docs/{each}.json", r'^ +"version": "(.*)",$')
for page in sorted((BUILD / "docs/man").glob("*.[0-9]")):
    check_file(page, r'^\.TH .* "grpc-gateway (\S+)"')

# The newest comes first, and only it may lack a date.
HEADING = r"^## (.*)$"
headings = re.findall(HEADING, (SOURCE / "CHANGELOG.md").read_text(), re.MULTILINE)
check(f"CHANGELOG.md begins with {VERSION}: {headings}",
      headings and re.fullmatch(rf"{re.escape(VERSION)} (- \d{{4}}-\d\d-\d\d|\(unreleased\))",
                                headings[0]))
for heading in headings[1:]:
    check(f"CHANGELOG.md dates the release: {heading}",
          re.fullmatch(r"\d+\.\d+\.\d+ - \d{4}-\d\d-\d\d", heading))

for package in PACKAGES:
    packed = output_of("dpkg-deb", "--field", package, "Version")
    check(f"{package} has that version: {packed}", packed == VERSION)
end()
