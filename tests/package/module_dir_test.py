#!/usr/bin/env -S python3 -B
"""Checks that GATEWAY_MODULE_DIR may be any folder: the module is installed there, and gatewayctl
looks there.

Usage: module_dir_test.py CMAKE SOURCE_FOLDER CXX_COMPILER

It only configures; install_test.py tests the default with the built files.
"""

import pathlib
import re
import subprocess
import sys
import tempfile

CMAKE, SOURCE, CXX = sys.argv[1:]
SOURCE = pathlib.Path(SOURCE).resolve()
sys.path.append(str(SOURCE / "tests/docs"))

from checklist import check, end  # noqa: E402


def check_folder(build, options, installed, looked_for):
    done = subprocess.run([CMAKE, "-S", SOURCE, "-B", build, f"-DCMAKE_CXX_COMPILER={CXX}",
                           "-DCMAKE_INSTALL_PREFIX=/opt/gateway", *options],
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
    check(f"configuring with {options} succeeds: {done.stdout}", done.returncode == 0)
    script = (build / "cmake_install.cmake").read_text()
    check(f"with {options} the module goes to {installed}",
          f'DESTINATION "{installed}" TYPE MODULE' in script)
    commands = (build / "compile_commands.json").read_text()
    found = set(re.findall(r'GATEWAY_MODULE_DIR=\W*?(?=[./\w])([./\w]+)', commands))
    check(f"with {options} gatewayctl looks in {looked_for}: {found}", found == {looked_for})


with tempfile.TemporaryDirectory() as temporary:
    # One build folder, so that CMake detects only once what stays the same.
    folder = pathlib.Path(temporary)
    check_folder(folder, ["-DGATEWAY_MODULE_DIR=/srv/engine/modules"], "/srv/engine/modules",
                 "/srv/engine/modules")
    check_folder(folder, ["-DGATEWAY_MODULE_DIR=modules"],
                 "${CMAKE_INSTALL_PREFIX}/modules", "../modules")
    check_folder(folder, ["-DGATEWAY_MODULE_DIR=modules", "-DCMAKE_INSTALL_BINDIR=/srv/bin"],
                 "${CMAKE_INSTALL_PREFIX}/modules", "/opt/gateway/modules")
end()
