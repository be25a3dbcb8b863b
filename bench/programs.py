"""The programs that scripts/bench measures with, each a process pinned to a core: a server, and
clients of both subjects, which are the bare client and the module.
"""

import contextlib
import json
import os
import re
import resource
import subprocess
import typing

import measuring
import workload

CORES = sorted(os.sched_getaffinity(0))
SERVER_CORE, CLIENT_CORE = CORES[0], CORES[-1]
PATIENCE = 60  # seconds beyond what a process measures, after which it counts as hung
SUBJECTS = ("bare", "module")


class Turns(typing.NamedTuple):
    """How often each subject is measured, and for how many seconds."""
    count: int
    seconds: float
    warmup: float


def pinned(*cores):
    def pin():
        os.sched_setaffinity(0, cores)

    return pin


class Bench:
    """Starts the programs and reads what they measured. `scale` says how long and how often;
    `folder` is for the files that the programs read."""

    def __init__(self, build, scale, folder):
        self.gatewayctl = build / "gatewayctl"
        self.programs = build / "bench"
        self.scale = scale
        self.folder = folder
        self.board = folder / "board"
        self.families = workload.Families(self.keys())

    def keys(self):
        """Enough keys of each family for the largest message."""
        command = [self.programs / "bench-keys", "--seed", str(self.scale.seed)]
        command += ["--count", str(max(workload.SIZES))]
        return json.loads(subprocess.run(command, check=True, stdout=subprocess.PIPE).stdout)

    def write(self, name, text):
        path = self.folder / name
        path.write_text(text)
        return path

    @contextlib.contextmanager
    def running(self, program, values, *arguments):
        """Runs a server of these values; yields its port."""
        command = [self.programs / program, *arguments]
        command += ["--values", self.write(f"values{len(arguments)}", workload.value_lines(values))]
        with subprocess.Popen(
            command,
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            text=True,
            preexec_fn=pinned(SERVER_CORE),
        ) as process:
            try:
                yield int(process.stdout.readline().removeprefix("port "))
            finally:
                process.stdin.close()

    def feeder(self, values):
        """Runs a server that is faster than any client; yields its port."""
        return self.running("bench-feeder", values)

    def server(self, values, pace="full"):
        """Runs a gRPC server; yields its port."""
        return self.running("bench-server", values, "--pace", str(pace), "--board", str(self.board))

    def client(self, subject, measure, port, config, turns, stored=1):
        command = [self.programs / "bench-client", subject, measure]
        command += ["--target", f"127.0.0.1:{port}", "--config", config, "--board", self.board]
        command += ["--seconds", str(turns.seconds), "--warmup", str(turns.warmup)]
        command += ["--stored", str(stored)]
        return subprocess.Popen(
            command, stdout=subprocess.PIPE, text=True, preexec_fn=pinned(CLIENT_CORE)
        )

    def result(self, process, turns):
        try:
            output, _ = process.communicate(timeout=turns.seconds + turns.warmup + PATIENCE)
        finally:
            process.kill()
        if process.returncode != 0:
            raise RuntimeError(f"{process.args[0].name} ended with {process.returncode}")
        return json.loads(output)

    def pairs(self, measure, port, config, turns, stored=1):
        """Figures of both subjects, measured in turns; the order within a pair changes from pair to
        pair. The module must have stored this many values before it is measured."""
        figures = {subject: [] for subject in SUBJECTS}
        for pair in range(turns.count):
            for subject in SUBJECTS if pair % 2 == 0 else SUBJECTS[::-1]:
                process = self.client(subject, measure, port, config, turns, stored)
                figures[subject].append(self.result(process, turns))
        return figures

    def side_by_side(self, measure, port, config, turns):
        """Figures of `turns.count` processes of each subject, all of which run at the same time."""
        running = {subject: [] for subject in SUBJECTS}
        for _ in range(turns.count):
            for subject, processes in running.items():
                processes.append(self.client(subject, measure, port, config, turns))
        return {subject: [self.result(process, turns) for process in processes]
                for subject, processes in running.items()}

    def live_page(self, slots, moving):
        """Figures of gatewayctl's live page in a browser; all processes share the cores."""
        script = measuring.ROOT / "tests/page/measure.js"
        seconds = self.scale.page_seconds
        result = measuring.run("node", script, slots, moving, seconds, stdout=subprocess.PIPE,
                               text=True, timeout=seconds + 5 * PATIENCE,
                               env={**os.environ, "GATEWAYCTL": str(self.gatewayctl.resolve())})
        return json.loads(result.stdout)

    def check_seconds(self, text):
        """The CPU of one check of a configuration by gatewayctl."""
        command = [self.gatewayctl, "check", self.write("checked.conf", text)]

        def used():
            usage = resource.getrusage(resource.RUSAGE_CHILDREN)
            return usage.ru_utime + usage.ru_stime

        before = used()
        done = subprocess.run(command, check=False, stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL, preexec_fn=pinned(CLIENT_CORE),
                              timeout=PATIENCE)
        if done.returncode not in (0, 1):
            raise RuntimeError(f"gatewayctl check ended with {done.returncode}")
        return used() - before

    def recorded(self, port, seconds):
        """What gatewayctl record keeps of a server in this time, with the CPU that it uses and the
        size of its file."""
        path = self.folder / "recording"
        command = [self.gatewayctl, "record", f"127.0.0.1:{port}", "-o", path, "--for", seconds]
        before = resource.getrusage(resource.RUSAGE_CHILDREN)
        done = subprocess.run([str(word) for word in command], check=False, text=True,
                              stderr=subprocess.PIPE, preexec_fn=pinned(CLIENT_CORE),
                              timeout=seconds + PATIENCE)
        after = resource.getrusage(resource.RUSAGE_CHILDREN)
        found = re.findall(r": (\d+) messages(?:,| of) (\d+) bytes( were lost)?", done.stderr)
        if not found:
            raise RuntimeError(f"gatewayctl record: {done.stderr}")
        kept = [(int(messages), int(size)) for messages, size, lost in found if not lost]
        return {
            "seconds": seconds,
            "messages": sum(messages for messages, _ in kept),
            "bytes": sum(size for _, size in kept),
            "lost": sum(int(messages) for messages, _, lost in found if lost),
            "cpu": (after.ru_utime + after.ru_stime) - (before.ru_utime + before.ru_stime),
            "file": path.stat().st_size,
        }

    def google_benchmark(self, program, *arguments, cores=(CLIENT_CORE,)):
        """The runs of each benchmark, by its name without options. Each run has "seconds", which
        the benchmark measured, "cpu" in seconds, and the benchmark's counters. Repetitions run in
        random order."""
        output = self.folder / f"{program}.json"
        command = [self.programs / program, f"--benchmark_out={output}"]
        command += ["--benchmark_out_format=json", "--benchmark_enable_random_interleaving=true"]
        command += ["--benchmark_display_aggregates_only=true", *map(str, arguments)]
        subprocess.run(
            command,
            check=True,
            stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL,
            preexec_fn=pinned(*cores),
            timeout=600,
        )
        runs = {}
        for run in json.loads(output.read_text())["benchmarks"]:
            if run["run_type"] == "iteration":
                options = ("iterations:", "manual_time", "min_time:", "real_time", "repeats:")
                words = run["name"].split("/")
                name = "/".join(word for word in words if not word.startswith(options))
                unit = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3}[run["time_unit"]]
                times = {"seconds": run["real_time"] * unit, "cpu": run["cpu_time"] * unit}
                runs.setdefault(name, []).append({**run, **times})
        return runs
