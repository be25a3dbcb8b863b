// Tests a gateway against simulated servers.
//
//   GATEWAYCTL=build/gatewayctl node --test examples/tests/node/gain.test.js
import assert from "node:assert/strict";
import { spawn } from "node:child_process";
import { once } from "node:events";
import { mkdtemp, rm, writeFile } from "node:fs/promises";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { createInterface } from "node:readline";
import { afterEach, beforeEach, test } from "node:test";

const configuration = (simulator) => `
[Meters]
Target=${simulator.meters}
[MetersFloat]
Meter=Key=out.level CustomKey=out_level
[Engine]
Target=${simulator.engine}
[EngineFloat]
Param=Key=out.gain CustomKey=out_gain
`;

// A running gatewayctl.
class Tool {
  constructor(...args) {
    this.process = spawn(process.env.GATEWAYCTL ?? "gatewayctl", args,
      { stdio: ["pipe", "pipe", "inherit"] });
    this.lines = createInterface({ input: this.process.stdout })[Symbol.asyncIterator]();
  }

  tell(line) {
    this.process.stdin.write(`${line}\n`);
  }

  // The rest of the next line that begins with this.
  async line(prefix) {
    for (;;) {
      const { value, done } = await this.lines.next();
      if (done) throw new Error(`gatewayctl ended before a line "${prefix}"`);
      if (value.startsWith(prefix)) return value.slice(prefix.length);
    }
  }

  async stop() {
    this.process.kill();
    await once(this.process, "close");
  }
}

// Both servers, on free ports. They send only what the test sends.
class Simulator extends Tool {
  last = 0; // the number of the latest event that was awaited

  static async start() {
    const free = "127.0.0.1:0";
    const made = new Simulator("sim", "--meters", free, "--engine", free, "--control", free,
      "--rate-fast", "0", "--rate-slow", "0");
    for (const name of ["meters", "engine", "control"]) made[name] = await made.line(`${name} `);
    return made;
  }

  // Gets the path, or posts the body to it.
  async request(path, body) {
    const response = await fetch(`http://${this.control}/api/${path}`, body && {
      method: "POST",
      headers: { "Content-Type": "application/json" },
      body: JSON.stringify(body),
    });
    const answer = await response.json();
    if (!response.ok) throw new Error(answer.error);
    return answer;
  }

  // The next event with these members.
  async wait(wanted) {
    const query = new URLSearchParams({ ...wanted, after: this.last, wait: 60 });
    const { events } = await this.request(`events?${query}`);
    if (events.length === 0) throw new Error(`no event ${query} came`);
    this.last = events[0].number;
    return events[0];
  }

  send(key, value) {
    return this.request("send", { stream: "fast", values: [{ key, type: "float", value }] });
  }
}

let folder, gateway, simulator;

beforeEach(async () => {
  simulator = await Simulator.start();
  folder = await mkdtemp(join(tmpdir(), "gain-"));
  await writeFile(join(folder, "gateway.conf"), configuration(simulator));
  // The gateway under test. Replace it with yours.
  gateway = new Tool("host", join(folder, "gateway.conf"), "--no-page", "--watch");
  await gateway.line("fast out_level 0"); // before any level came
  await simulator.wait({ event: "opened", stream: "fast" });
});

afterEach(async () => {
  await gateway.stop();
  await simulator.stop();
  await rm(folder, { recursive: true });
});

test("a level reaches its slot", async () => {
  await simulator.send("out.level", -12.5);
  assert.equal(await gateway.line("fast out_level "), "-12.5");
});

test("a changed parameter reaches the engine service", async () => {
  gateway.tell("set out_gain -6.5");
  const event = await simulator.wait({ event: "set_params", key: "out.gain" });
  assert.deepEqual([event.type, event.value], ["float", -6.5]);
});

test("the gateway comes back after the stream has failed", async () => {
  await simulator.request("end", { stream: "fast", status: "UNAVAILABLE" });
  await simulator.wait({ event: "closed", stream: "fast" });
  await simulator.wait({ event: "opened", stream: "fast" });
  await simulator.send("out.level", -3);
  assert.equal(await gateway.line("fast out_level "), "-3");
});
