// How the live page shows the past: the lines in rows, and the large view of a slot with its
// axes, pointer, zoom and export. Parameters serve as slots whose values the tests choose.
import assert from "node:assert/strict";
import { readFileSync } from "node:fs";
import {
  row, shareRig, shoot, violations, waitForChanges, waitForText,
} from "./tools.js";

const simulator = ["--keys", "fast:float:out.l", "fast:uint:frames", "slow:string:state"];

const configuration = (meters, engine) => `
[Meters]
Target=${meters}
[MetersFloat]
Meter=Key=out.l CustomKey=out_left
Meter=Key=quiet CustomKey=quiet
[MetersUint]
Meter=Key=frames CustomKey=frames
[MetersString]
Meter=Key=state CustomKey=state Type=slow
[Engine]
Target=${engine}
[EngineFloat]
Param=Key=out.gain CustomKey=out_gain
[EngineInt]
Param=Key=delay CustomKey=delay
`;

const shared = shareRig({ simulator, configuration });
const { ownRigTest } = shared;
const pageTest = (name, use, options = {}) => shared.test(name, options, use);

// The host reads the slots 20 times a second, and keeps one point for each 50 ms.
const nextPoint = 0.1; // seconds

// Waits until a slot holds a value, and a change would be a later point of its history.
async function waitForPoint(rig, name, value) {
  const slot = async () => {
    const { slots } = await (await fetch(`${rig.url}api/slots`)).json();
    return slots.find((each) => each.name === name);
  };
  let seen;
  do seen = await slot(); while (seen.value !== value);
  const { age } = seen;
  do seen = await slot(); while (seen.age < age + nextPoint);
}

// Makes the host set a parameter, and waits until the page shows it and the history has it.
async function set(page, rig, name, value) {
  rig.host.child.stdin.write(`set ${name} ${value}\n`);
  const text = `${name} ${String(value).replace("-", "−")}`;
  await page.locator("#sent .what").getByText(text, { exact: true }).first().waitFor();
  await waitForPoint(rig, name, value);
}

const reading = (page) => page.locator("#history-reading");
const view = (page) => page.locator("#history-dialog");
const showAll = (page) => page.getByRole("button", { name: "Show all" });

async function openView(page, name) {
  await row(page, name).focus();
  await page.keyboard.press("h");
  await view(page).locator('#plot[aria-busy="false"]').waitFor();
}

// The points shown, read from the exported file: arrays of time, value, lowest and highest.
async function exported(page) {
  const [saved] = await Promise.all([
    page.waitForEvent("download"),
    view(page).getByRole("button", { name: "CSV" }).click(),
  ]);
  const [header, ...lines] = readFileSync(await saved.path(), "utf8").trim().split("\r\n");
  assert.equal(header, "time,value,lowest,highest");
  return lines.map((line) => line.split(","));
}

// The values shown one after another, without repetitions.
const valuesOf = (points) =>
  points.map(([, value]) => value).filter((value, i, all) => value !== all[i - 1]);

const spanOf = (points) => (Date.parse(points.at(-1)[0]) - Date.parse(points[0][0])) / 1000;

// ---- What is kept -------------------------------------------------------------------------------

pageTest("KeepsTheLineInARowThroughAReload", async (page) => {
  await waitForChanges(row(page, "out_left").locator(".value"), 30);
  await page.reload();
  await row(page, "out_left").locator("canvas").waitFor();
  // The line begins before the page was opened.
  await page.waitForFunction(() => {
    const canvas = document.querySelector('[data-name="out_left"] canvas');
    const { width, height } = canvas;
    const { data } = canvas.getContext("2d").getImageData(0, 0, width, height);
    const drawn = [...data.keys()].filter((i) => i % 4 === 3 && data[i] > 0);
    const first = Math.min(...drawn.map((i) => ((i - 3) / 4) % width));
    return 30000 * (1 - first / width) > performance.now() + 1000;
  });
});

pageTest("KeepsTheValuesOfAnIntegerThroughAReload", async (page) => {
  for (const value of [2147483646, -2147483648, 5]) await set(page, shared.rig, "delay", value);
  await page.reload();
  await row(page, "delay").waitFor();
  await openView(page, "delay");
  assert.deepEqual(valuesOf(await exported(page)).slice(-3), ["2147483646", "-2147483648", "5"]);
});

pageTest("ShowsTheValuesOfAPauseWhenItEnds", async (page) => {
  await set(page, shared.rig, "out_gain", -1);
  await row(page, "out_left").focus();
  await page.keyboard.press("Space");
  await waitForPoint(shared.rig, "out_gain", -1);
  for (const value of [-2, -3]) await set(page, shared.rig, "out_gain", value);
  await openView(page, "out_gain");
  assert.equal(valuesOf(await exported(page)).at(-1), "-1");
  await page.keyboard.press("Escape");
  await page.getByRole("button", { name: "Resume values" }).click();
  await openView(page, "out_gain");
  assert.deepEqual(valuesOf(await exported(page)).slice(-3), ["-1", "-2", "-3"]);
});

ownRigTest("LeavesAGapWhereTheHostDidNotSample", async (page, own) => {
  await waitForChanges(row(page, "out_left").locator(".value"), 3);
  own.host.child.kill("SIGSTOP");
  await page.locator('#connection[data-state="lost"]').waitFor();
  own.host.child.kill("SIGCONT");
  await page.locator('#connection[data-state="live"]').waitFor();
  await waitForChanges(row(page, "out_left").locator(".value"), 3);
  await openView(page, "out_left");
  const points = await exported(page);
  const gap = points.findIndex(([, value]) => value === "");
  assert.ok(gap > 0);
  const seconds = (Date.parse(points[gap + 1][0]) - Date.parse(points[gap][0])) / 1000;
  assert.ok(seconds > 1, `the gap lasts ${seconds} s`);
});

ownRigTest("ShowsWhatThePageHasSeenAfterTheEnd", async (page, own) => {
  for (const value of [-6, -12]) await set(page, own, "out_gain", value);
  await waitForChanges(row(page, "out_left").locator(".value"), 20);
  own.host.child.stdin.write("quit\n");
  await page.locator('#connection[data-state="stopped"]').waitFor();
  await row(page, "out_left").focus();
  await page.keyboard.press("h");
  await view(page).getByText("gatewayctl does not answer").waitFor();
  const picture = () => page.locator("#plot canvas").evaluate((canvas) => canvas.toDataURL());
  const [before, points] = [await picture(), await exported(page)];
  assert.ok(valuesOf(points).length > 10);
  // There is no event to wait for: a history that kept running would change in this time.
  await page.evaluate(() => new Promise((resolve) => setTimeout(resolve, 1500)));
  assert.equal(await picture(), before);
  assert.deepEqual(await exported(page), points);
  await page.locator("#plot").press("ArrowLeft");
  await waitForText(reading(page), /: −?\d+\.\d$/);
});

// ---- The large view -----------------------------------------------------------------------------

// Sets two values, each for a second or more, and shows them in a paused view.
async function openStill(page, rig) {
  for (const value of [-6, -12]) {
    await set(page, rig, "out_gain", value);
    await waitForChanges(row(page, "out_left").locator(".value"), 10);
  }
  await row(page, "out_left").focus();
  await page.keyboard.press("Space");
  await openView(page, "out_gain");
}

// The place of a time on the screen. At first, the view shows half a minute or more.
async function placeOf(page, time) {
  const points = await exported(page);
  const [begin, end] = [points[0], points.at(-1)].map((point) => Date.parse(point[0]));
  const first = Math.min(begin, end - 30000);
  const box = await page.locator("#plot .u-over").boundingBox();
  return { x: box.x + (box.width * (time - first)) / (end - first), y: box.y + 40 };
}

// The middle of the longest time for which a value was held.
function middleOf(points, wanted) {
  const times = points.map(([time]) => Date.parse(time));
  const held = points.slice(1).map((_, i) => [times[i], times[i + 1]])
    .filter((_, i) => points[i][1] === wanted);
  const [from, to] = held.reduce((one, other) =>
    other[1] - other[0] > one[1] - one[0] ? other : one);
  return (from + to) / 2;
}

ownRigTest("ReadsTheValueAtThePointer", async (page, own) => {
  await openStill(page, own);
  const points = await exported(page);
  const times = points.map(([time]) => Date.parse(time));
  for (const [time, text] of [
    [middleOf(points, "-6"), /: −6\.0$/],
    [middleOf(points, "-12"), /: −12\.0$/],
    [times[0] - 1000, /: not known$/],
  ]) {
    const { x, y } = await placeOf(page, time);
    await page.mouse.move(x, y);
    await waitForText(reading(page), text);
  }
  await page.mouse.move(5, 5);
  await page.waitForFunction(() => document.getElementById("history-reading").value === "");
});

ownRigTest("ZoomsToTheDraggedPartUntilADoubleClick", async (page, own) => {
  await openStill(page, own);
  assert.ok(await showAll(page).isDisabled());
  const whole = await exported(page);
  const middle = Date.parse(whole[0][0]) + (spanOf(whole) * 1000) / 2;
  const from = await placeOf(page, middle - 500);
  const to = await placeOf(page, middle + 500);
  await page.mouse.move(from.x, from.y);
  await page.mouse.down();
  await page.mouse.move(to.x, to.y, { steps: 5 });
  await page.mouse.up();
  await page.waitForFunction(() => !document.getElementById("history-all").disabled);
  const part = spanOf(await exported(page));
  assert.ok(part > 0.8 && part < 1.2, `the part has ${part} s`);
  await page.mouse.dblclick(from.x, from.y);
  await page.waitForFunction(() => document.getElementById("history-all").disabled);
  assert.deepEqual(await exported(page), whole);
});

ownRigTest("ReadsAndZoomsByKeyboard", async (page, own) => {
  await openStill(page, own);
  const plot = page.locator("#plot");
  assert.ok(await plot.evaluate((element) => element === document.activeElement));
  await plot.press("ArrowLeft");
  await waitForText(reading(page), /: −12\.0$/);
  for (let i = 0; i < 100 && !/−6\.0$/.test(await reading(page).textContent()); ++i) {
    await plot.press("ArrowLeft");
  }
  await waitForText(reading(page), /: −6\.0$/);
  const whole = await exported(page);
  for (let i = 0; i < 5; ++i) await plot.press("+");
  const part = spanOf(await exported(page));
  assert.ok(part < 1.1);
  await waitForText(reading(page), /: −6\.0$/);
  await plot.press("-");
  const larger = spanOf(await exported(page));
  assert.ok(larger > part && larger < 2.2, `${part} s became ${larger} s`);
  await plot.press("0");
  assert.deepEqual(await exported(page), whole);
  await plot.press("Shift+ArrowLeft");
  await page.keyboard.press("Escape");
  await view(page).waitFor({ state: "hidden" });
  await page.waitForFunction(() => document.activeElement.dataset.name === "out_gain");
});

pageTest("OpensTheViewByItsLineAndKeepsItInTheAddress", async (page) => {
  await row(page, "frames").getByRole("button", { name: "frames: history" }).click();
  await page.waitForFunction(() => location.hash.includes("view=fast/frames"));
  await page.reload();
  await view(page).getByText("History of frames").waitFor();
  await page.evaluate(() => (location.hash = "#view=fast/quiet"));
  await view(page).getByText("History of quiet").waitFor();
  await view(page).getByText("it has not changed since the start").waitFor();
  await view(page).getByRole("button", { name: "Close" }).click();
  await page.waitForFunction(() => !location.hash.includes("view"));
  await row(page, "state").focus();
  await page.keyboard.press("h");
  assert.ok(await view(page).isHidden());
});

pageTest("KeepsUpdatingWhileTheViewIsOpen", async (page) => {
  await openView(page, "out_gain");
  for (const value of [-21, -22]) await set(page, shared.rig, "out_gain", value);
  await page.waitForFunction(
    () => document.querySelector('.row[data-name="out_gain"] .value input').value === "-22");
  assert.deepEqual(valuesOf(await exported(page)).slice(-2), ["-21", "-22"]);
});

for (const scheme of ["dark", "light"]) {
  pageTest(
    `HasNoAccessibilityViolationInTheView/${scheme}`,
    async (page) => {
      await waitForChanges(row(page, "out_left").locator(".value"), 30);
      await openView(page, "out_left");
      await page.locator("#plot").press("ArrowLeft");
      await waitForText(reading(page), /\d$/);
      assert.deepEqual(await violations(page), []);
      await shoot(page, `history-${scheme}`);
    },
    { scheme },
  );
}

pageTest("FitsEveryWidth", async (page) => {
  await openView(page, "out_left");
  for (const width of [360, 640, 1440]) {
    await page.setViewportSize({ width, height: 800 });
    await page.waitForFunction(() => {
      const [dialog, canvas] = [document.getElementById("history-dialog"),
        document.querySelector("#plot canvas")];
      const [outer, inner] = [dialog, canvas].map((each) => each.getBoundingClientRect());
      const fits = dialog.scrollWidth <= dialog.clientWidth && outer.right <= innerWidth;
      return fits && inner.right <= outer.right && inner.width > outer.width * 0.85;
    });
  }
});

// ---- Parts --------------------------------------------------------------------------------------

pageTest("DrawsTheLineInARowOnTheScaleOfItsBar", async (page) => {
  const places = await page.evaluate(async () => {
    const { Slot } = await import("/slot.js");
    const description = { set: "fast", type: "float", name: "a", key: "", value: -20, age: 0 };
    const slot = new Slot({ ...description, moved: true, changes: 1 }, 0, 200, 0);
    const linear = slot.placeInHistory(-20);
    slot.follow({ low: -70, high: 0, scale: "db" });
    return [linear, slot.placeInHistory(-20)].map((place) => place.toFixed(3));
  });
  assert.deepEqual(places, ["0.667", "0.500"]);
});

pageTest("FillsInOnlyWhatThePageDoesNotKnow", async (page) => {
  const points = await page.evaluate(async () => {
    const { History } = await import("/history.js");
    const history = new History(0, 1000, true);
    history.add(5, 0);
    history.skipTo(3000);
    history.add(6, 4000);
    const gaps = [[-2500, -1500]];
    history.fill({ times: [-4000, -1000, 1000, 4000], last: [1, 2, 3, 9], gaps });
    const found = [];
    history.forEach((value) => found.push(value), 10000);
    return found.map((value) => (Number.isNaN(value) ? null : value));
  });
  assert.deepEqual(points, [null, 1, 1, null, 2, 5, 3, 3, 3, 6]);
});

pageTest("EndsExtremesWithTheirPeriodAndLeavesGapsUnknown", async (page) => {
  const points = await page.evaluate(async () => {
    const { Trace } = await import("/trace.js");
    const trace = Trace.fromPast({
      times: [0, 100, 1000], last: [1, 2, 3], low: [0, 2, 3], high: [9, 2, 3],
      period: 50, gaps: [[500, 1200]], askedAt: 2000,
    });
    return trace.part(25, 2000).times.map((time, i) => {
      const part = trace.part(25, 2000);
      return [time, part.last[i], part.low[i], part.high[i]];
    });
  });
  assert.deepEqual(points, [
    [25, 1, 0, 9], [50, 1, 1, 1], [100, 2, 2, 2], [500, null, null, null], [1200, 3, 3, 3],
    [2000, 3, 3, 3],
  ]);
});

pageTest("KeepsPointsInOrderThatFollowAnUnfinishedPeriod", async (page) => {
  const times = await page.evaluate(async () => {
    const { Trace } = await import("/trace.js");
    const live = new Trace();
    live.add(1005, 1);
    live.add(1020, 2);
    const trace = Trace.fromPast({
      times: [1000], last: [1], low: [0], high: [9], period: 50, gaps: [], askedAt: 1010,
    });
    trace.addAfter(1010, live);
    return trace.times;
  });
  assert.deepEqual(times, [1000, 1010, 1020]);
});

pageTest("MarksRoundValuesOnTheAxis", async (page) => {
  const marks = await page.evaluate(async () => {
    const { marksOn } = await import("/rules.js");
    return [
      marksOn("linear", [-60, 0]), marksOn("linear", [0, 1]), marksOn("linear", [2, 3e38]),
      marksOn("db", [-60, 6]),
    ];
  });
  assert.deepEqual(marks, [
    [-60, -50, -40, -30, -20, -10, 0], [0, 0.2, 0.4, 0.6, 0.8, 1],
    [0, 5e37, 1e38, 1.5e38, 2e38, 2.5e38, 3e38],
    [-60, -50, -40, -30, -20, -15, -10, -5, 0, 5],
  ]);
});
