// Measures the live page with many slots, as a line of JSON: node measure.js SLOTS MOVING SECONDS.
// scripts/bench runs it. It first only watches the page, for SECONDS, and then uses it.
import { readdirSync, readFileSync } from "node:fs";
import { openPage, Rig, row, startBrowser, waitForChanges, waitForNames } from "./tools.js";

const [slots, moving, seconds] = process.argv.slice(2).map(Number);
const warmup = 5000; // milliseconds, until compilers and caches have settled
const names = Array.from({ length: slots }, (_, i) => `bank.${i}`);

// ---- Processes ----------------------------------------------------------------------------------

const statOf = (pid) => {
  const text = readFileSync(`/proc/${pid}/stat`, "utf8");
  return text.slice(text.lastIndexOf(")") + 2).split(" ");
};

// All descendants of a process.
function descendants(ancestor) {
  const parents = new Map();
  for (const name of readdirSync("/proc")) {
    try {
      if (/^\d+$/.test(name)) parents.set(Number(name), Number(statOf(name)[1]));
    } catch {
      continue; // it has ended
    }
  }
  const isBelow = (pid) => pid === ancestor || (parents.has(pid) && isBelow(parents.get(pid)));
  return [...parents.keys()].filter((pid) => pid !== ancestor && isBelow(pid));
}

// Seconds of processor time.
const cpuOf = (pids) =>
  pids.reduce((sum, pid) => {
    const [user, system] = statOf(pid).slice(11, 13).map(Number);
    return sum + (user + system) / 100; // the kernel's clock ticks
  }, 0);

// In bytes; memory that processes share counts once.
const memoryOf = (pids) =>
  pids.reduce((sum, pid) => {
    const text = readFileSync(`/proc/${pid}/smaps_rollup`, "utf8");
    return sum + Number(/^Pss: +(\d+) kB$/m.exec(text)[1]) * 1024;
  }, 0);

// ---- The page -----------------------------------------------------------------------------------

// Runs in the page: counts frames, and collects tasks over 50 ms.
function watchFrames() {
  window.measured = { frames: 0, tasks: [] };
  const observer = new PerformanceObserver((list) => {
    for (const { duration } of list.getEntries()) window.measured.tasks.push(duration / 1000);
  });
  observer.observe({ entryTypes: ["longtask"] });
  const count = () => {
    ++window.measured.frames;
    requestAnimationFrame(count);
  };
  count();
}

// What was measured since the last call.
const take = (page) =>
  page.evaluate(() => {
    const { frames, tasks } = window.measured;
    window.measured = { frames: 0, tasks: [] };
    return { frames, tasks };
  });

const pass = (page, milliseconds) =>
  page.evaluate((time) => new Promise((resolve) => setTimeout(resolve, time)), milliseconds);

async function changesOf(rig) {
  return (await (await fetch(`${rig.url}api/status`)).json()).changes;
}

async function watch(page, rig) {
  const host = [rig.host.child.pid];
  const tools = [...host, rig.simulator.child.pid];
  const browser = descendants(process.pid).filter((pid) => !tools.includes(pid));
  await take(page);
  const [begin, changes] = [performance.now(), await changesOf(rig)];
  const [browserCpu, hostCpu] = [browser, host].map(cpuOf);
  await pass(page, seconds * 1000);
  const { frames, tasks } = await take(page);
  const elapsed = (performance.now() - begin) / 1000;
  return {
    changes: ((await changesOf(rig)) - changes) / elapsed,
    frames: frames / elapsed,
    longest: Math.max(0, ...tasks),
    long: tasks.length,
    browserCpu: (cpuOf(browser) - browserCpu) / elapsed,
    hostCpu: (cpuOf(host) - hostCpu) / elapsed,
    browserMemory: memoryOf(browser),
    hostMemory: memoryOf(host),
  };
}

// Scrolls, finds a slot by its name, and opens the large view of its history.
async function use(page) {
  await take(page);
  await page.mouse.move(500, 500);
  for (let i = 0; i < 10; ++i) {
    const top = await page.locator("#pane").evaluate((pane) => pane.scrollTop);
    await page.mouse.wheel(0, 600);
    await page.waitForFunction((t) => document.getElementById("pane").scrollTop > t, top);
  }
  const last = `gateway_float_${slots - 1}`;
  await page.locator("#filter").fill(names.at(-1));
  await waitForNames(page, [last]);
  await page.locator("#filter").fill("");
  await row(page, "gateway_float_0").waitFor({ state: "attached" });
  const answered = page.waitForResponse(/api\/history.*seconds=600/);
  await row(page, "gateway_float_0").getByRole("button", { name: "history" }).click();
  await (await answered).finished();
  await pass(page, 2000);
  const { tasks } = await take(page);
  return { longestInUse: Math.max(0, ...tasks) };
}

const [browser, rig] = await Promise.all([
  startBrowser(),
  Rig.start({
    simulator: [
      "--rate-fast", "25",
      "--keys", ...names.slice(0, moving).map((name) => `fast:float:${name}`),
    ],
    configuration: (meters) =>
      `[Meters]\nTarget=${meters}\n[MetersFloat]\n` +
      names.map((name) => `Meter=Key=${name}\n`).join(""),
  }),
]);
try {
  const page = await openPage(browser.context, rig.url, { script: watchFrames });
  await waitForChanges(row(page, "gateway_float_0").locator(".value"), 1);
  await pass(page, warmup);
  const watched = await watch(page, rig);
  console.log(JSON.stringify({ slots, moving, seconds, ...watched, ...(await use(page)) }));
} finally {
  await browser.close();
  await rig.stop();
}
