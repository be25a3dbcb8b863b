#!/usr/bin/python3
"""Tests a gateway against simulated servers.

    GATEWAYCTL=build/gatewayctl examples/tests/python/gain_test.py
"""

import json
import os
import pathlib
import subprocess
import tempfile
import unittest
import urllib.parse
import urllib.request

GATEWAYCTL = os.environ.get("GATEWAYCTL", "gatewayctl")
CONFIGURATION = """
[Meters]
Target={meters}
[MetersFloat]
Meter=Key=out.level CustomKey=out_level
[Engine]
Target={engine}
[EngineFloat]
Param=Key=out.gain CustomKey=out_gain
"""


class Tool:
    """A running gatewayctl. Use it in a `with` statement, which ends it."""

    def __init__(self, *arguments):
        self.process = subprocess.Popen([GATEWAYCTL, *arguments], text=True,
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.terminate()
        self.process.communicate()

    def tell(self, line):
        print(line, file=self.process.stdin, flush=True)

    def wait_line(self, prefix):
        """Returns the rest of the next line that begins with this."""
        for line in self.process.stdout:
            if line.startswith(prefix):
                return line.removeprefix(prefix).strip()
        raise EOFError(f"gatewayctl ended before a line {prefix!r}")


class Simulator(Tool):
    """Both servers, on free ports. They send only what the test sends."""

    def __init__(self):
        free = "127.0.0.1:0"
        super().__init__("sim", "--meters", free, "--engine", free, "--control", free,
                         "--rate-fast", "0", "--rate-slow", "0")
        self.meters = self.wait_line("meters ")
        self.engine = self.wait_line("engine ")
        self.control = self.wait_line("control ")
        self.last = 0  # the number of the latest event that was awaited

    def request(self, path, body=None):
        """Gets the path, or posts the body to it."""
        request = urllib.request.Request(
            f"http://{self.control}/api/{path}", headers={"Content-Type": "application/json"},
            data=None if body is None else json.dumps(body).encode())
        with urllib.request.urlopen(request) as response:
            return json.load(response)

    def wait(self, **wanted):
        """Returns the next event with these members."""
        query = urllib.parse.urlencode({**wanted, "after": self.last, "wait": 60})
        events = self.request(f"events?{query}")["events"]
        if not events:
            raise TimeoutError(f"no event {wanted} came")
        self.last = events[0]["number"]
        return events[0]

    def send(self, key, value):
        self.request("send", {"stream": "fast",
                              "values": [{"key": key, "type": "float", "value": value}]})


class GainTest(unittest.TestCase):
    def setUp(self):
        self.simulator = self.enterContext(Simulator())
        folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        config = folder / "gateway.conf"
        config.write_text(CONFIGURATION.format(**vars(self.simulator)))
        # The gateway under test. Replace it with yours.
        self.gateway = self.enterContext(Tool("host", str(config), "--no-page", "--watch"))
        self.gateway.wait_line("fast out_level 0")  # before any level came
        self.simulator.wait(event="opened", stream="fast")

    def test_a_level_reaches_its_slot(self):
        self.simulator.send("out.level", -12.5)
        self.assertEqual(self.gateway.wait_line("fast out_level "), "-12.5")

    def test_a_changed_parameter_reaches_the_engine_service(self):
        self.gateway.tell("set out_gain -6.5")
        event = self.simulator.wait(event="set_params", key="out.gain")
        self.assertEqual((event["type"], event["value"]), ("float", -6.5))

    def test_the_gateway_comes_back_after_the_stream_has_failed(self):
        self.simulator.request("end", {"stream": "fast", "status": "UNAVAILABLE"})
        self.simulator.wait(event="closed", stream="fast")
        self.simulator.wait(event="opened", stream="fast")
        self.simulator.send("out.level", -3)
        self.assertEqual(self.gateway.wait_line("fast out_level "), "-3")


if __name__ == "__main__":
    unittest.main()
