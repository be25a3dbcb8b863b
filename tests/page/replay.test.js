// The live page on a replay: a recorded server looks as it did when it was running.
import assert from "node:assert/strict";
import { mkdtempSync, rmSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { after, before, test } from "node:test";
import {
  openPage, patience, Rig, row, startBrowser, Tool, waitForChanges, waitForText,
} from "./tools.js";

const keys = ["fast:float:out.level", "fast:int:frames", "slow:uint:mode", "slow:string:dsp state"];

const configuration = (meters) => `
[Meters]
Target=${meters}
[MetersFloat]
Meter=Key=out.level CustomKey=level
[MetersInt]
Meter=Key=frames CustomKey=frames
[MetersUint]
Meter=Key=mode CustomKey=mode Type=slow
[MetersString]
Meter=Key='dsp state' CustomKey=dsp_state Type=slow
`;

let browser;
let folder;
let recording;
let last; // the last value of each key in the recording

before(async () => {
  [browser, folder] = [await startBrowser(), mkdtempSync(join(tmpdir(), "gateway-replay-"))];
  recording = join(folder, "session");
  const server = new Tool(["sim", "--meters", "127.0.0.1:0", "--engine", "", "--keys", ...keys]);
  const target = (await server.line("meters ")).slice(7);
  assert.equal(await new Tool(["record", target, "-o", recording, "--for", "4"]).exit, 0);
  await server.stop();
  const shown = new Tool(["record", "--show", recording, "--json"]);
  assert.equal(await shown.exit, 0);
  const values = shown.lines.flatMap((line) => JSON.parse(line).values ?? []);
  last = Object.fromEntries(values.map(({ key, value }) => [key, value]));
  assert.deepEqual(Object.keys(last).sort(), keys.map((key) => key.split(":")[2]).sort());
});

after(async () => {
  await browser.close();
  rmSync(folder, { recursive: true });
});

async function withReplay(options, use) {
  const rig = await Rig.start({ configuration, simulator: ["--replay", recording, ...options] });
  try {
    const page = await openPage(browser.context, rig.url);
    await use(page, rig);
    assert.deepEqual(page.problems, []);
  } finally {
    await rig.stop();
  }
}

const value = (page, name) => row(page, name).locator(".value");

test("ShowsValuesThatMoveWhileAReplayRuns", { timeout: 2 * patience }, () =>
  withReplay(["--loop"], async (page) => {
    for (const link of ["fast", "slow"]) {
      await waitForText(page.locator(`#link-${link} .words`), /^receiving [\d.]+ messages\/s, /);
    }
    await Promise.all([
      waitForChanges(value(page, "level"), 5),
      waitForChanges(value(page, "frames"), 5),
      waitForChanges(value(page, "mode"), 2),
    ]);
    await row(page, "level").and(page.locator('[data-state="changing"]')).waitFor();
  }));

test("ShowsTheLastRecordedValuesAfterAReplay", { timeout: 2 * patience }, () =>
  withReplay([], async (page, rig) => {
    await rig.simulator.line("replay over");
    await waitForText(value(page, "dsp_state"), last["dsp state"]);
    await waitForText(value(page, "mode"), String(last.mode));
    const numberIn = async (name) =>
      Number((await value(page, name).textContent()).replace("−", "-").replace(/[^-.\d]/g, ""));
    // The page draws a frame after the values have come.
    await page.waitForFunction(
      (frames) =>
        document.querySelector('.row[data-name="frames"] .value').textContent.replace(/\D/g, "") ===
        frames,
      String(last.frames),
    );
    assert.ok(Math.abs((await numberIn("level")) - last["out.level"]) <= 0.05);
  }));
