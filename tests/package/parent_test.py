#!/usr/bin/env -S python3 -B
"""Checks that another project, which includes the gateway with add_subdirectory or FetchContent,
gets only the module and the boundary's header.

Usage: parent_test.py CMAKE SOURCE_FOLDER CXX_COMPILER [--build]

--build also builds the module there, with warnings as errors.
"""

import pathlib
import subprocess
import sys
import tempfile

CMAKE, SOURCE, CXX = sys.argv[1:4]
SOURCE = pathlib.Path(SOURCE).resolve()
sys.path.append(str(SOURCE / "tests/docs"))

from checklist import check, end  # noqa: E402


def run(*command):
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          check=False)
    check(f"{' '.join(map(str, command))} ends with 0: {done.stdout}", done.returncode == 0)
    return done.stdout


def check_parent(folder, *options):
    configured = run(CMAKE, "-G", "Ninja", "-S", SOURCE / "tests/package/parent", "-B", folder,
                     f"-DGATEWAY_SOURCE={SOURCE}", f"-DCMAKE_CXX_COMPILER={CXX}", *options)
    check(f"configuring prints no warning: {configured}", "Warning" not in configured)
    run(CMAKE, "--build", folder, "--target", "own", "user")
    tests = run(CMAKE, "--build", folder, "--target", "test")
    check(f"the gateway adds no tests: {tests}", "No tests were found" in tests)
    installed = run(CMAKE, "--install", folder, "--prefix", folder / "installed")
    check(f"the gateway installs nothing: {installed}", "Installing" not in installed)


with tempfile.TemporaryDirectory() as temporary:
    temporary = pathlib.Path(temporary)
    check_parent(temporary / "added")
    check_parent(temporary / "fetched", "-DBY_FETCH=ON")
    if "--build" in sys.argv:
        run(CMAKE, temporary / "added", "-DGATEWAY_WERROR=ON")
        run(CMAKE, "--build", temporary / "added", "--target", "grpc-gateway")
        check("the module is built", (temporary / "added/gateway/grpc-gateway.so").exists())
end()
