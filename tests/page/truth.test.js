// Injects each fault of the simulator, breaks the ways between server, host and browser, and
// compares what the live page says of its connections.
import assert from "node:assert/strict";
import { once } from "node:events";
import net from "node:net";
import { after, before, describe, test } from "node:test";
import { openPage, patience, Rig, row, startBrowser } from "./tools.js";

const simulator = ["--keys", "fast:float:out.level", "slow:float:load"];

const configuration = (meters, engine) => `
[Meters]
Target=${meters}
[MetersFloat]
Meter=Key=out.level CustomKey=level
Meter=Key=load CustomKey=load Type=slow
[Engine]
Target=${engine}
[EngineFloat]
Param=Key=out.gain CustomKey=gain
`;

let browser;

before(async () => {
  browser = await startBrowser();
});

after(async () => {
  await browser.close();
});

// Gives `use` a page of a rig of its own, whose simulator injects `fault`. A fault whose effect
// passes comes every eight seconds, so that a slow start of the browser can't miss it.
async function withPage({ fault = "", passes = false, opens = (rig) => rig.url }, use) {
  const faults = fault ? ["--fault", `${passes ? "every 8" : "at 2"}: ${fault}`] : [];
  const rig = await Rig.start({ simulator: [...simulator, ...faults], configuration });
  try {
    const page = await openPage(browser.context, await opens(rig));
    await use(page, rig);
    assert.deepEqual(page.problems, []);
    await page.close();
  } finally {
    await rig.simulator.stop(); // a call without an answer would hold up the host's end
    await rig.stop();
  }
}

// Waits until the page says this of a link.
const says = (page, link, words) =>
  page.locator(`#link-${link} .words`).filter({ hasText: words }).waitFor();

const linkIs = (page, link, state) =>
  page.locator(`#link-${link}[data-state="${state}"]`).waitFor();

async function sendGain(page) {
  const field = row(page, "gain").locator(".value input");
  await field.fill("-6.5");
  await field.press("Enter");
}

const outcome = (page, text) =>
  row(page, "gain").locator(".outcome").filter({ hasText: text }).waitFor();

// ---- Faults of the meter server -----------------------------------------------------------------

const over =
  /^stream over \(ended by the server, or an unreadable message\), next attempt in \d s$/;
const lost = /^connection to 127\.0\.0\.1:\d+ lost, next attempt in \d s$/;
const silent = /^connected to 127\.0\.0\.1:\d+, nothing received for \d+ s$/;
const noServer = /^no server at 127\.0\.0\.1:\d+, trying again; last tried \d+ s ago$/;
const receiving = /^receiving [\d.]+ messages\/s, connected for \d+ s$/;

// Each fault with the state and the words that it must lead to. A state of waiting passes.
const streamFaults = [
  ["end fast", "waiting", over],
  ["end fast UNAVAILABLE", "waiting", over],
  ["garbage fast", "waiting", over],
  ["not-utf8 fast", "waiting", over],
  ["oversize fast", "waiting", /^stream failed with RESOURCE_EXHAUSTED: Received message larger/],
  ["stall fast", "silent", silent],
  ["loss fast", "silent", silent],
  ["half fast", "silent", silent],
  ["flood fast", "receiving", /^receiving \d{3,} messages\/s/],
];

const meterConnectionFaults = [
  ["close meters", "waiting", lost],
  ["reset meters", "waiting", lost],
  ["refuse meters", "no-server", noServer],
  ["silent meters", "connecting", /^reconnecting to /],
  ["freeze meters", "silent", silent],
  ["drip meters 1", "silent", silent],
  ["limit meters 1", "silent", silent],
];

// Faults that the module takes without harm.
const harmless = [
  "unknown fast", "types fast", "arrays fast", "empty fast", "normal", "slice meters 10",
  "delay meters 50ms+-20ms", "loss fast 1..3 with 20%",
];

describe("The page tells of each fault of the meter server", { concurrency: 3 }, () => {
  for (const [fault, state, words] of streamFaults) {
    test(fault, { timeout: 2 * patience }, () =>
      withPage({ fault, passes: state === "waiting" }, async (page) => {
        await linkIs(page, "fast", "receiving");
        await says(page, "fast", words);
        await linkIs(page, "fast", state);
        await linkIs(page, "slow", "receiving");
      }));
  }
  for (const [fault, state, words] of meterConnectionFaults) {
    test(fault, { timeout: 2 * patience }, () =>
      withPage({ fault, passes: state === "waiting" }, async (page) => {
        for (const link of ["fast", "slow"]) {
          await says(page, link, words);
          await linkIs(page, link, state);
        }
      }));
  }
  for (const fault of harmless) {
    test(fault, { timeout: 2 * patience }, () =>
      withPage({ fault }, async (page, rig) => {
        await rig.simulator.line(`fault 2.000 ${fault}`);
        await says(page, "fast", /connected for ([3-9]|\d\d) s$/);
        await says(page, "fast", receiving);
      }));
  }
});

// ---- Faults of the engine service ---------------------------------------------------------------

const engineFaults = [
  ["fail engine INTERNAL", /failed: INTERNAL: ended by the simulator$/,
    /^connected to 127\.0\.0\.1:\d+, last call failed: INTERNAL: ended by the simulator$/],
  ["bad-reply", /failed: the answer can't be read$/, /last call failed: the answer can't be read$/],
  ["no-reply", /^#1 waiting$/, /^connected to 127\.0\.0\.1:\d+, a call unanswered for \d+ s$/],
  ["delay engine 12", /^#1 waiting$/, /a call unanswered for \d+ s$/],
  ["refuse engine", /failed: UNAVAILABLE/, /^no server at 127\.0\.0\.1:\d+, .*trying again/],
];

describe("The page follows a parameter to its end", { concurrency: 3 }, () => {
  for (const [fault, end, words] of engineFaults) {
    test(fault, { timeout: 2 * patience }, () =>
      withPage({ fault }, async (page, rig) => {
        await says(page, "engine", /^not connected to .* until a parameter is sent$/);
        await rig.simulator.line(`fault 2.000 ${fault}`);
        await sendGain(page);
        await outcome(page, end);
        await says(page, "engine", words);
      }));
  }

  for (const fault of ["freeze engine", "drip engine 1"]) {
    test(fault, { timeout: 2 * patience }, () =>
      withPage({ fault }, async (page, rig) => {
        await sendGain(page);
        await outcome(page, /^#1 answered$/);
        await rig.simulator.line(`fault 2.000 ${fault}`);
        await sendGain(page);
        await outcome(page, /^#2 waiting$/);
        await says(page, "engine", /a call unanswered for \d+ s$/);
      }));
  }

  for (const fault of ["close engine", "reset engine"]) {
    test(fault, { timeout: 2 * patience }, () =>
      withPage({ fault }, async (page, rig) => {
        await sendGain(page);
        await outcome(page, /^#1 answered$/);
        await rig.simulator.line(`fault 2.000 ${fault}`);
        await says(page, "engine", /^not connected to .* until a parameter is sent$/);
        await sendGain(page);
        await outcome(page, /^#2 answered$/);
        await says(page, "engine", /^connected to 127\.0\.0\.1:\d+ for \d+ s$/);
      }));
  }

  test("silent engine", { timeout: 2 * patience }, () =>
    withPage({ fault: "silent engine" }, async (page, rig) => {
      await rig.simulator.line("fault 2.000 silent engine");
      await sendGain(page);
      await outcome(page, /^#1 waiting$/);
      await says(page, "engine", /^connecting to /);
    }));
});

// ---- The page's own link ------------------------------------------------------------------------

const pageSays = (page, words) =>
  page.locator("#connection").filter({ hasText: words }).waitFor();

const silence = /^page lost: nothing from gatewayctl for ([3-9]|\d\d) s$/;

// A way between browser and host. While it is cut, nothing passes, and neither end notices.
async function openWay(rig) {
  const ends = new Set();
  let isCut = false;
  const server = net.createServer((near) => {
    if (isCut) return ends.add(near);
    const far = net.connect(new URL(rig.url).port, "127.0.0.1");
    for (const [from, to] of [[near, far], [far, near]]) {
      ends.add(from);
      from.pipe(to);
      from.on("error", () => to.destroy());
    }
  });
  server.listen(0, "127.0.0.1");
  await once(server, "listening");
  return {
    url: `http://127.0.0.1:${server.address().port}/`,
    cut: () => {
      isCut = true;
      ends.forEach((end) => end.unpipe().pause());
    },
    mend: () => (isCut = false),
    close: () => {
      server.close();
      ends.forEach((end) => end.destroy());
    },
  };
}

describe("The page says when it hears nothing from gatewayctl", { concurrency: 3 }, () => {
  test("frozen", { timeout: 2 * patience }, () =>
    withPage({}, async (page, rig) => {
      await says(page, "fast", receiving);
      rig.host.child.kill("SIGSTOP");
      try {
        await pageSays(page, silence);
        await pageSays(page, /for ([4-9]|\d\d) s$/);
        const uptime = await page.locator("#uptime").textContent();
        await pageSays(page, /for ([7-9]|\d\d) s$/);
        assert.equal(await page.locator("#uptime").textContent(), uptime);
      } finally {
        rig.host.child.kill("SIGCONT");
      }
      await pageSays(page, "page connected");
      await says(page, "fast", receiving);
    }));

  test("killed", { timeout: 2 * patience }, () =>
    withPage({}, async (page, rig) => {
      await says(page, "fast", receiving);
      rig.host.child.kill("SIGKILL");
      await pageSays(page, silence);
      await rig.startHost(rig.address);
      await pageSays(page, "page connected");
    }));

  test("stopped", { timeout: 2 * patience }, () =>
    withPage({}, async (page, rig) => {
      rig.host.child.stdin.write("quit\n");
      await pageSays(page, /^stopped at \d\d:\d\d:\d\d$/);
      await rig.host.exit;
      await pageSays(page, /^stopped at \d\d:\d\d:\d\d$/);
    }));

  test("cut", { timeout: 2 * patience }, async () => {
    let way;
    const opens = async (rig) => (way = await openWay(rig)).url;
    await withPage({ opens }, async (page) => {
      await says(page, "fast", receiving);
      way.cut();
      await pageSays(page, silence);
      way.mend();
      await pageSays(page, "page connected"); // over a new connection
    });
    way.close();
  });
});
