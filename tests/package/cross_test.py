#!/usr/bin/env -S python3 -B
"""Checks that configuring for another machine needs only a toolchain file, and runs no program of
that machine.

Usage: cross_test.py CMAKE SOURCE_FOLDER C_COMPILER CXX_COMPILER

The test uses this machine's compilers and tells CMake that the target is another machine, so CMake
runs nothing that it has compiled.
"""

import pathlib
import subprocess
import sys
import tempfile

CMAKE, SOURCE, CC, CXX = sys.argv[1:]
SOURCE = pathlib.Path(SOURCE).resolve()
sys.path.append(str(SOURCE / "tests/docs"))

from checklist import check, end  # noqa: E402

# Programs that only the other machine could run. CMake must not choose them.
FOREIGN = ("protoc", "grpc_cpp_plugin")
TOOLCHAIN = """
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR another)
set(CMAKE_C_COMPILER "{cc}")
set(CMAKE_CXX_COMPILER "{cxx}")
set(CMAKE_FIND_ROOT_PATH "{root}")
"""


def cached(build, name):
    for line in (build / "CMakeCache.txt").read_text().splitlines():
        if line.startswith(f"{name}:"):
            return line.partition("=")[2]
    return None


with tempfile.TemporaryDirectory() as temporary:
    temporary = pathlib.Path(temporary).resolve()
    root, build = temporary / "root", temporary / "build"
    (root / "usr/bin").mkdir(parents=True)
    for name in FOREIGN:
        (root / "usr/bin" / name).write_text("#!/bin/false\n")
        (root / "usr/bin" / name).chmod(0o755)
    toolchain = temporary / "toolchain.cmake"
    toolchain.write_text(TOOLCHAIN.format(cc=CC, cxx=CXX, root=root))
    done = subprocess.run([CMAKE, "-G", "Ninja", "-S", SOURCE, "-B", build,
                           f"-DCMAKE_TOOLCHAIN_FILE={toolchain}"], stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, check=False)
    check(f"configuring succeeds: {done.stdout}", done.returncode == 0)
    check(f"configuring prints no warning: {done.stdout}", "Warning" not in done.stdout)
    check("CMake builds for another machine",
          "set(CMAKE_CROSSCOMPILING \"TRUE\")" in next(build.glob(
              "CMakeFiles/*/CMakeSystem.cmake")).read_text())
    check("the build skips what gatewayctl would have to run for",
          "Completions and manual pages of gatewayctl: skipped" in done.stdout)
    for variable in ("Protobuf_PROTOC_EXECUTABLE", "GRPC_CPP_PLUGIN"):
        program = cached(build, variable)
        check(f"{variable} is this machine's: {program}",
              program and not program.startswith(str(root)))
end()
