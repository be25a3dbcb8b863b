// How people want their meters drawn: the rules for slots, and the dialog that edits them. The
// address has the rules; the browser remembers them for an address that has none.
import { address } from "./address.js";
import { byId, download, storage } from "./browser.js";
import { fits, ruleFrom, ruleText } from "./rules.js";

const numbers = ["low", "high", "fall", "warn", "bad", "clip"];
const fieldOf = (name) => byId(`range-${name}`);

export class Settings {
  // Called after each change of the rules.
  onChange = () => {};
  #dialog = byId("range-dialog");
  #rules = [];
  #storageName = "";
  #pattern = ""; // of the rule being edited

  constructor() {
    this.#dialog.querySelector("form").addEventListener("submit", (event) => {
      event.preventDefault();
      this.#submit();
    });
    byId("range-auto").addEventListener("click", () => this.#replace(this.#pattern, []));
    byId("range-cancel").addEventListener("click", () => this.#dialog.close());
    byId("range-export").addEventListener("click", () => this.#export());
    byId("range-import").addEventListener("change", (event) => this.#import(event.target));
    address.onChange(() => {
      this.#read();
      this.onChange();
    });
  }

  // Each module has its own.
  load(moduleName) {
    this.#storageName = `meters.${moduleName}`;
    if (address.getAll("meter").length > 0) this.#read();
    else this.#keep((storage.get(this.#storageName) ?? []).map(ruleFrom).filter(Boolean));
  }

  // The rule for the slot's own name, or else the last one whose pattern fits; null for none.
  // Patterns are for meters: a parameter of a similar name has a scale of its own.
  of({ name, isParameter }) {
    const own = this.#rules.findLast(({ pattern }) => pattern === name);
    if (own || isParameter) return own ?? null;
    return this.#rules.findLast(({ pattern }) => fits(name, pattern)) ?? null;
  }

  edit(slot) {
    const rule = this.of(slot);
    this.#pattern = rule?.pattern ?? slot.name;
    const [low, high] = slot.range;
    for (const name of numbers) fieldOf(name).value = rule?.[name] ?? { low, high }[name] ?? "";
    fieldOf("scale").value = rule?.scale ?? "linear";
    fieldOf("pattern").value = this.#pattern;
    byId("range-title").textContent = slot.name;
    byId("range-meter").hidden = slot.isParameter;
    this.#complain("");
    this.#dialog.showModal();
    fieldOf("low").select();
  }

  #read() {
    this.#rules = address.getAll("meter").map(ruleFrom).filter(Boolean);
  }

  #complain(text) {
    byId("range-problem").textContent = text;
  }

  #submit() {
    const rule = { scale: fieldOf("scale").value, pattern: fieldOf("pattern").value.trim() };
    for (const name of numbers) {
      const text = fieldOf(name).value;
      rule[name] = text === "" ? null : Number(text);
    }
    if (rule.low >= rule.high) this.#complain("“From” must be less than “to”.");
    else this.#replace(rule.pattern, [rule]);
  }

  #replace(pattern, rules) {
    this.#keep([...this.#rules.filter((rule) => rule.pattern !== pattern), ...rules]);
    this.onChange();
    this.#dialog.close();
  }

  #keep(rules) {
    this.#rules = rules;
    const texts = rules.map(ruleText);
    storage.set(this.#storageName, texts.length > 0 ? texts : null);
    address.set("meter", texts);
  }

  #export() {
    const text = this.#rules.map((rule) => `${ruleText(rule)}\n`).join("");
    download(`${this.#storageName}.txt`, text, "text/plain");
  }

  // Takes the place of all rules, or of none if a line is not a rule.
  async #import(input) {
    const lines = (await input.files[0].text()).split("\n").filter((line) => line.trim());
    input.value = "";
    const rules = lines.map(ruleFrom);
    const wrong = rules.indexOf(null);
    if (wrong >= 0) return this.#complain(`Not a rule: “${lines[wrong]}”.`);
    this.#keep(rules);
    this.onChange();
    this.#dialog.close();
  }
}
