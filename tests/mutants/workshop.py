"""Private copies of the tree, in which mutants are built and tested one after the other. The
checkout itself is never changed.

What a mutant can do is limited: its test programs run in a process group of their own, with limits
on memory, on the files they write, and on time.
"""

import collections
import dataclasses
import os
import pathlib
import re
import resource
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

import measuring
from measuring import ROOT
from results import Result
from subjects import ASSERTION, PROGRAMS

# A mutant whose tests take this much longer than the original's counts as never ending.
SLOWEST = 5
PATIENCE_SECONDS = 15

MEMORY_LIMIT = 8 << 30  # address space; threads and gRPC reserve far more than they use
RESIDENT_LIMIT_MB = 4096  # with sanitizers, which reserve the whole address space
FILE_LIMIT = 64 << 20
POLL_SECONDS = 0.05
CONFIGURE = (
    "-G", "Ninja", "-D", "BUILD_TESTING=ON", "-D", "GATEWAY_WERROR=OFF",
    # Neither optimised nor with debug information: the build should be fast.
    "-D", "CMAKE_BUILD_TYPE=Debug", "-D", "CMAKE_C_FLAGS_DEBUG=-O0", "-D",
    "CMAKE_CXX_FLAGS_DEBUG=-O0",
    "-D", "CMAKE_C_COMPILER_LAUNCHER=ccache", "-D", "CMAKE_CXX_COMPILER_LAUNCHER=ccache",
    # ccache makes the paths of sources relative, and the module's log lines contain them.
    "-D", "CMAKE_CXX_FLAGS=-ffile-prefix-map=../tree/=",
    # Do not run a test program just because it has been built.
    "-D", "CMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST",
)  # fmt: skip


class BuildFailed(Exception):
    """A mutant does not compile; the text is the compiler's."""


@dataclasses.dataclass(frozen=True)
class Outcome:
    """How a test program ended: `failure` is None, or names the test that failed."""

    failure: str | None
    seconds: float


def limit_files():
    resource.setrlimit(resource.RLIMIT_FSIZE, (FILE_LIMIT, FILE_LIMIT))
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))


def limit_files_and_memory():
    limit_files()
    resource.setrlimit(resource.RLIMIT_AS, (MEMORY_LIMIT, MEMORY_LIMIT))


def end_group(process):
    """Ends a program and everything it has started."""
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
    """One copy of the tree. `stopped` may be set from any thread, and ends what is under way."""

    def __init__(self, home, sanitizers=""):
        self.home = home
        self.sanitizers = sanitizers
        self.tree = home / "tree"
        self.build = home / "build"
        self.scratch = home / "scratch"
        self.stopped = False
        self.environment = {
            **os.environ,
            # All copies share their objects.
            "CCACHE_BASEDIR": str(home),
            "CCACHE_NOHASHDIR": "1",
            # The same mutant seldom comes twice, so preprocessing it to look it up is no use.
            "CCACHE_DEPEND": "1",
            "CCACHE_IGNOREOPTIONS": "-ffile-prefix-map=* -fdebug-prefix-map=*",
            "TMPDIR": str(self.scratch),
            "ASAN_OPTIONS": f"detect_stack_use_after_return=1:strict_string_checks=1:"
                            f"hard_rss_limit_mb={RESIDENT_LIMIT_MB}",
            # Fills memory with other bytes than zeros when it is allocated and when it is freed.
            "MALLOC_PERTURB_": "165",
        }
        # A run that collects the rows of proofs must not collect those of mutants.
        for name in [name for name in self.environment if name.startswith("GATEWAY_PROOF_")]:
            del self.environment[name]

    def prepare(self, files):
        """Makes the copy equal to the checkout, and configures it."""
        self.tree.mkdir(parents=True, exist_ok=True)
        self._drop_others(set(files))
        for file in files:
            self._take(file, (ROOT / file).read_bytes())
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
        shutil.copymode(ROOT / file, path)

    def write(self, file, text):
        (self.tree / file).write_text(text)

    def restore(self, file):
        self._take(file, (ROOT / file).read_bytes())

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
            raise BuildFailed(f"{log}:\n{log.read_text(errors='replace')[-8000:]}")

    def make(self, *programs, jobs=1):
        self.scratch.mkdir(exist_ok=True)
        self._call(["cmake", "--build", self.build, "-j", jobs, "--target", *programs], "build.log")

    def test(self, program, seconds, parts=1, tests="*", stop_at_first=True):
        """Runs these tests of a program, divided among `parts` processes."""
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


class Laboratory:
    """A workshop for each job and one more with sanitizers, and the seconds that each program takes
    in them without a mutant. `checks_of` gives the programs that may detect a mutant, each with a
    filter of its tests or ASSERTION."""

    def __init__(self, home, files, mutants, checks_of, jobs):
        self.files = files
        self.checks_of = checks_of
        self.filters = collections.defaultdict(set)
        for program, tests in (check for mutant in mutants for check in checks_of(mutant)):
            self.filters[program].add(tests)
        self.shops = [Workshop(home / str(number + 1)) for number in range(jobs)]
        self.sanitized = Workshop(home / "sanitized", "address,undefined")
        self.lock = threading.Lock()  # of the sanitized workshop
        self.seconds = {}

    def prepare(self):
        for shop in self.shops:
            with measuring.stage(f"building {shop.build.relative_to(ROOT)}"):
                shop.prepare(self.files)
                shop.make(*self.filters, jobs=os.cpu_count())
        for program in self.filters:
            self._measure(self.shops[0], program)

    def stop(self):
        for shop in [*self.shops, self.sanitized]:
            shop.stopped = True

    def _measure(self, shop, program):
        tests = sorted(self.filters[program] - {ASSERTION})
        if not tests:
            return
        outcome = shop.test(program, 3600, PROGRAMS[program][1], ":".join(tests),
                            stop_at_first=False)
        if outcome.failure:
            sys.exit(f"scripts/mutate: {program} fails without any mutant: {outcome.failure}")
        self.seconds[shop.sanitizers, program] = outcome.seconds
        measuring.say(f"{program} takes {outcome.seconds:.1f} s")

    def try_out(self, shop, mutant):
        started = time.monotonic()
        shop.write(mutant.file, mutant.apply((ROOT / mutant.file).read_text()))
        try:
            state, by = self._test(shop, mutant)
        except BuildFailed as failure:
            asserted = [tests for _, tests in self.checks_of(mutant)] == [ASSERTION]
            refused = asserted and "static assertion failed" in str(failure)
            state, by = ("killed", "the compiler") if refused else ("rejected", None)
        finally:
            shop.restore(mutant.file)
        return Result(state, by, round(time.monotonic() - started, 1), bool(shop.sanitizers))

    def _test(self, shop, mutant):
        for program, tests in self.checks_of(mutant):
            shop.make(program)
            if tests == ASSERTION:
                continue
            patience = PATIENCE_SECONDS + SLOWEST * self.seconds[shop.sanitizers, program]
            outcome = shop.test(program, patience, PROGRAMS[program][1], tests)
            if outcome.failure:
                return "killed", f"{program} {outcome.failure}"
        return "survived", None

    def try_sanitized(self, mutant):
        with self.lock:
            self.sanitized.prepare(self.files)
            for program, _ in self.checks_of(mutant):
                if (self.sanitized.sanitizers, program) not in self.seconds:
                    self.sanitized.make(program, jobs=os.cpu_count())
                    self._measure(self.sanitized, program)
            return self.try_out(self.sanitized, mutant)
