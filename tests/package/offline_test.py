#!/usr/bin/env -S python3 -B
"""Checks that configuring and building need no network: does both where there is none.

Usage: offline_test.py CMAKE SOURCE_FOLDER C_COMPILER CXX_COMPILER [--all]

Without --all it configures everything, and builds only the INI reader and the generated sources.
"""

import pathlib
import subprocess
import sys
import tempfile

CMAKE, SOURCE, CC, CXX = sys.argv[1:5]
SOURCE = pathlib.Path(SOURCE).resolve()
ALONE = ["unshare", "--map-root-user", "--net"]
TARGETS = ["ini", "proto/gateway_proto/engine.grpc.pb.cc", "proto/gateway_proto/meters.grpc.pb.cc"]
SKIPPED = 77
sys.path.append(str(SOURCE / "tests/docs"))

from checklist import check, end  # noqa: E402


def run(*command):
    return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          check=False)


def check_run(*command):
    done = run(*ALONE, *command)
    check(f"{' '.join(map(str, command))} ends with 0: {done.stdout}", done.returncode == 0)
    return done.stdout


tried = run(*ALONE, "true")
if tried.returncode != 0:
    print(f"This machine does not let this user make a network namespace: {tried.stdout}")
    sys.exit(SKIPPED)

interfaces = check_run("cat", "/proc/net/dev").splitlines()[2:]
check(f"there is only the loopback, which is down: {interfaces}",
      [line.split()[0] for line in interfaces] == ["lo:"])
with tempfile.TemporaryDirectory() as build:
    # The tests are configured, too.
    check_run(CMAKE, "-G", "Ninja", "-S", SOURCE, "-B", build, "-DBUILD_TESTING=ON",
              f"-DCMAKE_C_COMPILER={CC}", f"-DCMAKE_CXX_COMPILER={CXX}",
              "-DCMAKE_CXX_COMPILER_LAUNCHER=ccache", "-DCMAKE_C_COMPILER_LAUNCHER=ccache")
    targets = [] if "--all" in sys.argv else ["--target", *TARGETS]
    check_run(CMAKE, "--build", build, *targets)
end()
