#!/usr/bin/env -S python3 -B
"""Checks that the commands of the documents that build, test and install name existing presets,
targets, options, labels, scripts and programs.

Usage: project_commands_test.py CTEST SOURCE_FOLDER BUILD_FOLDER

The commands take minutes or need root, so this test only looks up the names.
project_commands_run.py runs the commands, and commands_test.py runs those of gatewayctl.
"""

import json
import pathlib
import re
import shlex
import subprocess
import sys

import markdown
from checklist import check, end

CTEST, SOURCE, BUILD = sys.argv[1], *map(pathlib.Path, sys.argv[2:4])
PRESETS = json.loads((SOURCE / "CMakePresets.json").read_text())
LISTS = [path for path in SOURCE.rglob("CMakeLists.txt")
         if path.relative_to(SOURCE).parts[0] != "build"]
CMAKE = "\n".join(path.read_text() for path in (*LISTS, *(SOURCE / "cmake").glob("*.cmake")))
DEFINED = set(re.findall(r"^\s*(?:add_executable|add_library|add_custom_target|gateway_test|"
                         r"gateway_fuzz|gateway_bench)\(\s*([\w-]+)", CMAKE, re.MULTILINE))
OPTIONS = set(re.findall(r"^\s*option\((\w+)|^\s*set\((\w+)[^)]*?\bCACHE\b", CMAKE, re.MULTILINE))
OPTIONS = {name for pair in OPTIONS for name in pair if name}


def values(words, *names):
    """Yields the words after an option, up to the next option."""
    for at, word in enumerate(words):
        if word in names:
            for value in words[at + 1:]:
                if value.startswith("-"):
                    break
                yield value


def check_preset(kind, words, command):
    known = {each["name"] for each in PRESETS[kind]}
    for name in values(words, "--preset"):
        check(f"{command}: the preset {name} exists", name in known)


def check_cmake(words, command):
    kind = "buildPresets" if "--build" in words else "configurePresets"
    check_preset(kind, words, command)
    for target in values(words, "--target"):
        check(f"{command}: the target {target} exists", target in DEFINED)
    check_options(words, command)


def check_options(words, command):
    for word in words:
        if word.startswith("-D"):
            name = word[2:].partition("=")[0].partition(":")[0]
            known = name in OPTIONS or name.startswith("CMAKE_")
            check(f"{command}: the option {name} exists", known)


def check_ctest(words, command):
    check_preset("testPresets", words, command)
    for option in ("-L", "-R"):
        for pattern in values(words, option):
            text = subprocess.run([CTEST, "-N", option, pattern], cwd=BUILD, check=True, text=True,
                                  stdout=subprocess.PIPE).stdout
            check(f"{command}: it selects tests: {text}", "Total Tests: 0" not in text)


def check_script(path, words, command):
    script = SOURCE / path
    check(f"{command}: {path} exists", script.is_file())
    if not script.is_file():
        return
    check(f"{command}: {path} is executable", words[0] == "bash" or script.stat().st_mode & 0o111)
    check_options(words, command)
    for option in (word.partition("=")[0] for word in words if word.startswith("--")):
        check(f"{command}: {path} knows {option}", option in script.read_text())


def check_command(command):
    words = [word for word in shlex.split(command) if word != "sudo"]
    if words[0] == "mkdir":
        return
    if words[0] == "cmake":
        check_cmake(words, command)
    elif words[0] == "ctest":
        check_ctest(words, command)
    elif words[0] == "npm":
        for folder in values(words, "--prefix"):
            found = (SOURCE / folder / "package.json").is_file()
            check(f"{command}: {folder} is an npm package", found)
    elif words[0].startswith("clang-"):
        setup = (SOURCE / "scripts/setup").read_text()
        check(f"{command}: scripts/setup installs {words[0]}", words[0] in setup)
    elif words[0].startswith("build/"):
        name = re.sub(r"_replay$", "", words[0].rpartition("/")[2])
        check(f"{command}: the program {name} exists", name in DEFINED)
    else:
        path = words[1] if words[0] == "bash" else words[0]
        check_script(path, words, command)


found = {each for path in markdown.documents(SOURCE) for each in markdown.project_commands(path)}
check(f"the documents show enough commands: {len(found)}", len(found) >= 20)
for each in sorted(found):
    check_command(each)
# The options in the README's table.
for name in re.findall(r"^\| `(GATEWAY_\w+|BUILD_TESTING)` \|", (SOURCE / "README.md").read_text(),
                       re.MULTILINE):
    check(f"README.md: the option {name} exists", name in OPTIONS)
end()
