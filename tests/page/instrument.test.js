// Drives the live page as an instrument for people who watch levels: what it shows of every kind of
// value, how they find a slot among many, and what they read when nothing arrives any more.
import assert from "node:assert/strict";
import { after, before, test } from "node:test";
import { openPage, patience, Rig, row, startBrowser, waitForChanges, waitForNames } from "./tools.js";

const simulator = ["--keys", "fast:float:out.l", "fast:float:out.r", "fast:uint:frames"];

const configuration = (meters, engine) => `
[Meters]
Target=${meters}
[MetersFloat]
Meter=Key=out.l CustomKey=out_left
Meter=Key=out.r CustomKey=out_right
Meter=Key=rate CustomKey=sample_rate DefaultValue=44100
Meter=Key=large CustomKey=large DefaultValue=3e38
Meter=Key=tiny CustomKey=tiny DefaultValue=1e-30
Meter=Key=below CustomKey=just_below DefaultValue=-0.04
[MetersUint]
Meter=Key=frames CustomKey=frames
[Engine]
Target=${engine}
[EngineFloat]
Param=Key=out.gain CustomKey=out_gain
[EngineString]
Param=Key=preset CustomKey=preset
`;

let browser;
let rig;

before(async () => {
  [browser, rig] = await Promise.all([startBrowser(), Rig.start({ simulator, configuration })]);
});

after(async () => {
  await browser.close();
  await rig.stop();
});

// A test with a page of its own, which must report no problems.
function pageTest(name, use) {
  test(name, { timeout: 2 * patience }, async () => {
    const page = await openPage(browser.context, rig.url);
    try {
      await use(page);
      assert.deepEqual(page.problems, []);
    } finally {
      await page.close();
    }
  });
}

const waitForText = (locator, text) => locator.filter({ hasText: text }).waitFor();

// ---- Numbers and scales -------------------------------------------------------------------------

pageTest("ShowsAFittingScaleForEveryDefault", async (page) => {
  const shown = async (name) => {
    const texts = row(page, name).locator(".level button > span, .value");
    return (await texts.allInnerTexts()).join("|");
  };
  await row(page, "sample_rate").waitFor();
  assert.equal(await shown("sample_rate"), "0||50k|44100.0");
  assert.equal(await shown("large"), "0||5e38|3.000e+38");
  assert.equal(await shown("tiny"), "0||1e-30|1.000e-30");
  assert.equal(await shown("just_below"), "−60||0|0.0");
  const isCut = (label) => label.scrollWidth > label.clientWidth;
  for (const label of await row(page, "large").locator(".level button > span").all()) {
    assert.equal(await label.evaluate(isCut), false);
  }
});

pageTest("WritesScaleEndsInFiveCharacters", async (page) => {
  const texts = await page.evaluate(async () => {
    const { scaleText } = await import("/format.js");
    return [-60, 0, 0.25, 0.0015, 1e-30, 12345.678, -44100, 2.5e6, 1e9, 1e12, -3e38].map(scaleText);
  });
  assert.deepEqual(texts, [
    "−60", "0", "0.25", "0.002", "1e-30", "12.3k", "−44k", "2500k", "1000M", "1e12", "−3e38",
  ]);
});

// ---- Finding ------------------------------------------------------------------------------------

const namesIn = (page, set) =>
  page.locator(`.group[data-set="${set}"] .row`).evaluateAll((rows) =>
    rows.map((row) => row.dataset.name),
  );

const waitForOrder = (page, set, names) =>
  page.waitForFunction(
    ([group, wanted]) =>
      [...document.querySelectorAll(`.group[data-set="${group}"] .row`)]
        .map((row) => row.dataset.name)
        .join() === wanted,
    [set, names.join()],
  );

const waitForAddress = (page, text) =>
  page.waitForFunction((wanted) => location.hash === wanted, text);

pageTest("FindsSlotsThatMatchEveryWord", async (page) => {
  await page.locator("#filter").fill("LEFT  out.");
  await waitForNames(page, ["out_left"]);
  await page.locator("#filter").fill("out left right");
  await page.getByText("No slots match.").waitFor();
});

pageTest("SortsTheRowsOfEachGroup", async (page) => {
  await row(page, "frames").waitFor();
  const meters = await namesIn(page, "fast");
  await page.locator("#sort").selectOption("name");
  await waitForOrder(page, "fast", [...meters].sort());
  assert.deepEqual(await namesIn(page, "engine"), ["out_gain", "preset"]);
  await page.locator("#sort").selectOption("-age");
  await page.waitForFunction(() =>
    ["out_left", "out_right"].every((name) => {
      const rows = [...document.querySelectorAll('.group[data-set="fast"] .row')];
      return rows.findIndex((row) => row.dataset.name === name) > 3;
    }),
  );
  const header = (name) => page.locator(".columns button", { hasText: name });
  await header("Value").click();
  await page.waitForFunction(
    () => document.querySelector('.group[data-set="fast"] .row').dataset.name === "large",
  );
  assert.equal(await page.locator("#sort").inputValue(), "-value");
  await header("Value").click();
  assert.equal(await page.locator("#sort").inputValue(), "value");
  await header("Value").click();
  await waitForOrder(page, "fast", meters);
  await header("Changes").click();
  assert.equal(await page.locator("#sort").inputValue(), "-changes");
  await page.waitForFunction(
    () => document.querySelector('.group[data-set="fast"] .row').dataset.name.startsWith("out_"),
  );
});

pageTest("KeepsPinnedSlotsAtTheTopWhateverTheFilter", async (page) => {
  await row(page, "frames").getByRole("button", { name: "Pin frames" }).click();
  await waitForOrder(page, "pinned", ["frames"]);
  await page.locator("#filter").fill("nothing like it");
  await waitForNames(page, ["frames"]);
  await page.getByText("No slots match.").waitFor();
  await row(page, "frames").focus();
  await page.keyboard.press("p");
  await waitForNames(page, []);
});

pageTest("KeepsEverythingShownInTheAddress", async (page) => {
  await page.locator("#filter").fill("out");
  await page.locator("#sets").getByRole("button", { name: "Fast" }).click();
  await page.locator("#states").getByRole("button", { name: "Changing" }).click();
  await page.locator("#sort").selectOption("-name");
  await waitForOrder(page, "fast", ["out_right", "out_left"]);
  await row(page, "out_left").focus();
  await page.keyboard.press("p");
  await row(page, "out_right").focus();
  const hash = "#q=out&set=fast&state=changing&sort=-name&pin=fast/out_left&slot=fast/out_right";
  await waitForAddress(page, hash);
  await page.reload();
  await waitForOrder(page, "pinned", ["out_left"]);
  await waitForOrder(page, "fast", ["out_right"]);
  assert.equal(await page.locator("#filter").inputValue(), "out");
  assert.equal(await page.locator("#sort").inputValue(), "-name");
  await page.waitForFunction(() => document.activeElement.dataset.name === "out_right");
  await page.evaluate(() => (location.hash = "#q=large"));
  await waitForNames(page, ["large"]);
  assert.equal(await page.locator("#sort").inputValue(), "");
});

// ---- The end ------------------------------------------------------------------------------------

// Long enough to show ages or histories that still run.
const waitALittle = (page) =>
  page.evaluate(() => new Promise((resolve) => setTimeout(resolve, 1500)));

const readings = (page) =>
  page.evaluate(() => [
    document.getElementById("uptime").textContent,
    ...[...document.querySelectorAll(".age")].map((age) => age.textContent),
    ...[...document.querySelectorAll(".history canvas")].map((canvas) => canvas.toDataURL()),
  ]);

// A test with a rig and a page of its own.
function ownRigTest(name, use) {
  test(name, { timeout: 2 * patience }, async () => {
    const own = await Rig.start({ simulator, configuration });
    try {
      const page = await openPage(browser.context, own.url);
      await use(page, own);
      assert.deepEqual(page.problems, []);
      await page.close();
    } finally {
      await own.stop();
    }
  });
}

ownRigTest("FreezesAndSaysWhenGatewayctlStopped", async (page, own) => {
  await waitForChanges(row(page, "out_left").locator(".value"), 20);
  own.host.child.stdin.write("quit\n");
  await waitForText(page.locator("#connection"), /^stopped at \d\d:\d\d:\d\d$/);
  assert.match(await page.title(), /^stopped at \d\d:\d\d:\d\d · gateway$/);
  await waitForText(page.locator("#change-rate"), /^–$/);
  const atTheEnd = await readings(page);
  assert.ok(atTheEnd.length > 8);
  await waitALittle(page);
  assert.deepEqual(await readings(page), atTheEnd);
  await waitForText(page.locator("#connection"), /^stopped at/);
  await own.startHost(own.address);
  await page.locator('#connection[data-state="live"]').waitFor();
  assert.equal(await page.title(), "gateway");
  await waitForChanges(row(page, "out_left").locator(".value"), 2);
});

ownRigTest("CountsStaleSlotsInTheTitle", async (page, own) => {
  await waitForChanges(row(page, "frames").locator(".value"), 2);
  await own.simulator.stop();
  await page.waitForFunction(() => document.title === "3 stale · gateway");
});
