// gRPC's standard services on the ports of `gatewayctl sim`, used by a client that has no schema:
// an independent reflection client finds the services, and messages are built from what it got.
// GATEWAYCTL names the program to test.

import assert from "node:assert/strict";
import { spawn } from "node:child_process";
import { once } from "node:events";
import { createInterface } from "node:readline";
import { after, before, describe, test } from "node:test";

import grpc from "@grpc/grpc-js";
import reflectionClient from "grpc-js-reflection-client";

const STANDARD = ["grpc.health.v1.Health", "grpc.reflection.v1.ServerReflection",
  "grpc.reflection.v1alpha.ServerReflection"];
const insecure = grpc.ChannelCredentials.createInsecure();

// A simulator on free ports, and the lines that it prints.
class Simulator {
  async start(...args) {
    const ports = ["--meters", "127.0.0.1:0", "--engine", "127.0.0.1:0"];
    this.process = spawn(process.env.GATEWAYCTL, ["sim", ...ports, ...args],
      { stdio: ["pipe", "pipe", "inherit"] });
    this.lines = createInterface({ input: this.process.stdout })[Symbol.asyncIterator]();
    this.meters = await this.next("meters ");
    this.engine = await this.next("engine ");
    return this;
  }

  // The rest of the next line that begins with this.
  async next(prefix) {
    for (;;) {
      const { value, done } = await this.lines.next();
      if (done) throw new Error(`the simulator ended before a line "${prefix}"`);
      if (value.startsWith(prefix)) return value.slice(prefix.length);
    }
  }

  async stop() {
    this.process.kill();
    await once(this.process, "close");
  }
}

function reflectionAt(target, version = "v1") {
  return new reflectionClient.GrpcReflection(target, insecure, {}, version);
}

// The constructor of a client for a service, made from its reflected schema.
async function serviceAt(target, name) {
  const descriptor = await reflectionAt(target).getDescriptorBySymbol(name);
  const object = descriptor.getPackageObject({ keepCase: true, enums: String, oneofs: true });
  const Client = name.split(".").reduce((scope, part) => scope[part], object);
  return new Client(target, insecure);
}

function call(client, method, request) {
  return new Promise((resolve, reject) => {
    client[method](request, (error, response) => error ? reject(error) : resolve(response));
  });
}

describe("the standard services", () => {
  let sim;
  before(async () => {
    sim = await new Simulator().start("--keys", "fast:float:out.level");
  });
  after(() => sim.stop());

  for (const version of ["v1", "v1alpha"]) {
    test(`reflection ${version} lists the services of each port`, async () => {
      const listed = (target) => reflectionAt(target, version).listServices();
      assert.deepEqual(await listed(sim.meters), ["sonalith.grpc.Meters", ...STANDARD]);
      assert.deepEqual(await listed(sim.engine), ["sonalith.grpcengine.Engine", ...STANDARD]);
    });
  }

  test("reflection describes every method of every service", async () => {
    const client = reflectionAt(sim.engine);
    const methods = async (name) => (await client.listMethods(name)).map((each) => each.name);
    assert.equal((await methods("sonalith.grpcengine.Engine")).length, 22);
    assert.deepEqual(await methods("sonalith.grpc.Meters"), ["GetMetersFast", "GetMetersSlow"]);
    assert.deepEqual(await methods("grpc.health.v1.Health"), ["Check", "Watch"]);
    for (const name of STANDARD.slice(1)) {
      assert.deepEqual(await methods(name), ["ServerReflectionInfo"]);
    }
  });

  test("reflection finds methods, nested types and files", async () => {
    const client = reflectionAt(sim.meters);
    for (const symbol of ["sonalith.grpc.Meters.GetMetersFast", "sonalith.grpc.AnyValue",
      "grpc.health.v1.HealthCheckResponse.ServingStatus", "sonalith.grpcengine.MeterType"]) {
      await client.getDescriptorBySymbol(symbol);
    }
    const root = (await client.getDescriptorByFileName("meters.proto")).getProtobufJsRoot();
    assert.ok(root.lookupType("sonalith.common.Empty"));
  });

  test("reflection refuses what it does not have", async () => {
    const client = reflectionAt(sim.meters);
    const isNotFound = (error) => /there is no (symbol|file|type) "nothing"/.test(String(error));
    await assert.rejects(client.getDescriptorBySymbol("nothing"), isNotFound);
    await assert.rejects(client.getDescriptorByFileName("nothing"), isNotFound);
    await assert.rejects(client.getAllExtensionNumbersOfType("nothing"), isNotFound);
  });

  test("a client without schemas calls SetParams", async () => {
    const engine = await serviceAt(sim.engine, "sonalith.grpcengine.Engine");
    await call(engine, "SetParams", { params: [{ key: "out.gain", value: { sfloat: -6.5 } }] });
    engine.close();
    assert.equal(await sim.next("SetParams "), "1 out.gain float -6.5");
  });

  test("a client without schemas reads a meter stream", async () => {
    const meters = await serviceAt(sim.meters, "sonalith.grpc.Meters");
    const stream = meters.GetMetersFast({});
    const [meter] = await once(stream, "data");
    assert.equal(meter.values[0].key, "out.level");
    assert.equal(meter.values[0].value.value, "sfloat");
    stream.on("error", () => {});
    stream.cancel();
    meters.close();
  });

  test("health is that of the services of each port", async () => {
    const health = await serviceAt(sim.meters, "grpc.health.v1.Health");
    for (const service of ["", "sonalith.grpc.Meters"]) {
      assert.deepEqual(await call(health, "Check", { service }), { status: "SERVING" });
    }
    await assert.rejects(call(health, "Check", { service: "sonalith.grpcengine.Engine" }),
      { code: grpc.status.NOT_FOUND });
    const watch = health.Watch({ service: "sonalith.grpc.Meters" });
    assert.deepEqual((await once(watch, "data"))[0], { status: "SERVING" });
    watch.on("error", () => {});
    watch.cancel();
    health.close();
  });
});

test("a simulator that obeys commands has the standard services, too", async () => {
  const sim = await new Simulator().start("--commands");
  const engine = await serviceAt(sim.engine, "sonalith.grpcengine.Engine");
  await call(engine, "SetParams", {});
  engine.close();
  assert.match(await sim.next("SetParams "), /^1 - deadline=none/);
  await sim.stop();
});

test("the standard services pass through the relays of faults", async () => {
  const sim = await new Simulator().start("--live-faults");
  const engine = await serviceAt(sim.engine, "sonalith.grpcengine.Engine");
  await call(engine, "SetParams", {});
  engine.close();
  await sim.stop();
});
