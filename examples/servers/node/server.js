#!/usr/bin/env node
// A meter server and an engine service for the gateway: plays the meters of
// examples/grpc-gateway.conf until it is stopped, and prints the parameters that it receives.
// Install once:
//   npm ci --prefix examples/servers/node
// Then run:
//   examples/servers/node/server.js --meters 127.0.0.1:50005 --engine 127.0.0.1:50006
import grpc from "@grpc/grpc-js";
import { loadSync } from "@grpc/proto-loader";
import { fileURLToPath } from "node:url";
import { parseArgs } from "node:util";

const schemas = fileURLToPath(new URL("../../../proto", import.meta.url));

// The packages of the schemas. Fields keep their names, and the field `value` of a value names the
// member that is set.
export const { sonalith } = grpc.loadPackageDefinition(
  loadSync(["meters.proto", "engine.proto"], {
    includeDirs: [schemas],
    keepCase: true,
    oneofs: true,
  }),
);

// Serves both services at both addresses, and prints the addresses. Port 0 takes any free port.
export async function serve(addresses, meters, engine) {
  const server = new grpc.Server();
  server.addService(sonalith.grpc.Meters.service, meters);
  server.addService(sonalith.grpcengine.Engine.service, engine);
  const bind = (address) =>
    new Promise((resolve, reject) =>
      server.bindAsync(address, grpc.ServerCredentials.createInsecure(), (error, port) =>
        error ? reject(error) : resolve(address.replace(/:0$/, `:${port}`)),
      ),
    );
  for (const service of ["meters", "engine"]) {
    console.log(service, await bind(addresses[service]));
  }
  return server;
}

export function addressesOfCommandLine() {
  return parseArgs({
    options: {
      meters: { type: "string", default: "127.0.0.1:50005" },
      engine: { type: "string", default: "127.0.0.1:50006" },
    },
  }).values;
}

// ---- The services -------------------------------------------------------------------------------

const level = (seconds) => ({ sfloat: -30 + 30 * Math.sin(seconds) });

const fastValues = (seconds) => ({
  "out.level": level(seconds),
  "in.level": level(2 * seconds),
  frames: { suint: Math.round(seconds * 48000) % 2 ** 32 },
});

const slowValues = (seconds) => ({
  "queue.length": { sint: Math.round(seconds) % 10 },
  "dsp state": { sstring: { data: "running" } },
});

// Writes all values at once and then every `period` milliseconds, until the client has gone.
const play = (period, valuesAt) => (call) => {
  const send = () => {
    // Slots show the newest value, so a client that falls behind has no use for old ones.
    if (call.writableNeedDrain) return;
    const values = Object.entries(valuesAt(performance.now() / 1000));
    call.write({ values: values.map(([key, value]) => ({ key, value })) });
  };
  send();
  const timer = setInterval(send, period);
  call.on("cancelled", () => clearInterval(timer));
};

function setParams({ request }, answer) {
  answer(null, {});
  // A call without parameters has no array.
  for (const { key, value = {} } of request.params ?? []) {
    console.log("SetParams", key, value.value, value[value.value]);
  }
}

if (process.argv[1] === fileURLToPath(import.meta.url)) {
  await serve(
    addressesOfCommandLine(),
    { GetMetersFast: play(50, fastValues), GetMetersSlow: play(1000, slowValues) },
    { SetParams: setParams },
  );
}
