// Takes the README's picture of the live page: node picture.js FILE. Run by scripts/picture.
import { readFileSync } from "node:fs";
import { openPage, Rig, row, startBrowser } from "./tools.js";

const example = new URL("../../examples/mixer.conf", import.meta.url).pathname;

// The example, with the ports that were free.
const configuration = (meters, engine) =>
  readFileSync(example, "utf8")
    .replace("localhost:50005", meters)
    .replace("localhost:50006", engine);

async function change(page, name, value) {
  const field = row(page, name).locator(".value input");
  await field.fill(value);
  await field.press("Enter");
  await row(page, name).locator(".outcome").filter({ hasText: /^#\d+ answered$/ }).waitFor();
  await row(page, name).locator(".age").filter({ hasText: / s$/ }).waitFor();
  await field.blur();
}

async function take(page, file) {
  // By then the histories are full.
  await page.locator("#uptime").filter({ hasText: /^00:00:3[2-9]$/ }).waitFor();
  await change(page, "out_gain", "-6.5");
  await change(page, "scene", "big hall");
  await change(page, "in_2_gain", "3");
  // Without line numbers, which nearly every edit of the module would make wrong.
  const hide = (elements) => elements.forEach((each) => (each.hidden = true));
  await page.locator("#log .source").evaluateAll(hide);
  await page.screenshot({ path: file });
}

const [browser, rig] = await Promise.all([
  startBrowser(),
  Rig.start({
    configuration,
    file: "mixer.conf",
    host: ["--name", "mixer"],
    simulator: ["--config", example],
  }),
]);
try {
  const size = { width: 1280, height: 820 };
  await take(await openPage(browser.context, rig.url, { scheme: "dark", size }), process.argv[2]);
} finally {
  await browser.close();
  await rig.stop();
}
