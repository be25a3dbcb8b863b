#!/usr/bin/env node
// The services of examples/servers/node, which send only what commands tell them to. The commands
// and events are those of `gatewayctl sim --commands`, as far as tests of flows need them. The
// example's libraries read and write the messages; hexadecimal is only used in commands and events.
import { createRequire } from "node:module";
import { createInterface } from "node:readline";
import { addressesOfCommandLine, serve, sonalith } from "../../../examples/servers/node/server.js";

const example = new URL("../../../examples/servers/node/server.js", import.meta.url);
const { status } = createRequire(example)("@grpc/grpc-js");
const { GetMetersFast } = sonalith.grpc.Meters.service;
const { SetParams } = sonalith.grpcengine.Engine.service;

const bytes = (hex) => (hex === "-" ? Buffer.alloc(0) : Buffer.from(hex, "hex"));
const hex = (buffer) => (buffer.length ? buffer.toString("hex") : "-");
const deadline = (call) => (Number.isFinite(call.getDeadline().valueOf()) ? "set" : "none");

// ---- Streams ------------------------------------------------------------------------------------

class Stream {
  static counts = { fast: 0, slow: 0 };
  static open = [];

  constructor(name, call) {
    this.name = name;
    this.call = call;
    this.title = `${name} ${++Stream.counts[name]}`;
    this.sending = Promise.resolve();
    this.over = new Promise((resolve) => call.on("cancelled", resolve));
    this.over.then(() => this.close("cancelled"));
    Stream.open.push(this);
    console.log(`open ${this.title} - deadline=${deadline(call)}`);
  }

  close(end) {
    if (!Stream.open.includes(this)) return;
    Stream.open.splice(Stream.open.indexOf(this), 1);
    console.log(`closed ${this.title} ${end}`);
  }

  async write(message, times) {
    let count = 0;
    const goesOn = () => (times === Infinity ? !this.ending : count < times);
    while (goesOn() && Stream.open.includes(this)) {
      ++count;
      if (this.call.write(message)) continue;
      await Promise.race([new Promise((resolve) => this.call.once("drain", resolve)), this.over]);
    }
    console.log(`sent ${this.title} ${count}`);
  }

  send(message, times) {
    this.sending = this.sending.then(() => this.write(message, times));
  }

  end(code) {
    this.ending = true;
    this.sending.then(() => {
      this.close("ended");
      if (code === status.OK) this.call.end();
      else this.call.emit("error", { code, details: "as told" });
    });
  }

  static newest = (name) => Stream.open.filter((stream) => stream.name === name).at(-1);
}

// ---- The engine ---------------------------------------------------------------------------------

const engine = { code: status.OK, reply: {}, holding: false, held: [], count: 0 };

function answer({ number, callback }) {
  if (engine.code === status.OK) callback(null, engine.reply);
  else callback({ code: engine.code, details: "as told" });
  console.log(`closed SetParams ${number} replied`);
}

function setParams(call, callback) {
  const request = hex(SetParams.requestSerialize(call.request));
  const number = ++engine.count;
  console.log(`SetParams ${number} ${request} deadline=${deadline(call)}`);
  if (engine.holding) engine.held.push({ number, callback });
  else answer({ number, callback });
}

// ---- Commands -----------------------------------------------------------------------------------

const commands = {
  send: (name, message, times = "1") =>
    Stream.newest(name).send(
      GetMetersFast.responseDeserialize(bytes(message)),
      Number(times) || Infinity,
    ),
  end: (name, code) => Stream.newest(name).end(status[code]),
  engine: (what, argument) => engineCommands[what](argument),
  sync: (word) => console.log(`sync ${word}`),
};

const engineCommands = {
  reply: (message) =>
    Object.assign(engine, {
      code: status.OK,
      reply: SetParams.responseDeserialize(bytes(message)),
      holding: false,
    }),
  fail: (code) => Object.assign(engine, { code: status[code], holding: false }),
  hold: () => (engine.holding = true),
  release: () => engine.held.splice(0).forEach(answer),
};

createInterface({ input: process.stdin })
  .on("line", (line) => {
    const [name, ...words] = line.split(" ");
    commands[name](...words);
  })
  .on("close", () => process.exit(0));

await serve(
  addressesOfCommandLine(),
  {
    GetMetersFast: (call) => void new Stream("fast", call),
    GetMetersSlow: (call) => void new Stream("slow", call),
  },
  { SetParams: setParams },
);
