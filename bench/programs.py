"""The programs that scripts/bench measures with, each a process pinned to a core: a server, and
clients of both subjects, which are the bare client and the module.
"""

import contextlib
import json
import os
import subprocess

import workload

CORES = sorted(os.sched_getaffinity(0))
SERVER_CORE, CLIENT_CORE = CORES[0], CORES[-1]
PATIENCE = 60  # seconds beyond what a process measures, after which it counts as hung
SUBJECTS = ("bare", "module")


def pinned(core):
    def pin():
        os.sched_setaffinity(0, {core})

    return pin


class Bench:
    """Starts the programs and reads what they measured. `scale` says how long and how often;
    `folder` is for the files that the programs read."""

    def __init__(self, build, scale, folder):
        self.programs = build / "bench"
        self.scale = scale
        self.folder = folder
        self.board = folder / "board"

    def write(self, name, text):
        path = self.folder / name
        path.write_text(text)
        return path

    @contextlib.contextmanager
    def running(self, program, values, *arguments):
        """Runs a server of these values; yields its process and port."""
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
                yield process, int(process.stdout.readline().removeprefix("port "))
            finally:
                process.stdin.close()

    @contextlib.contextmanager
    def server(self, values, pace):
        """Runs a gRPC server; yields its port."""
        arguments = ("--pace", str(pace), "--board", str(self.board))
        with self.running("bench-server", values, *arguments) as (_, port):
            yield port

    def client(self, subject, measure, port, config, seconds, warmup):
        command = [self.programs / "bench-client", subject, measure]
        command += ["--target", f"127.0.0.1:{port}", "--config", config, "--board", self.board]
        command += ["--seconds", str(seconds), "--warmup", str(warmup)]
        return subprocess.Popen(
            command, stdout=subprocess.PIPE, text=True, preexec_fn=pinned(CLIENT_CORE)
        )

    def result(self, process, seconds):
        try:
            output, _ = process.communicate(timeout=seconds + PATIENCE)
        finally:
            process.kill()
        if process.returncode != 0:
            raise RuntimeError(f"{process.args[0].name} ended with {process.returncode}")
        return json.loads(output)

    def pairs(self, measure, port, config, count, seconds, warmup):
        """Figures of both subjects by turns; the order within a pair changes from pair to pair."""
        figures = {subject: [] for subject in SUBJECTS}
        for pair in range(count):
            for subject in SUBJECTS if pair % 2 == 0 else SUBJECTS[::-1]:
                process = self.client(subject, measure, port, config, seconds, warmup)
                figures[subject].append(self.result(process, seconds + warmup))
        return figures

    def side_by_side(self, measure, port, config, count, seconds, warmup):
        """Figures of `count` processes of each subject, all of which run at the same time."""
        running = {subject: [] for subject in SUBJECTS}
        for _ in range(count):
            for subject, processes in running.items():
                processes.append(self.client(subject, measure, port, config, seconds, warmup))
        return {subject: [self.result(process, seconds) for process in processes]
                for subject, processes in running.items()}

    def google_benchmark(self, program, *arguments):
        """Times in seconds by name, one per repetition. The repetitions run in random order."""
        output = self.folder / f"{program}.json"
        command = [self.programs / program, f"--benchmark_out={output}"]
        command += ["--benchmark_out_format=json", "--benchmark_enable_random_interleaving=true"]
        command += ["--benchmark_display_aggregates_only=true", *map(str, arguments)]
        subprocess.run(
            command,
            check=True,
            stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL,
            preexec_fn=pinned(CLIENT_CORE),
            timeout=600,
        )
        times = {}
        for run in json.loads(output.read_text())["benchmarks"]:
            if run["run_type"] == "iteration":
                options = ("iterations:", "manual_time", "min_time:", "repeats:")
                words = run["name"].split("/")
                name = "/".join(word for word in words if not word.startswith(options))
                unit = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3}[run["time_unit"]]
                times.setdefault(name, []).append(run["real_time"] * unit)
        return times
