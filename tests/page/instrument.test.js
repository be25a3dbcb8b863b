// Drives the live page as an instrument for people who watch levels: what it shows of every kind of
// value, how they find a slot among many, and what they read when nothing arrives any more.
import assert from "node:assert/strict";
import { readFileSync } from "node:fs";
import { test } from "node:test";
import {
  openPage, patience, Rig, row, shareRig, violations, waitForChanges, waitForNames, waitForText,
} from "./tools.js";

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

const shared = shareRig({ simulator, configuration });
const { ownRigTest } = shared;
const pageTest = (name, use) => shared.test(name, {}, use);

// ---- Numbers and scales -------------------------------------------------------------------------

pageTest("ShowsAFittingScaleForEveryDefault", async (page) => {
  const shown = async (name) => {
    const texts = row(page, name).locator(".scale .end, .value");
    return (await texts.allInnerTexts()).join("|");
  };
  await row(page, "sample_rate").waitFor();
  assert.equal(await shown("sample_rate"), "0|50k|44100.0");
  assert.equal(await shown("large"), "0|5e38|3.000e+38");
  assert.equal(await shown("tiny"), "0|1e-30|1.000e-30");
  assert.equal(await shown("just_below"), "−60|0|0.0");
  const isCut = (label) => label.scrollWidth > label.clientWidth;
  for (const label of await row(page, "large").locator(".scale .end").all()) {
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

// ---- Levels -------------------------------------------------------------------------------------

const apply = (page) => page.getByRole("button", { name: "Apply" }).click();

// Opens the settings of a meter and fills in fields, by the ends of their ids.
async function setMeter(page, name, fields) {
  await row(page, name).focus();
  await page.keyboard.press("Enter");
  for (const [field, value] of Object.entries(fields)) {
    const control = page.locator(`#range-${field}`);
    if (field === "scale") await control.selectOption(value);
    else await control.fill(value);
  }
}

const bigRule = "-60..6 db fall:20 warn:-18 bad:-6 clip:-50 for out_*";

pageTest("KeepsMeterSettingsForAPatternInTheAddressAndInAFile", async (page) => {
  await setMeter(page, "out_left", {
    low: "-60", high: "6", scale: "db", fall: "20", warn: "-18", bad: "-6", clip: "-50",
    pattern: "out_*",
  });
  await apply(page);
  for (const name of ["out_left", "out_right"]) {
    await row(page, name).locator(".zones").waitFor();
    await waitForText(row(page, name).locator(".scale .end").last(), /^6$/);
  }
  assert.equal(await row(page, "out_gain").locator(".slide .chosen").count(), 0);
  await page.waitForFunction(
    (rule) => new URLSearchParams(location.hash.slice(1)).get("meter") === rule,
    bigRule,
  );
  await page.reload();
  await row(page, "out_right").locator(".zones").waitFor();

  await setMeter(page, "out_left", {});
  const [download] = await Promise.all([
    page.waitForEvent("download"),
    page.getByRole("button", { name: "Export" }).click(),
  ]);
  const file = await download.path();
  assert.equal(readFileSync(file, "utf8"), `${bigRule}\n`);
  await page.getByRole("button", { name: "Fit to values" }).click();
  await row(page, "out_right").locator(".zones").waitFor({ state: "detached" });

  await setMeter(page, "out_left", {});
  const importing = page.locator("#range-import");
  const wrong = { name: "a.txt", mimeType: "text/plain", buffer: Buffer.from("6..6 db for a\n") };
  await importing.setInputFiles(wrong);
  await page.getByText("Not a rule: “6..6 db for a”.").waitFor();
  await importing.setInputFiles(file);
  await row(page, "out_right").locator(".zones").waitFor();
  await page.evaluate(() => localStorage.clear());
});

pageTest("PrefersAnEditedAddressToItsOwnLateChanges", async (page) => {
  await page.evaluate(async () => {
    const { address } = await import("/address.js");
    const { setTimeout } = window;
    const due = [];
    // An earlier change of the page's own may still wait: then this one is written with it.
    while (due.length === 0) {
      await new Promise(requestAnimationFrame);
      window.setTimeout = (use) => due.push(use);
      address.set("q", "own");
      window.setTimeout = setTimeout;
    }
    location.hash = "#q=edited";
    // The page's own change is due before the browser reports the edit.
    due.forEach((use) => use());
  });
  await page.waitForFunction(() => document.getElementById("filter").value === "edited");
  assert.match(page.url(), /#q=edited$/);
});

pageTest("KeepsTheMaximumAndTheClipUntilReset", async (page) => {
  await page.evaluate(() => (location.hash = "#meter=-60..0 linear clip:-59 for out_left"));
  const maximum = row(page, "out_left").locator(".max button");
  await maximum.and(page.locator(".clipped")).waitFor();
  await page.waitForFunction(() => {
    const number = (part) =>
      Number(
        document.querySelector(`[data-name="out_left"] ${part}`).textContent.replace("−", "-"),
      );
    return number(".max button") > number(".value") + 10;
  });
  const since = await maximum.getAttribute("title");
  assert.match(since, /^Clipped\. Highest sample since \d\d:\d\d:\d\d\. Click to reset\.$/);
  const highest = await maximum.textContent();
  await row(page, "out_left").focus();
  await page.keyboard.press("r");
  assert.notEqual(await maximum.textContent(), highest);
});

pageTest("PlacesLevelsOnTheUsualNonLinearScale", async (page) => {
  const places = await page.evaluate(async () => {
    const { placeOn } = await import("/rules.js");
    const levels = [-70, -60, -50, -40, -30, -20, -10, 0, 5];
    return levels.map((level) => placeOn("db", [-70, 0], level).toFixed(3));
  });
  assert.deepEqual(places, [
    "0.000", "0.025", "0.075", "0.150", "0.300", "0.500", "0.750", "1.000", "1.000",
  ]);
});

pageTest("LetsABarFallAtTheChosenRate", async (page) => {
  await page.evaluate(() => (location.hash = "#meter=-60..0 linear fall:1 for out_left"));
  // The signal falls faster than the bar may.
  await page.waitForFunction(() => {
    const part = (name) => document.querySelector(`[data-name="out_left"] ${name}`);
    const value = Number(part(".value").textContent.replace("−", "-"));
    const shown = Number(/scaleX\((.*)\)/.exec(part(".fill").style.transform)[1]) * 60 - 60;
    return shown > value + 20;
  });
});

// ---- Hands and eyes -----------------------------------------------------------------------------

const focused = (page) => page.evaluate(() => document.activeElement.closest(".row")?.dataset.name);

pageTest("ListsTheKeysOnAQuestionMark", async (page) => {
  await row(page, "frames").waitFor();
  await page.keyboard.press("?");
  await page.locator("#help-dialog").getByText("go to the filter").waitFor();
  await page.keyboard.press("Escape");
  await page.locator("#help-dialog").waitFor({ state: "hidden" });
  await page.locator("#filter").fill("");
  await page.locator("#filter").press("?");
  assert.equal(await page.locator("#filter").inputValue(), "?");
});

pageTest("ShowsATooltipOnlyWhereATextIsCut", async (page) => {
  await page.setViewportSize({ width: 360, height: 1000 });
  const name = row(page, "out_left").locator(".name");
  await name.hover();
  assert.equal(await name.getAttribute("title"), "");
  await name.evaluate((element) => (element.style.width = "20px"));
  await page.mouse.move(0, 0);
  await name.hover();
  assert.equal(await name.getAttribute("title"), "out_left");
});

pageTest("AsksBeforeItSendsWhatIsNoLevel", async (page) => {
  const field = row(page, "out_gain").locator(".value input");
  await field.fill("NaN");
  await field.press("Enter");
  await page.getByText("NaN is not a level. Send it as out_gain all the same?").waitFor();
  await page.getByRole("button", { name: "Cancel" }).click();
  await page.waitForFunction(
    (input) => input.value === "0",
    await field.elementHandle(),
  );
  await field.fill("-inf");
  await field.press("Enter");
  await page.getByRole("button", { name: "Send -inf" }).click();
  await page.locator("#sent").getByText("out_gain −inf").waitFor();
  assert.equal(await page.locator("#sent").getByText("out_gain nan").count(), 0);
});

pageTest("SaysThatALongTextIsCut", async (page) => {
  const field = row(page, "preset").locator(".value input");
  const outcome = row(page, "preset").locator(".outcome");
  await field.fill("é".repeat(50));
  await waitForText(outcome, "only 99 bytes of this will be sent");
  await field.press("Enter");
  await waitForText(outcome, /^#\d+ answered, 99 bytes of it$/);
  await field.fill("é".repeat(49));
  await field.press("Enter");
  await waitForText(outcome, /^#\d+ answered$/);
});

for (const scheme of ["dark", "light"]) {
  pageTest(`HasNoAccessibilityViolation/${scheme}`, async (page) => {
    await page.emulateMedia({ colorScheme: scheme });
    await waitForChanges(row(page, "out_left").locator(".value"), 2);
    await row(page, "frames").getByRole("button", { name: "Pin frames" }).click();
    assert.deepEqual(await violations(page), []);
    await page.keyboard.press("?");
    assert.deepEqual(await violations(page), []);
    await page.keyboard.press("Escape");
    await row(page, "out_left").focus();
    await page.keyboard.press("Enter");
    await page.locator("#range-dialog").waitFor({ state: "visible" });
    assert.deepEqual(await violations(page), []);
  });
}

test("KeepsFocusAndTabOrderAmongManyRows", { timeout: 2 * patience }, async () => {
  const names = Array.from({ length: 300 }, (_, i) => `p${String(i).padStart(3, "0")}`);
  const many = await Rig.start({
    simulator,
    configuration: (meters, engine) =>
      `[Meters]\nTarget=${meters}\n[Engine]\nTarget=${engine}\n[EngineFloat]\n` +
      names.map((name) => `Param=Key=${name} CustomKey=${name}\n`).join(""),
  });
  try {
    const page = await openPage(shared.browser.context, many.url);
    await row(page, "p000").focus();
    for (let i = 0; i < 4; ++i) await page.keyboard.press("PageDown");
    assert.equal(await focused(page), "p060");
    for (let i = 0; i < 4; ++i) await page.keyboard.press("ArrowUp");
    assert.equal(await focused(page), "p056");
    // Rows above have been added since. Past the controls of its row, Tab goes to the next row.
    const visited = [];
    while (visited.at(-1) !== "p058") {
      await page.keyboard.press("Tab");
      visited.push(await focused(page));
    }
    assert.deepEqual([...new Set(visited)], ["p056", "p057", "p058"]);
    await page.locator("#pane").evaluate((pane) => (pane.scrollTop = 0));
    await row(page, "p000").waitFor({ state: "visible" });
    assert.equal(await focused(page), "p058");
    await page.locator("#sort").evaluate((select) => {
      select.value = "-name";
      select.dispatchEvent(new Event("change"));
    });
    await row(page, "p299").waitFor({ state: "visible" });
    assert.equal(await focused(page), "p058");
    await row(page, "p299").focus();
    await page.keyboard.press("ArrowDown");
    assert.equal(await focused(page), "p298");
    await page.close();
  } finally {
    await many.stop();
  }
});

// ---- Pause and export ---------------------------------------------------------------------------

pageTest("HoldsTheValuesDuringAPauseAndShowsTheLatestAfter", async (page) => {
  await waitForChanges(row(page, "out_left").locator(".value"), 3);
  await row(page, "out_left").focus();
  await page.keyboard.press("Space");
  await page.waitForFunction(() => document.title === "paused · gateway");
  const rows = () => page.locator(".row:is([data-set=fast]) :is(.value, .age)").allInnerTexts();
  const held = await rows();
  await waitForChanges(page.locator("#changes"), 4);
  await page.locator("#sets").getByRole("button", { name: "Fast" }).click();
  assert.deepEqual(await rows(), held);
  await page.getByRole("button", { name: "Resume values" }).click();
  await waitForChanges(row(page, "out_left").locator(".value"), 3);
  assert.equal(await page.title(), "gateway");
});

pageTest("ExportsTheSlotsShownAsCsv", async (page) => {
  const preset = row(page, "preset").locator(".value input");
  await preset.fill('a "b", c');
  await preset.press("Enter");
  await waitForText(row(page, "preset").locator(".changes"), /^[1-9]/);
  await page.locator("#filter").fill("re");
  await waitForNames(page, ["preset"]);
  const [saved] = await Promise.all([
    page.waitForEvent("download"),
    page.getByRole("button", { name: "CSV" }).click(),
  ]);
  assert.match(saved.suggestedFilename(), /^slots-\d{4}-\d\d-\d\dT[\d-]+Z\.csv$/);
  const [header, line, end] = readFileSync(await saved.path(), "utf8").split("\r\n");
  assert.equal(header, "time,set,name,key,type,value,maximum,state,age_seconds,changes");
  assert.match(
    line,
    /^[-\d]+T[:.\d]+Z,engine,preset,preset,string,"a ""b"", c",,parameter,\d+\.\d{3},\d+$/,
  );
  assert.equal(end, "");
});

// ---- Many tabs ----------------------------------------------------------------------------------

// A browser opens at most six connections to one address.
ownRigTest("KeepsEightTabsLiveOverOneStream", async (page, own) => {
  const change = row(page, "out_gain").locator(".value input");
  await change.fill("-3");
  await change.press("Enter");
  await page.locator("#sent").getByText("out_gain −3").waitFor();
  const pages = [page];
  while (pages.length < 8) pages.push(await openPage(shared.browser.context, own.url));
  for (const each of pages) {
    await waitForChanges(row(each, "out_left").locator(".value"), 2);
    await each.locator("#sent").getByText("out_gain −3#1 answered").waitFor();
    await waitForText(row(each, "out_gain").locator(".changes"), /^1$/);
    assert.equal(await row(each, "out_gain").locator(".value input").inputValue(), "-3");
    await each.locator("#log li", { hasText: "startCycle(gateway" }).waitFor();
  }
  const [last] = pages.splice(7);
  for (const each of pages.slice(1)) await each.close();
  await waitForChanges(row(last, "out_left").locator(".value"), 2);
  await last.close();
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
  await page.waitForFunction(() => document.title.endsWith("3 stale · gateway"));
});
