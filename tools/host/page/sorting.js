// The order of the rows within their groups.
import { address } from "./address.js";
import { byId } from "./browser.js";

// What each column is sorted by. Ages of changing values are alike, or their rows would never rest.
const keys = {
  name: (slot) => slot.name,
  value: (slot) => slot.sortValue,
  age: (slot, now) => (slot.state(now) === "changing" ? 0 : now - slot.changedAt),
  changes: (slot) => slot.changes,
};
// A minus sorts the other way round. A column's first click takes the first of its orders.
const orders = {
  name: ["name", "-name"],
  value: ["-value", "value"],
  age: ["age", "-age"],
  changes: ["-changes", "changes"],
};
const collator = new Intl.Collator(undefined, { numeric: true });

// Numbers before texts, and what has no order last.
function compare(a, b) {
  if (typeof a === "number" && typeof b === "number") return a - b;
  if (typeof a === "string" && typeof b === "string") return collator.compare(a, b);
  return (typeof a === "number" ? 0 : 1) - (typeof b === "number" ? 0 : 1);
}

export class Sorting {
  #select = byId("sort");
  #order = "";
  #onChange;

  constructor(onChange) {
    this.#onChange = onChange;
    this.#select.addEventListener("change", () => this.#choose(this.#select.value));
    for (const button of document.querySelectorAll(".columns button")) {
      button.addEventListener("click", () => this.#choose(this.#afterClick(button.dataset.sort)));
    }
    address.onChange(() => this.#read());
    this.#read();
  }

  // Whether the order can change as time passes.
  get dependsOnTime() {
    return this.#order !== "" && !this.#order.endsWith("name");
  }

  // Returns the slots in order; equal ones stay in that of the configuration.
  sorted(slots, now) {
    if (this.#order === "") return slots;
    const sign = this.#order.startsWith("-") ? -1 : 1;
    const key = keys[this.#order.replace("-", "")];
    return slots
      .map((slot) => [key(slot, now), slot])
      .sort(([a], [b]) => {
        const isMixed = typeof a !== typeof b;
        return isMixed ? compare(a, b) : sign * compare(a, b);
      })
      .map(([, slot]) => slot);
  }

  #afterClick(column) {
    const [first, second] = orders[column];
    if (this.#order === first) return second;
    return this.#order === second ? "" : first;
  }

  #choose(order) {
    address.set("sort", order);
    this.#take(order);
    this.#onChange();
  }

  #read() {
    const order = address.get("sort");
    this.#take(Object.values(orders).flat().includes(order) ? order : "");
  }

  #take(order) {
    this.#order = this.#select.value = order;
    for (const button of document.querySelectorAll(".columns button")) {
      const isChosen = button.dataset.sort === order.replace("-", "");
      button.dataset.direction = !isChosen ? "" : order.startsWith("-") ? "down" : "up";
    }
  }
}
