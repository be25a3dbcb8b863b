// The ranges that people set for bars and sliders: the dialog that asks for one, and the browser's
// memory of them.
import { byId, storage } from "./browser.js";

const nameOf = (slot) => `${slot.set} ${slot.name}`;

export class Ranges {
  #dialog = byId("range-dialog");
  #low = byId("range-low");
  #high = byId("range-high");
  #chosen = {}; // [low, high] by slot
  #storageName = "";
  #edited = null; // the slot and what to call after a change

  constructor() {
    this.#dialog.querySelector("form").addEventListener("submit", (event) => {
      event.preventDefault();
      this.#submit();
    });
    byId("range-auto").addEventListener("click", () => this.#choose(null));
    byId("range-cancel").addEventListener("click", () => this.#dialog.close());
  }

  // Each module has its own.
  load(moduleName) {
    this.#storageName = `ranges.${moduleName}`;
    this.#chosen = storage.get(this.#storageName) ?? {};
  }

  // Null if nobody chose a range for the slot.
  of(slot) {
    return this.#chosen[nameOf(slot)] ?? null;
  }

  edit(slot, onChange) {
    this.#edited = { slot, onChange };
    byId("range-title").textContent = slot.name;
    [this.#low.value, this.#high.value] = slot.range;
    byId("range-problem").textContent = "";
    this.#dialog.showModal();
    this.#low.select();
  }

  #submit() {
    const range = [Number(this.#low.value), Number(this.#high.value)];
    if (range[0] < range[1]) this.#choose(range);
    else byId("range-problem").textContent = "“From” must be less than “to”.";
  }

  #choose(range) {
    const { slot, onChange } = this.#edited;
    if (range === null) delete this.#chosen[nameOf(slot)];
    else this.#chosen[nameOf(slot)] = range;
    storage.set(this.#storageName, this.#chosen);
    slot.chooseRange(range);
    onChange();
    this.#dialog.close();
  }
}
