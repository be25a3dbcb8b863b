"""A private copy of the tree, in which one mutant after the other is built and tested. The checkout
itself is never changed.

Whatever a mutant does stays within bounds: its test programs run in a process group of their own,
with limits on memory, on the files that they write, and on time.
"""

import dataclasses
import os
import pathlib
import re
import resource
import shutil
import signal
import subprocess
import tempfile
import time

MEMORY_LIMIT = 8 << 30  # address space; threads and gRPC reserve far more than they use
RESIDENT_LIMIT_MB = 4096  # with sanitizers, which reserve all the address space there is
FILE_LIMIT = 64 << 20
POLL_SECONDS = 0.05
CONFIGURE = (
    "-G", "Ninja", "-D", "BUILD_TESTING=ON", "-D", "GATEWAY_WERROR=OFF",
    # Nothing is optimised and nothing debugged: what counts is how soon it is built.
    "-D", "CMAKE_BUILD_TYPE=Debug", "-D", "CMAKE_C_FLAGS_DEBUG=-O0", "-D",
    "CMAKE_CXX_FLAGS_DEBUG=-O0",
    "-D", "CMAKE_C_COMPILER_LAUNCHER=ccache", "-D", "CMAKE_CXX_COMPILER_LAUNCHER=ccache",
    # ccache makes the paths of sources relative, and they end up in the module's log lines.
    "-D", "CMAKE_CXX_FLAGS=-ffile-prefix-map=../tree/=",
    # No test program is run when it has been built.
    "-D", "CMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST",
)  # fmt: skip


class BuildFailed(Exception):
    """What does not compile, with what the compiler said of it."""


@dataclasses.dataclass(frozen=True)
class Outcome:
    """How a test program ended: `failure` is None, or names the test that told the mutant."""

    failure: str | None
    seconds: float


def limit_files():
    resource.setrlimit(resource.RLIMIT_FSIZE, (FILE_LIMIT, FILE_LIMIT))
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))


def limit_files_and_memory():
    limit_files()
    resource.setrlimit(resource.RLIMIT_AS, (MEMORY_LIMIT, MEMORY_LIMIT))


def end_group(process):
    """Ends a program and whatever it has started."""
    try:
        os.killpg(process.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    process.wait()


def failed_test_in(log):
    """The first test that failed, or the one that was running when the program ended."""
    text = log.read_text(errors="replace")
    failed = re.search(r"^\[  FAILED  \] (\S+?)[,\s]", text, re.MULTILINE)
    if failed:
        return failed[1]
    begun = re.findall(r"^\[ RUN      \] (\S+)", text, re.MULTILINE)
    return begun[-1] if begun else "no test"


class Workshop:
    def __init__(self, root, home, sanitizers=""):
        self.root = root
        self.home = home
        self.sanitizers = sanitizers
        self.tree = home / "tree"
        self.build = home / "build"
        self.scratch = home / "scratch"
        self.stopped = False
        self.environment = {
            **os.environ,
            # A copy's objects serve all copies.
            "CCACHE_BASEDIR": str(home),
            "CCACHE_NOHASHDIR": "1",
            # A mutant is seldom seen twice: it is compiled without being preprocessed first.
            "CCACHE_DEPEND": "1",
            "CCACHE_IGNOREOPTIONS": "-ffile-prefix-map=* -fdebug-prefix-map=*",
            "TMPDIR": str(self.scratch),
            "ASAN_OPTIONS": f"detect_stack_use_after_return=1:strict_string_checks=1:"
                            f"hard_rss_limit_mb={RESIDENT_LIMIT_MB}",
            # Memory that nobody has written to, or that was given back, holds no zeros.
            "MALLOC_PERTURB_": "165",
        }
        # What asks for the figures of proofs does not ask for those of mutants.
        for name in [name for name in self.environment if name.startswith("GATEWAY_PROOF_")]:
            del self.environment[name]

    def prepare(self, files):
        """Makes the copy like the checkout, and configures it."""
        self.tree.mkdir(parents=True, exist_ok=True)
        self._drop_others(set(files))
        for file in files:
            self._take(file, (self.root / file).read_bytes())
        sanitize = ["-D", f"GATEWAY_SANITIZE={self.sanitizers}"]
        precompile = self.tree / "tests/mutants/precompile.cmake"
        include = ["-D", f"CMAKE_PROJECT_grpc-gateway_INCLUDE={precompile}"]
        command = ["cmake", "-S", self.tree, "-B", self.build, *CONFIGURE, *sanitize, *include]
        self._call(command, "configure.log")

    def _drop_others(self, files):
        for path in [path for path in self.tree.rglob("*") if not path.is_dir()]:
            if str(path.relative_to(self.tree)) not in files:
                path.unlink()

    def _take(self, file, content):
        path = self.tree / file
        if path.is_file() and path.read_bytes() == content:
            return
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content)
        shutil.copymode(self.root / file, path)

    def write(self, file, text):
        (self.tree / file).write_text(text)

    def restore(self, file):
        self._take(file, (self.root / file).read_bytes())

    def _call(self, command, log_name):
        log = self.home / log_name
        with log.open("w") as output:
            process = subprocess.Popen(
                [str(word) for word in command], stdin=subprocess.DEVNULL, stdout=output,
                stderr=output, env=self.environment, start_new_session=True)
        try:
            while process.poll() is None:
                if self.stopped:
                    raise KeyboardInterrupt
                time.sleep(POLL_SECONDS)
        finally:
            end_group(process)
        if process.returncode != 0:
            raise BuildFailed(f"{log}:\n{log.read_text(errors='replace')[-2000:]}")

    def make(self, *programs, jobs=1):
        self.scratch.mkdir(exist_ok=True)
        self._call(["cmake", "--build", self.build, "-j", jobs, "--target", *programs], "build.log")

    def test(self, program, seconds, parts=1, tests="*", stop_at_first=True):
        """Runs these tests of a program, shared out among so many processes."""
        shutil.rmtree(self.scratch, ignore_errors=True)
        self.scratch.mkdir()
        started = time.monotonic()
        with tempfile.TemporaryDirectory(dir=self.home) as folder:
            logs = [pathlib.Path(folder) / str(part) for part in range(parts)]
            arguments = [f"--gtest_fail_fast={int(stop_at_first)}", f"--gtest_filter={tests}"]
            running = {self._start(program, arguments, part, parts, logs[part]): logs[part]
                       for part in range(parts)}
            try:
                failure = self._watch(running, started + seconds)
            finally:
                for process in running:
                    end_group(process)
        return Outcome(failure, time.monotonic() - started)

    def _start(self, program, arguments, part, parts, log):
        environment = {**self.environment, "GTEST_TOTAL_SHARDS": str(parts),
                       "GTEST_SHARD_INDEX": str(part)}
        with log.open("w") as output:
            return subprocess.Popen(
                [self.build / "tests" / program, *arguments],
                cwd=self.build, stdin=subprocess.DEVNULL, stdout=output, stderr=output,
                env=environment, start_new_session=True,
                preexec_fn=limit_files if self.sanitizers else limit_files_and_memory)

    def _watch(self, running, deadline):
        waiting = dict(running)
        while waiting:
            for process, log in list(waiting.items()):
                code = process.poll()
                if code is None:
                    continue
                if code != 0:
                    ending = f" (signal {-code})" if code < 0 else ""
                    return failed_test_in(log) + ending
                del waiting[process]
            if self.stopped:
                raise KeyboardInterrupt
            if time.monotonic() > deadline:
                return f"{failed_test_in(next(iter(waiting.values())))} (no end)"
            time.sleep(POLL_SECONDS)
        return None
