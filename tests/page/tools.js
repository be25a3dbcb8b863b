// What the live page is driven with: the built programs as child processes, their folders, and a
// browser. Everything waits for events; `patience` only keeps a broken run from hanging.
import assert from "node:assert/strict";
import { spawn } from "node:child_process";
import { once } from "node:events";
import { mkdtempSync, mkdirSync, readFileSync, rmSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { createInterface } from "node:readline";
import { after, before, test } from "node:test";
import { chromium } from "playwright-core";

export const patience = Number(process.env.PATIENCE ?? 60000);

const need = (name) => {
  if (!process.env[name]) throw new Error(`the environment has no ${name}`);
  return process.env[name];
};

const tool = need("GATEWAYCTL");

// A gatewayctl process.
export class Tool {
  #lines = [];
  #waiting = new Set();
  #errors = "";
  #ended = null;

  constructor(words, folder) {
    this.child = spawn(tool, words, { cwd: folder, stdio: ["pipe", "pipe", "pipe"] });
    this.child.stderr.on("data", (text) => (this.#errors += text));
    createInterface({ input: this.child.stdout }).on("line", (line) => {
      this.#lines.push(line);
      for (const check of this.#waiting) check();
    });
    this.exit = once(this.child, "close").then(([code]) => {
      this.#ended = code;
      for (const check of this.#waiting) check();
      return code;
    });
  }

  // The first line of standard output with this prefix, once there is one.
  line(prefix) {
    return new Promise((resolve, reject) => {
      const finish = (use, result) => {
        clearTimeout(timer);
        this.#waiting.delete(check);
        use(result);
      };
      const fail = (reason) =>
        finish(
          reject,
          new Error(`${reason}: no "${prefix}" in\n${this.#lines.join("\n")}\n${this.#errors}`),
        );
      const check = () => {
        const found = this.#lines.find((line) => line.startsWith(prefix));
        if (found !== undefined) finish(resolve, found);
        else if (this.#ended !== null) fail("ended");
      };
      const timer = setTimeout(() => fail("timed out"), patience);
      this.#waiting.add(check);
      check();
    });
  }

  // The lines of standard output so far.
  get lines() {
    return this.#lines;
  }

  // Interrupts it as Ctrl-C would; returns the exit code.
  async stop() {
    if (this.#ended === null) this.child.kill("SIGINT");
    return this.exit;
  }

  // Processor time so far, in milliseconds.
  async cpu() {
    const { readFile } = await import("node:fs/promises");
    const text = await readFile(`/proc/${this.child.pid}/stat`, "utf8");
    const fields = text.slice(text.lastIndexOf(")") + 2).split(" ");
    const tick = 10; // milliseconds in one of the kernel's clock ticks
    return (Number(fields[11]) + Number(fields[12])) * tick;
  }
}

// A simulator and a host. `simulator` and `host` are further options of theirs; `configuration`
// makes the host's file, named `file`, of the simulator's two targets.
export class Rig {
  static async start({ configuration, simulator, host = [], file = "page.conf" }) {
    const rig = new Rig();
    rig.folder = mkdtempSync(join(tmpdir(), "gateway-page-"));
    const anyPort = "127.0.0.1:0";
    rig.simulator = new Tool(["sim", "--meters", anyPort, "--engine", anyPort, ...simulator]);
    const meters = (await rig.simulator.line("meters ")).slice(7);
    const engine = (await rig.simulator.line("engine ")).slice(7);
    rig.file = file;
    rig.options = host;
    rig.targets = { meters, engine };
    rig.write(configuration);
    await rig.startHost(anyPort);
    return rig;
  }

  write(configuration) {
    const { meters, engine } = this.targets;
    writeFileSync(join(this.folder, this.file), configuration(meters, engine));
  }

  async startHost(address) {
    this.host = new Tool(["host", this.file, "--page", address, ...this.options], this.folder);
    this.url = (await this.host.line("page ")).slice(5);
    this.address = new URL(this.url).host;
  }

  async stop() {
    await this.host.stop();
    await this.simulator.stop();
    rmSync(this.folder, { recursive: true });
  }
}

export async function startBrowser() {
  const folder = mkdtempSync(join(tmpdir(), "gateway-browser-"));
  const context = await chromium.launchPersistentContext(folder, {
    executablePath: process.env.CHROMIUM ?? "/usr/bin/chromium",
    headless: true,
    viewport: { width: 1440, height: 900 },
    args: [
      "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
      "--disable-background-networking", "--disable-component-update", "--disable-sync",
    ],
  });
  context.setDefaultTimeout(patience);
  return {
    context,
    close: async () => {
      await context.close();
      rmSync(folder, { recursive: true, force: true });
    },
  };
}

// A page that collects its errors and breaches of its Content-Security-Policy in `problems`.
export async function openPage(context, url, options = {}) {
  const page = await context.newPage();
  page.problems = [];
  page.on("pageerror", (error) => page.problems.push(error.message));
  page.on("console", (message) => {
    if (message.text().includes("Content Security Policy")) page.problems.push(message.text());
  });
  if (options.scheme) await page.emulateMedia({ colorScheme: options.scheme });
  if (options.size) await page.setViewportSize(options.size);
  if (options.script) await page.addInitScript(options.script);
  await page.goto(url);
  await page.locator('#connection[data-state="live"]').waitFor();
  return page;
}

// A browser and a rig for all tests of a file. `test` is a test with a page of its own, which must
// report no problems; `ownRigTest` is one that also has a rig of its own, with further options of
// its host.
export function shareRig(rigOptions) {
  const shared = {};
  before(async () => {
    [shared.browser, shared.rig] = await Promise.all([startBrowser(), Rig.start(rigOptions)]);
  });
  after(async () => {
    await shared.browser.close();
    await shared.rig.stop();
  });
  const withPage = async (rig, options, use) => {
    const page = await openPage(shared.browser.context, rig.url, options);
    try {
      await use(page, rig);
      assert.deepEqual(page.problems, []);
    } finally {
      await page.close();
    }
  };
  shared.test = (name, options, use) =>
    test(name, { timeout: 2 * patience }, () => withPage(shared.rig, options, use));
  shared.ownRigTest = (name, use, host = []) =>
    test(name, { timeout: 2 * patience }, async () => {
      const own = await Rig.start({ ...rigOptions, host });
      try {
        await withPage(own, {}, use);
      } finally {
        own.host.child.kill("SIGCONT");
        await own.stop();
      }
    });
  return shared;
}

export async function shoot(page, name) {
  const screenshots = need("SCREENSHOTS");
  mkdirSync(screenshots, { recursive: true });
  await page.screenshot({ path: join(screenshots, `${name}.png`) });
}

export const row = (page, name) => page.locator(`.row[data-name="${name}"]`);

export const waitForText = (locator, text) => locator.filter({ hasText: text }).waitFor();

const axe = readFileSync(new URL("node_modules/axe-core/axe.min.js", import.meta.url), "utf8");

// The problems that the accessibility checker finds on the page in its present state.
export async function violations(page) {
  await page.evaluate(axe);
  const { violations: found } = await page.evaluate(() => window.axe.run());
  return found.map(({ id, nodes }) => `${id}: ${nodes.map((node) => node.html).join("\n")}`);
}

// Waits until these rows are shown, and no others.
export const waitForNames = (page, names) =>
  page.waitForFunction(
    (wanted) =>
      [...document.querySelectorAll(".rows .row")]
        .filter((row) => row.checkVisibility())
        .map((row) => row.dataset.name)
        .sort()
        .join() === wanted,
    [...names].sort().join(),
  );

// Waits until the text of an element has changed `times` times.
export const waitForChanges = (locator, times) =>
  locator.evaluate(
    (element, count) =>
      new Promise((resolve) => {
        const observer = new MutationObserver(() => --count === 0 && resolve());
        observer.observe(element, { characterData: true, childList: true, subtree: true });
      }),
    times,
  );
