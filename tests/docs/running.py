"""Runs `gatewayctl sim` and `gatewayctl host` for tests, on free ports."""

import json
import queue
import subprocess
import threading

# Seconds; generous, since on a busy machine a stop may wait for a stream that is between attempts.
PATIENCE = 120


class Tool:
    """A running gatewayctl with --json; use it in a `with` statement, which ends it."""

    def __init__(self, gatewayctl, *arguments):
        self.process = subprocess.Popen([gatewayctl, *arguments, "--json"], text=True,
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        stderr=subprocess.DEVNULL)
        self.events = queue.Queue()
        self.reader = threading.Thread(target=self._read)
        self.reader.start()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.terminate()
        self.process.wait(PATIENCE)
        self.reader.join()
        self.process.stdin.close()
        self.process.stdout.close()

    def _read(self):
        for line in self.process.stdout:
            self.events.put(json.loads(line))

    def next(self):
        return self.events.get(timeout=PATIENCE)

    def wait(self, name, **members):
        """Returns the next event of this name with these members; skips others."""
        while True:
            event = self.next()
            if event["event"] == name and members.items() <= event.items():
                return event

    def tell(self, line):
        self.process.stdin.write(line + "\n")
        self.process.stdin.flush()


class Simulator(Tool):
    def __init__(self, gatewayctl, config, *arguments):
        super().__init__(gatewayctl, "sim", "--meters", "127.0.0.1:0", "--engine", "127.0.0.1:0",
                         "--config", config, *arguments)
        self.meters = self.wait("listening", service="meters")["address"]
        self.engine = self.wait("listening", service="engine")["address"]

    def configuration(self, sample, path):
        """Writes the sample with the addresses of this simulator, and returns its path."""
        path.write_text(sample.read_text().replace("localhost:50005", self.meters)
                        .replace("localhost:50006", self.engine))
        return path

    def inflict(self, fault):
        """Returns once the fault has begun; needs --live-faults."""
        self.tell(fault)
        self.wait("fault", fault=fault.split()[0])


class Host(Tool):
    def __init__(self, gatewayctl, config, *arguments):
        super().__init__(gatewayctl, "host", config, "--page", "127.0.0.1:0", *arguments)
        self.states = {}  # of links, by the events so far
        self.address = self.wait("page")["url"].removeprefix("http://").rstrip("/")

    def next(self):
        event = super().next()
        if event["event"] == "link":
            self.states[event["link"]] = event["state"]
        return event

    def wait_state(self, state, *links):
        """Returns once all these links are in this state."""
        while {self.states.get(link) for link in links} != {state}:
            try:
                self.next()
            except queue.Empty as error:
                raise TimeoutError(f"{links} did not become {state}: {self.states}") from error
