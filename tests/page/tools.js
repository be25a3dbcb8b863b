// What the tests of the live page need: the built programs as child processes, a browser, and
// folders. Everything waits for events; `patience` bounds it so that a broken run does not hang.
import { spawn } from "node:child_process";
import { once } from "node:events";
import { mkdtempSync, mkdirSync, rmSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { createInterface } from "node:readline";
import { chromium } from "playwright-core";

export const patience = 60000;

const need = (name) => {
  if (!process.env[name]) throw new Error(`${name} is not set: run this by ctest`);
  return process.env[name];
};

const tool = need("GATEWAYCTL");
const screenshots = need("SCREENSHOTS");

// A run of gatewayctl.
export class Tool {
  #lines = [];
  #waiting = new Set();
  #errors = "";
  #ended = null;

  constructor(...words) {
    this.child = spawn(tool, words, { stdio: ["pipe", "pipe", "pipe"] });
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

  // The first line of standard output that begins so.
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
      const timer = setTimeout(() => fail("patience ended"), patience);
      this.#waiting.add(check);
      check();
    });
  }

  // As an interrupt from the keyboard would; gives the exit code.
  async stop() {
    if (this.#ended === null) this.child.kill("SIGINT");
    return this.exit;
  }

  // Processor time so far, in milliseconds.
  async cpu() {
    const { readFile } = await import("node:fs/promises");
    const text = await readFile(`/proc/${this.child.pid}/stat`, "utf8");
    const fields = text.slice(text.lastIndexOf(")") + 2).split(" ");
    const tick = 10; // milliseconds; the system's clock ticks are 1/100 s
    return (Number(fields[11]) + Number(fields[12])) * tick;
  }
}

// A simulator and a host of the given slots; `configuration` gets both targets.
export class Rig {
  static async start({ keys, configuration, simulator = [] }) {
    const rig = new Rig();
    rig.folder = mkdtempSync(join(tmpdir(), "gateway-page-"));
    rig.simulator = new Tool(
      "sim", "--meters", "127.0.0.1:0", "--engine", "127.0.0.1:0", ...simulator, "--keys", ...keys,
    );
    const meters = (await rig.simulator.line("meters ")).slice(7);
    const engine = (await rig.simulator.line("engine ")).slice(7);
    rig.config = join(rig.folder, "page.conf");
    rig.targets = { meters, engine };
    rig.write(configuration);
    await rig.startHost("127.0.0.1:0");
    return rig;
  }

  write(configuration) {
    const { meters, engine } = this.targets;
    writeFileSync(this.config, configuration(meters, engine));
  }

  async startHost(address) {
    this.host = new Tool("host", this.config, "--page", address);
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

// A page that fails the test by what it should not say: errors, and what its own rules forbid.
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

export async function shoot(page, name) {
  mkdirSync(screenshots, { recursive: true });
  await page.screenshot({ path: join(screenshots, `${name}.png`) });
}

export const row = (page, name) => page.locator(`.row[data-name="${name}"]`);
